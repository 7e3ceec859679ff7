#include "sync/support/repr.h"

#include <cstdio>

#include "sync/support/json_text.h"

namespace quillmarsh::sync {

std::string quoted(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 2);
  out += '\'';
  for (char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    switch (c) {
      case '\\': out += "\\\\"; break;
      case '\'': out += "\\'"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20 || c == 0x7f) {
          char buf[5];
          std::snprintf(buf, sizeof buf, "\\x%02x", c);
          out += buf;
        } else {
          out += ch;  // UTF-8 beyond ASCII prints as it stands.
        }
    }
  }
  out += '\'';
  return out;
}

std::string quoted(const std::optional<std::string>& text) {
  return text ? quoted(std::string_view(*text)) : std::string("None");
}

std::string quoted(const std::vector<std::string>& items) {
  std::string out = "[";
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (i) out += ", ";
    out += quoted(std::string_view(items[i]));
  }
  return out + "]";
}

std::string quoted_json(const nlohmann::ordered_json& value) {
  using Json = nlohmann::ordered_json;
  switch (value.type()) {
    case Json::value_t::null: return "None";
    case Json::value_t::boolean: return value.get<bool>() ? "True" : "False";
    case Json::value_t::string: return quoted(std::string_view(value.get_ref<const std::string&>()));
    case Json::value_t::number_integer:
    case Json::value_t::number_unsigned:
    case Json::value_t::number_float: return json_text(value);
    case Json::value_t::array: {
      std::string out = "[";
      bool first = true;
      for (const auto& item : value) {
        if (!first) out += ", ";
        first = false;
        out += quoted_json(item);
      }
      return out + "]";
    }
    case Json::value_t::object: {
      std::string out = "{";
      bool first = true;
      for (const auto& [key, item] : value.items()) {
        if (!first) out += ", ";
        first = false;
        out += quoted(std::string_view(key)) + ": " + quoted_json(item);
      }
      return out + "}";
    }
    default: return "<binary>";
  }
}

std::string text_of_json(const nlohmann::ordered_json& value) {
  return value.is_string() ? value.get<std::string>() : quoted_json(value);
}

}  // namespace quillmarsh::sync
