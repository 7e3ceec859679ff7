#include "sync/support/text.h"

#include <cstdio>

#include "sync/errors.h"

namespace quillmarsh::sync {
namespace {

// Decodes the UTF-8 character at text[i]. A malformed or overlong one gives
// -1 and length 1: a byte that is not white space.
char32_t decode_at(std::string_view text, std::size_t i, std::size_t& length) {
  static constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  constexpr auto kInvalid = static_cast<char32_t>(-1);
  const auto lead = static_cast<unsigned char>(text[i]);
  length = lead < 0x80 ? 1 : lead >= 0xf8 ? 0 : lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3
         : lead >= 0xc0 ? 2 : 0;
  char32_t cp = length == 1 ? lead : lead & (0x7f >> length);
  for (std::size_t k = 1; k < length; ++k) {
    const auto next = i + k < text.size() ? static_cast<unsigned char>(text[i + k]) : 0;
    if ((next & 0xc0) != 0x80) length = 0;
    cp = (cp << 6) | (next & 0x3f);
  }
  if (length == 0 || cp < kSmallest[length]) {
    length = 1;
    return kInvalid;
  }
  return cp;
}

}  // namespace

bool is_space_code_point(char32_t c) {
  return (c >= 0x09 && c <= 0x0d) || (c >= 0x1c && c <= 0x20) || c == 0x85 || c == 0xa0 ||
         c == 0x1680 || (c >= 0x2000 && c <= 0x200a) || c == 0x2028 || c == 0x2029 ||
         c == 0x202f || c == 0x205f || c == 0x3000;
}

std::string_view strip(std::string_view text) {
  std::size_t length = 0;
  while (!text.empty() && is_space_code_point(decode_at(text, 0, length))) text.remove_prefix(length);
  while (!text.empty()) {
    std::size_t start = text.size() - 1;
    while (start > 0 && text.size() - start < 4 &&
           (static_cast<unsigned char>(text[start]) & 0xc0) == 0x80) {
      --start;
    }
    if (!is_space_code_point(decode_at(text, start, length)) || start + length != text.size()) break;
    text.remove_suffix(length);
  }
  return text;
}

std::string ascii_lower(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

void check_utf8(std::string_view bytes) {
  for (std::size_t i = 0; i < bytes.size();) {
    std::size_t length = 0;
    const char32_t cp = decode_at(bytes, i, length);
    // decode_at marks malformed sequences; surrogates and code points past
    // U+10FFFF are well formed but still no UTF-8.
    if (cp == static_cast<char32_t>(-1) || (cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF) {
      char buf[96];
      std::snprintf(buf, sizeof buf, "'utf-8' codec can't decode byte 0x%02x in position %zu",
                    static_cast<unsigned char>(bytes[i]), i);
      throw ValueError(buf);
    }
    i += length;
  }
}

}  // namespace quillmarsh::sync
