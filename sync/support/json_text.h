// The one text form in which the component writes JSON state files, and the
// one way it reads JSON text.
#ifndef QUILLMARSH_SYNC_SUPPORT_JSON_TEXT_H_
#define QUILLMARSH_SYNC_SUPPORT_JSON_TEXT_H_

#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace quillmarsh::sync {

using Json = nlohmann::ordered_json;

// One line, members in stored order, ", " and ": " as separators, every
// character beyond ASCII as a lower-case \uXXXX escape (surrogate pairs past
// U+FFFF), "/" left alone, floats as their shortest round-trip text.
// A digest announced by the server is taken over exactly these bytes, so a
// byte of difference makes a client believe itself stale. Fails with
// ValueError on a string that is not valid UTF-8.
std::string json_text(const Json& value);

// Spare capacity behind a text (see read_file) that lets the fast readers of
// the component's own state files parse it where it lies, without a copy.
inline constexpr std::size_t kJsonReadPadding = 64;

// Parses UTF-8 JSON text, keeping member order. Fails with ValueError,
// whose message says where the text went wrong, also for arrays and objects
// nested more than 1000 deep.
Json parse_json_text(std::string_view text);

// The value parse_json_text gives, read by simdjson, which is many times
// faster on a large text; absent for any text it cannot vouch for: one the
// general reader refuses, and the few it reads otherwise (a key repeated in
// an object, an integer written "-0"). parse_json_text takes this road for
// texts of kQuickReadFrom bytes and more.
std::optional<Json> parse_json_text_quickly(std::string_view text);
inline constexpr std::size_t kQuickReadFrom = 64 * 1024;

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_SUPPORT_JSON_TEXT_H_
