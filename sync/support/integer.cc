#include "sync/support/integer.h"

#include <charconv>
#include <cmath>
#include <limits>
#include <string>

#include "sync/errors.h"
#include "sync/support/repr.h"
#include "sync/support/text.h"

namespace quillmarsh::sync {

namespace {

std::int64_t parse_decimal(std::string_view text, bool saturate) {
  const std::string_view body = strip(text);
  auto invalid = [&] {
    return ValueError("invalid literal for int() with base 10: " + quoted(text));
  };
  std::string_view digits = body;
  bool negative = false;
  if (!digits.empty() && (digits.front() == '+' || digits.front() == '-')) {
    negative = digits.front() == '-';
    digits.remove_prefix(1);
  }
  if (digits.empty()) throw invalid();
  for (char c : digits) {
    if (c < '0' || c > '9') throw invalid();
  }
  // Parse the magnitude unsigned so that the most negative value fits.
  std::uint64_t magnitude = 0;
  auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), magnitude);
  (void)end;
  constexpr auto kMax = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  if (ec != std::errc() || magnitude > kMax + (negative ? 1 : 0)) {
    if (!saturate) throw ValueError("integer out of range: " + quoted(text));
    return negative ? std::numeric_limits<std::int64_t>::min() : std::numeric_limits<std::int64_t>::max();
  }
  if (negative) return static_cast<std::int64_t>(0 - magnitude);
  return static_cast<std::int64_t>(magnitude);
}

}  // namespace

std::int64_t integer_of_text(std::string_view text) { return parse_decimal(text, false); }

std::int64_t saturating_integer_of_text(std::string_view text) { return parse_decimal(text, true); }

std::int64_t integer_of(const Json& value) {
  switch (value.type()) {
    case Json::value_t::number_integer: return value.get<std::int64_t>();
    case Json::value_t::number_unsigned: {
      const auto v = value.get<std::uint64_t>();
      if (v > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        throw ValueError("integer out of range: " + std::to_string(v));
      }
      return static_cast<std::int64_t>(v);
    }
    case Json::value_t::number_float: {
      const double v = value.get<double>();
      if (std::isnan(v)) throw ValueError("cannot convert float NaN to integer");
      if (std::isinf(v)) throw ValueError("cannot convert float infinity to integer");
      const double cut = std::trunc(v);
      // 2^63 is exactly representable; anything at or beyond it does not fit.
      if (cut >= 9223372036854775808.0 || cut < -9223372036854775808.0) {
        throw ValueError("integer out of range: " + quoted_json(value));
      }
      return static_cast<std::int64_t>(cut);
    }
    case Json::value_t::boolean: return value.get<bool>() ? 1 : 0;
    case Json::value_t::string: return integer_of_text(value.get_ref<const std::string&>());
    case Json::value_t::null:
      throw TypeError("int() argument must be a string or a number, not 'NoneType'");
    case Json::value_t::array:
      throw TypeError("int() argument must be a string or a number, not 'list'");
    case Json::value_t::object:
      throw TypeError("int() argument must be a string or a number, not 'dict'");
    default: throw TypeError("int() argument must be a string or a number");
  }
}

}  // namespace quillmarsh::sync
