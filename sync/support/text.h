// White space as the component's peers strip it: the ASCII blanks and the
// Unicode space characters, read from UTF-8.
#ifndef QUILLMARSH_SYNC_SUPPORT_TEXT_H_
#define QUILLMARSH_SYNC_SUPPORT_TEXT_H_

#include <string>
#include <string_view>

namespace quillmarsh::sync {

bool is_space_code_point(char32_t c);
// `text` without white space at either end. Malformed UTF-8 is not space.
std::string_view strip(std::string_view text);

// `text` with ASCII letters in lower case; other bytes stay.
std::string ascii_lower(std::string_view text);

// Returns when `bytes` is valid UTF-8; otherwise fails with ValueError
// naming the first offending byte and its position.
void check_utf8(std::string_view bytes);

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_SUPPORT_TEXT_H_
