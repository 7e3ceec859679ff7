// The single byte range of an HTTP Range header, as the object store site
// answers it.
#ifndef QUILLMARSH_SYNC_SERVER_BYTE_RANGE_H_
#define QUILLMARSH_SYNC_SERVER_BYTE_RANGE_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace quillmarsh::sync::server {

enum class RangeKind { whole, span, unsatisfiable };

struct ByteRange {
  RangeKind kind = RangeKind::whole;
  std::int64_t begin = 0;
  std::int64_t length = 0;
};

// "bytes=a-b", "bytes=a-" or "bytes=-k" against a body of `size` bytes.
// Anything else (several ranges, other units, no header) is `whole`, as
// HTTP lets a server ignore a Range it does not take.
ByteRange parse_range(std::string_view header, std::int64_t size);

// "bytes a-b/size" for a span, "bytes */size" for an unsatisfiable range.
std::string content_range(const ByteRange& range, std::int64_t size);

}  // namespace quillmarsh::sync::server

#endif  // QUILLMARSH_SYNC_SERVER_BYTE_RANGE_H_
