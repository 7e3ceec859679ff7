#include "sync/support/json_text.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <simdjson.h>

#include "sync/errors.h"

namespace quillmarsh::sync {
namespace {

void append_u_escape(std::string& out, unsigned unit) {
  char buf[7];
  std::snprintf(buf, sizeof buf, "\\u%04x", unit);
  out += buf;
}

// Decodes one UTF-8 sequence at text[i]; returns its code point and moves i
// past it, or fails on a malformed sequence.
char32_t next_code_point(std::string_view text, std::size_t& i) {
  const auto lead = static_cast<unsigned char>(text[i]);
  int extra;
  char32_t cp;
  if (lead < 0x80) {
    ++i;
    return lead;
  } else if ((lead & 0xE0) == 0xC0) {
    extra = 1;
    cp = lead & 0x1F;
  } else if ((lead & 0xF0) == 0xE0) {
    extra = 2;
    cp = lead & 0x0F;
  } else if ((lead & 0xF8) == 0xF0) {
    extra = 3;
    cp = lead & 0x07;
  } else {
    throw ValueError("string is not valid UTF-8");
  }
  if (i + extra >= text.size()) {
    throw ValueError("string is not valid UTF-8");
  }
  for (int k = 1; k <= extra; ++k) {
    const auto c = static_cast<unsigned char>(text[i + k]);
    if ((c & 0xC0) != 0x80) throw ValueError("string is not valid UTF-8");
    cp = (cp << 6) | (c & 0x3F);
  }
  static constexpr char32_t kMin[] = {0, 0x80, 0x800, 0x10000};
  if (cp < kMin[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
    throw ValueError("string is not valid UTF-8");
  }
  i += extra + 1;
  return cp;
}

void append_string(std::string& out, std::string_view text) {
  out += '"';
  std::size_t i = 0;
  while (i < text.size()) {
    const char32_t cp = next_code_point(text, i);
    switch (cp) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      case '\b': out += "\\b"; break;
      case '\f': out += "\\f"; break;
      default:
        if (cp < 0x20) {
          append_u_escape(out, cp);
        } else if (cp < 0x80) {
          out += static_cast<char>(cp);
        } else if (cp < 0x10000) {
          append_u_escape(out, cp);
        } else {
          const char32_t v = cp - 0x10000;
          append_u_escape(out, 0xD800 + (v >> 10));
          append_u_escape(out, 0xDC00 + (v & 0x3FF));
        }
    }
  }
  out += '"';
}

// The shortest text that reads back as the same double, written as fixed
// notation for exponents from -4 to 15 and as scientific otherwise.
void append_float(std::string& out, double v) {
  if (std::isnan(v)) {
    out += "NaN";
    return;
  }
  if (std::isinf(v)) {
    out += v < 0 ? "-Infinity" : "Infinity";
    return;
  }
  char buf[64];
  auto res = std::to_chars(buf, buf + sizeof buf, v, std::chars_format::scientific);
  std::string_view sci(buf, static_cast<std::size_t>(res.ptr - buf));
  std::string sign;
  if (!sci.empty() && sci.front() == '-') {
    sign = "-";
    sci.remove_prefix(1);
  }
  const std::size_t e_pos = sci.find('e');
  std::string digits;
  for (char c : sci.substr(0, e_pos)) {
    if (c != '.') digits += c;
  }
  const int exponent = std::atoi(std::string(sci.substr(e_pos + 1)).c_str());
  out += sign;
  if (exponent >= -4 && exponent < 16) {
    if (exponent < 0) {
      out += "0." + std::string(static_cast<std::size_t>(-exponent - 1), '0') + digits;
    } else if (digits.size() <= static_cast<std::size_t>(exponent) + 1) {
      out += digits + std::string(exponent + 1 - digits.size(), '0') + ".0";
    } else {
      out += digits.substr(0, exponent + 1) + "." + digits.substr(exponent + 1);
    }
    return;
  }
  out += digits.substr(0, 1);
  if (digits.size() > 1) out += "." + digits.substr(1);
  char exp_buf[16];
  std::snprintf(exp_buf, sizeof exp_buf, "e%c%02d", exponent < 0 ? '-' : '+', std::abs(exponent));
  out += exp_buf;
}

void append_value(std::string& out, const Json& value) {
  switch (value.type()) {
    case Json::value_t::null: out += "null"; return;
    case Json::value_t::boolean: out += value.get<bool>() ? "true" : "false"; return;
    case Json::value_t::number_integer: out += std::to_string(value.get<std::int64_t>()); return;
    case Json::value_t::number_unsigned: out += std::to_string(value.get<std::uint64_t>()); return;
    case Json::value_t::number_float: append_float(out, value.get<double>()); return;
    case Json::value_t::string: append_string(out, value.get_ref<const std::string&>()); return;
    case Json::value_t::array: {
      out += '[';
      bool first = true;
      for (const auto& item : value) {
        if (!first) out += ", ";
        first = false;
        append_value(out, item);
      }
      out += ']';
      return;
    }
    case Json::value_t::object: {
      out += '{';
      bool first = true;
      for (const auto& [key, item] : value.items()) {
        if (!first) out += ", ";
        first = false;
        append_string(out, key);
        out += ": ";
        append_value(out, item);
      }
      out += '}';
      return;
    }
    default: throw TypeError("Object of type binary is not JSON serializable");
  }
}

}  // namespace

std::string json_text(const Json& value) {
  std::string out;
  append_value(out, value);
  return out;
}

namespace {

// Builds the parsed value by appending members, where the library's own
// builder looks every key up by a linear scan: a manifest of 100000 files
// would take quadratic time. A repeated key keeps its first place and takes
// the last value, as most JSON readers do.
class Builder : public nlohmann::json_sax<Json> {
 public:
  Json result;

  bool null() override { return add(Json(nullptr)); }
  bool boolean(bool v) override { return add(Json(v)); }
  bool number_integer(number_integer_t v) override { return add(Json(v)); }
  bool number_unsigned(number_unsigned_t v) override { return add(Json(v)); }
  bool number_float(number_float_t v, const string_t&) override { return add(Json(v)); }
  bool string(string_t& v) override { return add(Json(std::move(v))); }
  bool binary(binary_t& v) override { return add(Json::binary(std::move(v))); }
  bool start_object(std::size_t) override { return open(Json::object()); }
  bool key(string_t& k) override {
    frames_.back().key = std::move(k);
    return true;
  }
  bool end_object() override { return close(); }
  bool start_array(std::size_t) override { return open(Json::array()); }
  bool end_array() override { return close(); }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& e) override {
    throw ValueError(e.what());
  }

 private:
  static constexpr std::size_t kIndexFrom = 16;
  static constexpr std::size_t kMaxDepth = 1000;
  struct Frame {
    Json* container;
    std::string key;
    std::unordered_map<std::string, std::size_t> index;  // built once an object grows
  };

  Json* place(Json&& value) {
    if (frames_.empty()) {
      result = std::move(value);
      return &result;
    }
    Frame& frame = frames_.back();
    if (frame.container->is_array()) {
      auto& array = frame.container->get_ref<Json::array_t&>();
      array.push_back(std::move(value));
      return &array.back();
    }
    auto& object = frame.container->get_ref<Json::object_t&>();
    if (const std::size_t at = find(frame, object); at != object.size()) {
      auto member = object.begin() + static_cast<std::ptrdiff_t>(at);
      member->second = std::move(value);
      return &member->second;
    }
    if (!frame.index.empty() || object.size() + 1 >= kIndexFrom) {
      if (frame.index.empty()) {
        std::size_t i = 0;
        for (const auto& member : object) frame.index.emplace(member.first, i++);
      }
      frame.index.emplace(frame.key, object.size());
    }
    object.emplace_back(std::move(frame.key), std::move(value));
    return &object.back().second;
  }

  static std::size_t find(const Frame& frame, const Json::object_t& object) {
    if (!frame.index.empty()) {
      const auto it = frame.index.find(frame.key);
      return it == frame.index.end() ? object.size() : it->second;
    }
    std::size_t i = 0;
    for (const auto& member : object) {
      if (member.first == frame.key) return i;
      ++i;
    }
    return i;
  }

  bool add(Json&& value) {
    place(std::move(value));
    return true;
  }
  bool open(Json&& container) {
    // Copying, comparing and printing a value recurse once per level, so a
    // hostile document nested deep enough would overflow the stack there.
    if (frames_.size() >= kMaxDepth) {
      throw ValueError("JSON nested deeper than " + std::to_string(kMaxDepth) + " levels");
    }
    Json* placed = place(std::move(container));
    frames_.push_back(Frame{placed, {}, {}});
    return true;
  }
  bool close() {
    frames_.pop_back();
    return true;
  }

  std::vector<Frame> frames_;
};

// The general reader keeps the last value of a repeated key in the place of
// the first; simdjson keeps both, so such a text is left to the general
// reader.
bool has_repeated_key(simdjson::dom::object object) {
  constexpr std::size_t kLinearUpTo = 16;
  if (object.size() <= kLinearUpTo) {
    std::string_view seen[kLinearUpTo];
    std::size_t n = 0;
    for (const simdjson::dom::key_value_pair member : object) {
      for (std::size_t i = 0; i < n; ++i) {
        if (seen[i] == member.key) return true;
      }
      seen[n++] = member.key;
    }
    return false;
  }
  std::unordered_set<std::string_view> seen;
  seen.reserve(object.size());
  for (const simdjson::dom::key_value_pair member : object) {
    if (!seen.insert(member.key).second) return true;
  }
  return false;
}

// The value as the general reader builds it: a non-negative integer is
// unsigned, a negative one signed, anything with a fraction or an exponent
// a float. False where the two would differ.
bool build(simdjson::dom::element element, Json& out) {
  switch (element.type()) {
    case simdjson::dom::element_type::OBJECT: {
      const simdjson::dom::object object = element.get_object().value_unsafe();
      if (has_repeated_key(object)) return false;
      out = Json::object();
      auto& members = out.get_ref<Json::object_t&>();
      members.reserve(object.size());
      for (const simdjson::dom::key_value_pair member : object) {
        members.emplace_back(std::string(member.key), nullptr);
        if (!build(member.value, members.back().second)) return false;
      }
      return true;
    }
    case simdjson::dom::element_type::ARRAY: {
      const simdjson::dom::array array = element.get_array().value_unsafe();
      out = Json::array();
      auto& items = out.get_ref<Json::array_t&>();
      items.reserve(array.size());
      for (const simdjson::dom::element item : array) {
        items.emplace_back();
        if (!build(item, items.back())) return false;
      }
      return true;
    }
    case simdjson::dom::element_type::STRING:
      out = std::string(element.get_string().value_unsafe());
      return true;
    case simdjson::dom::element_type::INT64: {
      const std::int64_t value = element.get_int64().value_unsafe();
      if (value >= 0) {
        out = static_cast<std::uint64_t>(value);
      } else {
        out = value;
      }
      return true;
    }
    case simdjson::dom::element_type::UINT64:
      out = element.get_uint64().value_unsafe();
      return true;
    case simdjson::dom::element_type::DOUBLE:
      out = element.get_double().value_unsafe();
      return true;
    case simdjson::dom::element_type::BOOL:
      out = element.get_bool().value_unsafe();
      return true;
    case simdjson::dom::element_type::NULL_VALUE:
      out = nullptr;
      return true;
  }
  return false;
}

// Whether an integer is written "-0" somewhere: the general reader makes it
// a signed zero, which simdjson does not tell from "0". Also true for such
// bytes inside a string, which costs only the quick road.
bool may_hold_negative_zero(std::string_view text) {
  for (std::size_t at = text.find("-0"); at != std::string_view::npos; at = text.find("-0", at + 2)) {
    const char next = at + 2 < text.size() ? text[at + 2] : ' ';
    if (!(next >= '0' && next <= '9') && next != '.' && next != 'e' && next != 'E') return true;
  }
  return false;
}

Json parse_generally(std::string_view text) {
  Builder builder;
  try {
    Json::sax_parse(text.begin(), text.end(), &builder);
  } catch (const Json::exception& e) {
    throw ValueError(e.what());
  }
  return std::move(builder.result);
}

}  // namespace

std::optional<Json> parse_json_text_quickly(std::string_view text) {
  if (may_hold_negative_zero(text)) return std::nullopt;
  // Stricter than the general reader's limit, so that nothing it refuses
  // passes here.
  constexpr std::size_t kMaxDepth = 999;
  simdjson::dom::parser parser;
  if (parser.allocate(text.size(), kMaxDepth)) return std::nullopt;
  simdjson::dom::element root;
  if (parser.parse(text.data(), text.size(), true).get(root)) return std::nullopt;
  Json out;
  if (!build(root, out)) return std::nullopt;
  return out;
}

Json parse_json_text(std::string_view text) {
  if (text.size() >= kQuickReadFrom) {
    if (std::optional<Json> quick = parse_json_text_quickly(text)) return std::move(*quick);
  }
  return parse_generally(text);
}

}  // namespace quillmarsh::sync
