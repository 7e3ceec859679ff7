// The quoted representation used wherever a message shows a value "as
// received": strings in single quotes with escapes, absent as None.
#ifndef QUILLMARSH_SYNC_SUPPORT_REPR_H_
#define QUILLMARSH_SYNC_SUPPORT_REPR_H_

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace quillmarsh::sync {

// 'text' with backslash, quote, control characters and NUL escaped.
std::string quoted(std::string_view text);
// Exact-match overloads, so that std::quoted (found by argument-dependent
// lookup on std::string) never wins over ours.
inline std::string quoted(const std::string& text) { return quoted(std::string_view(text)); }
inline std::string quoted(const char* text) { return quoted(std::string_view(text)); }
// quoted(text), or None when absent.
std::string quoted(const std::optional<std::string>& text);
// ['a', 'b']
std::string quoted(const std::vector<std::string>& items);
// A JSON value in the printable form of the data model: None, True, 12,
// 1.5, 'text', ['a', 1], {'k': 'v'}.
std::string quoted_json(const nlohmann::ordered_json& value);
// A JSON value as text in a message: a string as it stands, anything else
// as quoted_json prints it.
std::string text_of_json(const nlohmann::ordered_json& value);

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_SUPPORT_REPR_H_
