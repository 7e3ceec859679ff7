// The object store site: objects whole or by one byte range, misbehaving
// as the site's faults ask.
#include <algorithm>
#include <cctype>
#include <chrono>
#include <string_view>
#include <thread>

#include "server/byte_range.h"
#include "server/object_store.h"
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

bool sleep_unless_stopped(double seconds) {
  if (seconds > 0) std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  return true;
}

struct Answer {
  int status = 200;
  ByteRange span;  // what of the object the body holds; length 0: no body
  Headers headers;
};

void send(const ObjectRoutes& routes, httplib::Response& res, Answer a, std::optional<StoredObject> object,
          const Fault& f) {
  res.status = a.status;
  std::string type = "application/octet-stream";
  if (auto it = a.headers.find("Content-Type"); it != a.headers.end()) {
    type = it->second;
    a.headers.erase(it);
  }
  for (const auto& [name, value] : a.headers) res.set_header(name, value);
  if (a.span.length == 0 || !object) {
    res.set_content("", type);  // httplib sends Content-Length: 0
    return;
  }
  // Always a provider with a length: Content-Length is announced up front,
  // the body can be cut or stalled mid-way, and httplib neither slices nor
  // compresses it.
  res.set_content_provider(
      static_cast<std::size_t>(a.span.length), type,
      [pause = routes.pause, bps = routes.bytes_per_second, read = std::move(object->read), begin = a.span.begin,
       cut = f.cut_after_bytes, wrong = f.wrong_bytes, stall_at = f.stall_after_bytes, stall_s = f.stall_s,
       stalled = false](std::size_t offset, std::size_t length, httplib::DataSink& sink) mutable {
        if (cut && offset >= *cut) return false;  // drops the connection
        if (stall_at && !stalled && offset >= *stall_at) {
          stalled = true;
          if (!pause(stall_s)) return false;
        }
        std::size_t end = offset + piece_size(length, bps);
        if (cut) end = std::min(end, *cut);
        if (stall_at && !stalled) end = std::min(end, *stall_at);
        std::string bytes;
        try {
          bytes = read(begin + static_cast<std::int64_t>(offset), end - offset);
        } catch (const Error&) {
          return false;
        }
        if (wrong) {
          for (char& c : bytes) c = static_cast<char>(c ^ 0xFF);
        }
        if (bps > 0) pause(static_cast<double>(bytes.size()) / static_cast<double>(bps));
        // An object cut short meanwhile ends the response early.
        return !bytes.empty() && sink.write(bytes.data(), bytes.size());
      });
}

// Bytes held in full as an object, for a fault's body or an API answer.
StoredObject held(std::string bytes) {
  const auto size = static_cast<std::int64_t>(bytes.size());
  return {size,
          [bytes = std::move(bytes)](std::int64_t o, std::size_t n) {
            return bytes.substr(static_cast<std::size_t>(o), n);
          },
          {}};
}

void serve(const ObjectRoutes& routes, const httplib::Request& req, httplib::Response& res) {
  // Ranges are answered here; left set, httplib would slice the body again.
  const_cast<httplib::Request&>(req).ranges.clear();
  if (routes.on_request) routes.on_request(req);
  const Fault f = routes.faults->take(req.path).value_or(Fault{});
  if (!routes.pause(f.delay_before_head_s)) {
    res.status = 503;
    return;
  }
  std::optional<StoredObject> object = routes.store->find(req.path);
  Answer a;
  if (object) a.headers = object->headers;
  for (const auto& [name, value] : f.headers) a.headers[name] = value;
  const std::int64_t size = object ? object->size : 0;

  if (f.redirect_to) {
    a.headers["Location"] = *f.redirect_to;
    return send(routes, res, {302, {}, std::move(a.headers)}, {}, f);
  }
  if (f.status) {
    if (f.body) object = held(*f.body);
    return send(routes, res, {*f.status, {RangeKind::span, 0, object ? object->size : 0}, std::move(a.headers)},
                object, f);
  }
  if (req.method != "GET" && req.method != "HEAD") {
    a.headers["Allow"] = "GET, HEAD";
    return send(routes, res, {405, {}, std::move(a.headers)}, {}, f);
  }
  if (!object) {
    res.status = 404;
    res.set_content("not found\n", "text/plain");
    return;
  }
  a.headers.emplace("Accept-Ranges", "bytes");
  ByteRange range;
  if (!f.ignore_range) range = parse_range(req.get_header_value("Range"), size);
  if (range.kind == RangeKind::unsatisfiable) {
    a.headers["Content-Range"] = content_range(range, size);
    return send(routes, res, {416, {}, std::move(a.headers)}, {}, f);
  }
  if (range.kind == RangeKind::whole) range = {RangeKind::whole, 0, size};
  if (f.empty_206) {
    a.headers["Content-Range"] = content_range({RangeKind::span, range.begin, range.length}, size);
    return send(routes, res, {206, {}, std::move(a.headers)}, {}, f);
  }
  if (range.kind == RangeKind::whole) return send(routes, res, {200, range, std::move(a.headers)}, object, f);
  if (f.half_range) range.length = std::max<std::int64_t>(1, range.length / 2);
  a.headers["Content-Range"] = content_range(range, size);
  send(routes, res, {206, range, std::move(a.headers)}, object, f);
}

}  // namespace

httplib::Server::Handler with_faults(httplib::Server::Handler handler, ObjectRoutes routes) {
  if (!routes.pause) routes.pause = sleep_unless_stopped;
  return [handler = std::move(handler), routes = std::move(routes)](const httplib::Request& req,
                                                                    httplib::Response& res) {
    const std::optional<Fault> f = routes.faults->take(req.path);
    if (!f) return handler(req, res);
    if (!routes.pause(f->delay_before_head_s)) {
      res.status = 503;
      return;
    }
    Headers headers;
    if (f->redirect_to) {
      headers["Location"] = *f->redirect_to;
      return send(routes, res, {302, {}, std::move(headers)}, {}, *f);
    }
    handler(req, res);
    for (const auto& [name, value] : res.headers) headers[name] = value;
    for (const auto& [name, value] : f->headers) headers[name] = value;
    std::string body = f->body.value_or(res.body);
    const auto size = static_cast<std::int64_t>(body.size());
    res.headers.clear();
    res.body.clear();
    send(routes, res, {f->status.value_or(res.status), {RangeKind::span, 0, size}, std::move(headers)},
         held(std::move(body)), *f);
  };
}

std::optional<StoredObject> DirectoryStore::find(const std::string& path) const {
  try {
    const std::size_t slash = path.find('/', 1);
    if (!path.starts_with("/era_") || slash == std::string::npos || slash == 5 ||
        !std::all_of(path.begin() + 5, path.begin() + static_cast<std::ptrdiff_t>(slash), ::isdigit)) {
      return std::nullopt;
    }
    const std::int64_t era_id = integer_of_text(path.substr(5, slash - 5));
    const std::string local = _manifest_local_path(root_.files_dir(era_id), path.substr(slash + 1));
    if (!path_exists(local) || !stat_path(local).is_regular) return std::nullopt;
    return StoredObject{
        stat_path(local).size,
        [local](std::int64_t offset, std::size_t length) { return read_file_range(local, offset, length); },
        {}};
  } catch (const Error&) {
    return std::nullopt;
  }
}

void MemoryStore::put(const std::string& path, std::string bytes, Headers headers) {
  auto shared = std::make_shared<const std::string>(std::move(bytes));
  std::lock_guard<std::mutex> lock(mu_);
  objects_[path] = {std::move(shared), std::move(headers)};
}

void MemoryStore::remove(const std::string& path) {
  std::lock_guard<std::mutex> lock(mu_);
  objects_.erase(path);
}

std::optional<StoredObject> MemoryStore::find(const std::string& path) const {
  std::lock_guard<std::mutex> lock(mu_);
  const auto it = objects_.find(path);
  if (it == objects_.end()) return std::nullopt;
  // The bytes are shared, so a response in flight keeps what it began with.
  return StoredObject{static_cast<std::int64_t>(it->second.first->size()),
                      [bytes = it->second.first](std::int64_t offset, std::size_t length) {
                        return bytes->substr(static_cast<std::size_t>(offset), length);
                      },
                      it->second.second};
}

void add_object_routes(httplib::Server& server, ObjectRoutes routes) {
  if (!routes.pause) routes.pause = sleep_unless_stopped;
  auto handler = [routes = std::move(routes)](const httplib::Request& req, httplib::Response& res) {
    serve(routes, req, res);
  };
  // Method handlers (unlike a pre-routing handler) run after httplib has
  // read the request body, so a kept-alive connection stays in sync.
  server.Get(".*", handler);
  server.Post(".*", handler);
  server.Put(".*", handler);
  server.Patch(".*", handler);
  server.Delete(".*", handler);
  server.Options(".*", handler);
}

}  // namespace quillmarsh::sync::server
