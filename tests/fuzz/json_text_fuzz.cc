// parse_json_text and json_text on any bytes.
//
// Whatever parses must print as one line of ASCII that parses back to an
// equal value and prints again to the same bytes; whatever does not parse
// fails with ValueError. The simdjson reader answers as the general one or
// not at all. The bytes as a JSON string print exactly when they are UTF-8.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "sync/errors.h"
#include "sync/support/json_text.h"
#include "sync/support/text.h"
#include "tests/fuzz/fuzz_check.h"

namespace quillmarsh::sync {
namespace {

bool is_lower_hex(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); }

// One line of ASCII (DEL may stand raw) whose \u escapes use lower-case hex.
void check_text_form(std::string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    FUZZ_CHECK(c >= 0x20 && c < 0x80, "json_text wrote a control byte or one beyond ASCII");
    if (c != '\\') continue;
    FUZZ_CHECK(i + 1 < text.size(), "json_text ended on a backslash");
    if (text[++i] != 'u') continue;
    FUZZ_CHECK(i + 4 < text.size(), "json_text wrote a short \\u escape");
    for (std::size_t k = 1; k <= 4; ++k) {
      FUZZ_CHECK(is_lower_hex(text[i + k]), "json_text wrote a \\u escape not in lower-case hex");
    }
    i += 4;
  }
}

// json_text(value) and its round trip; `value` holds only UTF-8 text.
void check_round_trip(const Json& value) {
  const std::string text = json_text(value);
  check_text_form(text);
  const Json back = parse_json_text(text);
  FUZZ_CHECK(back == value, "json_text did not parse back to an equal value");
  FUZZ_CHECK(json_text(back) == text, "json_text is not stable over a round trip");
}

// The same value down to the kind of each number and the sign of a zero,
// which == does not tell apart.
bool same(const Json& a, const Json& b) {
  if (a.type() != b.type()) return false;
  if (a.is_number_float()) return std::memcmp(&a.get_ref<const double&>(), &b.get_ref<const double&>(), 8) == 0;
  if (a.is_object()) {
    const auto &x = a.get_ref<const Json::object_t&>(), &y = b.get_ref<const Json::object_t&>();
    return std::equal(x.begin(), x.end(), y.begin(), y.end(),
                      [](const auto& m, const auto& n) { return m.first == n.first && same(m.second, n.second); });
  }
  if (a.is_array()) return std::equal(a.begin(), a.end(), b.begin(), b.end(), same);
  return a == b;
}

}  // namespace

// Whatever parses round-trips, and the quick reader, where it answers,
// answers what the general one does; the bytes as a JSON string print
// exactly when they are UTF-8.
void fuzz_one(std::string_view input) {
  const auto value = unless_refused<ValueError>([&] { return parse_json_text(input); });
  if (value) check_round_trip(*value);
  if (input.size() < kQuickReadFrom) {  // else parse_json_text took the quick road itself
    if (const std::optional<Json> quick = parse_json_text_quickly(input)) {
      FUZZ_CHECK(value && same(*quick, *value), "the quick reader read a text otherwise than the general one");
    }
  }
  const Json text = std::string(input);
  if (unless_refused<ValueError>([&] { return check_utf8(input), true; })) check_round_trip(text);
  else FUZZ_CHECK(!unless_refused<ValueError>([&] { return json_text(text); }), "json_text printed non-UTF-8 text");
}

}  // namespace quillmarsh::sync
