// integer_of_text, integer_of and quoted on any bytes.
//
// integer_of_text is checked against strtoll on the stripped text; quoted
// must print one line of printable bytes between quotes that reads back to
// the input.
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "sync/errors.h"
#include "sync/support/integer.h"
#include "sync/support/json_text.h"
#include "sync/support/repr.h"
#include "sync/support/text.h"
#include "tests/fuzz/fuzz_check.h"

namespace quillmarsh::sync {
namespace {

bool is_decimal_literal(std::string_view body) {
  if (!body.empty() && (body.front() == '+' || body.front() == '-')) body.remove_prefix(1);
  if (body.empty()) return false;
  for (char c : body) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// The text between quoted()'s quotes with its escapes undone; absent when it
// is not of the form quoted() promises (a bare quote, an unknown escape).
std::optional<std::string> unquote(std::string_view text) {
  if (text.size() < 2 || text.front() != '\'' || text.back() != '\'') return std::nullopt;
  text = text.substr(1, text.size() - 2);
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\'') return std::nullopt;
    if (c != '\\') {
      out += c;
      continue;
    }
    if (++i == text.size()) return std::nullopt;
    switch (text[i]) {
      case '\\': out += '\\'; break;
      case '\'': out += '\''; break;
      case 'n': out += '\n'; break;
      case 'r': out += '\r'; break;
      case 't': out += '\t'; break;
      case 'x': {
        if (i + 2 >= text.size()) return std::nullopt;
        const int high = hex_value(text[i + 1]);
        const int low = hex_value(text[i + 2]);
        if (high < 0 || low < 0) return std::nullopt;
        out += static_cast<char>(high * 16 + low);
        i += 2;
        break;
      }
      default: return std::nullopt;
    }
  }
  return out;
}

void check_integer_of_text(std::string_view text) {
  const std::string_view body = strip(text);
  std::optional<std::int64_t> value;
  try {
    value = integer_of_text(text);
  } catch (const ValueError&) {
  }
  // strtoll agrees on every literal of digits; it stops at the first NUL,
  // which a literal cannot hold.
  if (is_decimal_literal(body)) {
    const std::string literal(body);
    errno = 0;
    const long long expected = std::strtoll(literal.c_str(), nullptr, 10);
    if (errno == ERANGE) {
      FUZZ_CHECK(!value, "an out-of-range literal converted");
    } else {
      FUZZ_CHECK(value && *value == expected, "a literal in range did not convert to its value");
    }
  } else {
    FUZZ_CHECK(!value, "text that is no decimal literal converted");
  }
  if (value) {
    FUZZ_CHECK(integer_of_text(std::to_string(*value)) == *value, "to_string did not read back");
    FUZZ_CHECK(integer_of(Json(std::string(text))) == *value, "integer_of a string disagrees");
  }
}

// integer_of on the input as JSON, when it is JSON.
void check_integer_of(std::string_view text) {
  Json value;
  try {
    value = parse_json_text(text);
  } catch (const ValueError&) {
    return;
  }
  std::optional<std::int64_t> result;
  try {
    result = integer_of(value);
  } catch (const ValueError&) {
    FUZZ_CHECK(value.is_number() || value.is_string(), "ValueError for a kind that has no value");
  } catch (const TypeError&) {
    FUZZ_CHECK(!value.is_number() && !value.is_string() && !value.is_boolean(),
               "TypeError for a number, text or boolean");
  }
  if (!result) return;
  if (value.is_number_integer()) {
    FUZZ_CHECK(Json(*result) == value, "an integer did not stay");
  } else if (value.is_number_float()) {
    FUZZ_CHECK(static_cast<double>(*result) == std::trunc(value.get<double>()),
               "a float was not cut toward zero");
  } else if (value.is_boolean()) {
    FUZZ_CHECK(*result == (value.get<bool>() ? 1 : 0), "a boolean is not 0 or 1");
  }
}

void check_quoted(std::string_view text) {
  const std::string printed = quoted(text);
  for (char ch : printed) {
    const auto c = static_cast<unsigned char>(ch);
    FUZZ_CHECK(c >= 0x20 && c != 0x7f, "quoted() let a control byte through");
  }
  const std::optional<std::string> back = unquote(printed);
  FUZZ_CHECK(back.has_value(), "quoted() output is not a well-formed quoted string");
  FUZZ_CHECK(*back == text, "quoted() output does not read back to its input");
}

}  // namespace
}  // namespace quillmarsh::sync

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quillmarsh::sync;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  check_integer_of_text(text);
  check_integer_of(text);
  check_quoted(text);
  return 0;
}
