// The object store site: published files by era, whole or by one byte range.
#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <string_view>
#include <thread>

#include "server/byte_range.h"
#include "server/routes.h"
#include "sync/errors.h"
#include "sync/paths/manifest_paths.h"
#include "sync/support/integer.h"
#include "sync/support/posix_file.h"

namespace quillmarsh::sync::server {
namespace {

constexpr std::size_t kChunk = 256 * 1024;

// A paced response goes out in pieces of about 50 ms each, so that it
// trickles rather than arriving in bursts.
std::size_t piece_size(std::size_t asked, std::int64_t bytes_per_second) {
  std::size_t piece = std::min(asked, kChunk);
  if (bytes_per_second > 0) {
    piece = std::min(piece, static_cast<std::size_t>(std::max<std::int64_t>(bytes_per_second / 20, 1024)));
  }
  return piece;
}

void pace(std::size_t sent, std::int64_t bytes_per_second) {
  if (bytes_per_second <= 0) return;
  std::this_thread::sleep_for(std::chrono::microseconds(static_cast<std::int64_t>(sent) * 1000000 / bytes_per_second));
}

// The local file for /era_N/{path}, or absent when there is none. The path
// passes the client's own gate, so nothing outside the era's files is served.
std::optional<std::string> local_file(const ServerRoot& root, std::string_view era_text, std::string_view path) {
  try {
    const std::int64_t era_id = integer_of_text(era_text);
    const std::string local = _manifest_local_path(root.files_dir(era_id), path);
    if (!path_exists(local) || !stat_path(local).is_regular) return std::nullopt;
    return local;
  } catch (const Error&) {
    return std::nullopt;
  }
}

void serve_file(const ServerRoot& root, std::int64_t bytes_per_second, const httplib::Request& req,
                httplib::Response& res) {
  // Ranges are answered here; left set, httplib would slice the body again.
  const_cast<httplib::Request&>(req).ranges.clear();
  const std::optional<std::string> local = local_file(root, req.matches[1].str(), req.matches[2].str());
  if (!local) {
    res.status = 404;
    res.set_content("not found\n", "text/plain");
    return;
  }
  const std::int64_t size = stat_path(*local).size;
  res.set_header("Accept-Ranges", "bytes");
  ByteRange span = parse_range(req.get_header_value("Range"), size);
  switch (span.kind) {
    case RangeKind::unsatisfiable:
      res.status = 416;
      res.set_header("Content-Range", content_range(span, size));
      return;
    case RangeKind::span:
      res.status = 206;
      res.set_header("Content-Range", content_range(span, size));
      break;
    case RangeKind::whole:
      res.status = 200;
      span.length = size;
      break;
  }
  if (span.length == 0) {
    res.set_content("", "application/octet-stream");
    return;
  }
  res.set_content_provider(
      static_cast<std::size_t>(span.length), "application/octet-stream",
      [path = *local, span, bytes_per_second](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
        std::string bytes;
        try {
          bytes = read_file_range(path, span.begin + static_cast<std::int64_t>(offset),
                                  piece_size(length, bytes_per_second));
        } catch (const Error&) {
          return false;
        }
        pace(bytes.size(), bytes_per_second);
        // A file cut short meanwhile ends the response early.
        return !bytes.empty() && sink.write(bytes.data(), bytes.size());
      });
}

}  // namespace

void add_object_store_routes(httplib::Server& server, const ServerRoot& root, std::int64_t bytes_per_second) {
  server.Get(R"(/era_(\d+)/(.+))", [root, bytes_per_second](const httplib::Request& req, httplib::Response& res) {
    serve_file(root, bytes_per_second, req, res);
  });
}

}  // namespace quillmarsh::sync::server
