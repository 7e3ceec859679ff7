#include "server/byte_range.h"

#include <algorithm>
#include <charconv>
#include <optional>

namespace quillmarsh::sync::server {
namespace {

std::optional<std::int64_t> parse_offset(std::string_view s) {
  std::int64_t v = 0;
  const auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
  if (s.empty() || ec != std::errc() || end != s.data() + s.size() || v < 0) return std::nullopt;
  return v;
}

}  // namespace

ByteRange parse_range(std::string_view header, std::int64_t size) {
  constexpr std::string_view kUnit = "bytes=";
  constexpr ByteRange kWhole{RangeKind::whole, 0, 0};
  constexpr ByteRange kUnsatisfiable{RangeKind::unsatisfiable, 0, 0};
  if (!header.starts_with(kUnit)) return kWhole;
  const std::string_view range = header.substr(kUnit.size());
  const std::size_t dash = range.find('-');
  if (dash == std::string_view::npos || range.find(',') != std::string_view::npos) return kWhole;
  const std::string_view first = range.substr(0, dash);
  const std::string_view last = range.substr(dash + 1);
  if (first.empty()) {  // the last k bytes
    const auto k = parse_offset(last);
    if (!k) return kWhole;
    if (*k == 0 || size == 0) return kUnsatisfiable;
    const std::int64_t length = std::min(*k, size);
    return {RangeKind::span, size - length, length};
  }
  const auto a = parse_offset(first);
  if (!a) return kWhole;
  if (*a >= size) return kUnsatisfiable;
  std::int64_t b = size - 1;
  if (!last.empty()) {
    const auto parsed = parse_offset(last);
    if (!parsed || *parsed < *a) return kWhole;
    b = std::min(*parsed, size - 1);
  }
  return {RangeKind::span, *a, b - *a + 1};
}

std::string content_range(const ByteRange& range, std::int64_t size) {
  if (range.kind != RangeKind::span) return "bytes */" + std::to_string(size);
  return "bytes " + std::to_string(range.begin) + "-" + std::to_string(range.begin + range.length - 1) + "/" +
         std::to_string(size);
}

}  // namespace quillmarsh::sync::server
