// integer_of_text, integer_of and quoted on any bytes.
//
// integer_of_text is checked against strtoll on the stripped text; quoted
// must print one line of printable bytes between quotes that reads back to
// the input.
#include <algorithm>
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
  if (body.starts_with('+') || body.starts_with('-')) body.remove_prefix(1);
  return !body.empty() && std::ranges::all_of(body, [](char c) { return c >= '0' && c <= '9'; });
}

// The text between quoted()'s quotes with its escapes undone; absent when it
// is not of the form quoted() promises (a bare quote, an unknown escape).
std::optional<std::string> unquote(std::string_view text) {
  if (text.size() < 2 || text.front() != '\'' || text.back() != '\'') return std::nullopt;
  text = text.substr(1, text.size() - 2);
  constexpr std::string_view kEscaped = "\\'nrt", kMeant = "\\'\n\r\t";
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\'') return std::nullopt;
    if (text[i] != '\\') {
      out += text[i];
    } else if (++i == text.size()) {
      return std::nullopt;
    } else if (const std::size_t k = kEscaped.find(text[i]); k != std::string_view::npos) {
      out += kMeant[k];
    } else {
      // \xhh, in lower-case hex.
      const std::string_view hex = text.substr(i + 1, 2);
      const auto is_hex = [](char c) { return std::string_view("0123456789abcdef").find(c) != std::string_view::npos; };
      if (text[i] != 'x' || hex.size() != 2 || !std::ranges::all_of(hex, is_hex)) return std::nullopt;
      out += static_cast<char>(std::stoi(std::string(hex), nullptr, 16));
      i += 2;
    }
  }
  return out;
}

void check_integer_of_text(std::string_view text) {
  const std::string_view body = strip(text);
  const std::optional<std::int64_t> value = unless_refused<ValueError>([&] { return integer_of_text(text); });
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
  const std::optional<Json> parsed = unless_refused<ValueError>([&] { return parse_json_text(text); });
  if (!parsed) return;
  const Json& value = *parsed;
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
    FUZZ_CHECK(static_cast<double>(*result) == std::trunc(value.get<double>()), "a float was not cut toward zero");
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

void fuzz_one(std::string_view text) {
  check_integer_of_text(text);
  check_integer_of(text);
  check_quoted(text);
}

}  // namespace quillmarsh::sync
