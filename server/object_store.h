// What an object store site serves, and the routes that serve it: a
// published root's era files as today, or bytes held in memory at any path
// (the tests' server), each with the site's faults applied.
#ifndef QUILLMARSH_SYNC_SERVER_OBJECT_STORE_H_
#define QUILLMARSH_SYNC_SERVER_OBJECT_STORE_H_

#include <httplib.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "server/fault.h"
#include "server/server_root.h"

namespace quillmarsh::sync::server {

// One object as found: its size, its bytes read piecewise (empty when the
// object has gone meanwhile) and headers of its own (a Content-Type among
// them replaces application/octet-stream).
struct StoredObject {
  std::int64_t size = 0;
  std::function<std::string(std::int64_t offset, std::size_t length)> read;
  Headers headers;
};

class ObjectStore {
 public:
  virtual ~ObjectStore() = default;
  // The object at the decoded request path, or absent. Safe from any thread.
  virtual std::optional<StoredObject> find(const std::string& path) const = 0;
};

// /era_N/{path} from the root's files of era N, any era; the path passes
// the client's own gate, so nothing outside the era's files is served.
class DirectoryStore final : public ObjectStore {
 public:
  explicit DirectoryStore(ServerRoot root) : root_(std::move(root)) {}
  std::optional<StoredObject> find(const std::string& path) const override;

 private:
  ServerRoot root_;
};

// Bytes put at any path, replaced or removed at any time.
class MemoryStore final : public ObjectStore {
 public:
  void put(const std::string& path, std::string bytes, Headers headers = {});
  void remove(const std::string& path);
  std::optional<StoredObject> find(const std::string& path) const override;

 private:
  mutable std::mutex mu_;
  std::map<std::string, std::pair<std::shared_ptr<const std::string>, Headers>> objects_;
};

struct ObjectRoutes {
  std::shared_ptr<const ObjectStore> store;
  std::shared_ptr<FaultTable> faults = std::make_shared<FaultTable>();
  // A positive rate paces each response to it, to stand in for a slow link.
  std::int64_t bytes_per_second = 0;
  // Sleeps for a delay or a stall; false when the site stops meanwhile.
  std::function<bool(double seconds)> pause = {};
  // Told of each request before it is answered.
  std::function<void(const httplib::Request&)> on_request = {};
};

// GET and HEAD of any path, whole or one byte range, from `routes.store`;
// other methods are refused with 405 unless a fault answers them.
void add_object_routes(httplib::Server& server, ObjectRoutes routes);

// `handler` meeting `routes.faults` as the object store does (no range
// faults: its answers are whole); a request no fault applies to reaches it
// untouched. `routes.store` is not used.
httplib::Server::Handler with_faults(httplib::Server::Handler handler, ObjectRoutes routes);

}  // namespace quillmarsh::sync::server

#endif  // QUILLMARSH_SYNC_SERVER_OBJECT_STORE_H_
