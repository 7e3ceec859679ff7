// The reference server on loopback: the API and the object store, each over
// HTTPS with a certificate of the server's own CA, serving a root that
// `publish_era` writes.
#ifndef QUILLMARSH_SYNC_SERVER_REFERENCE_SERVER_H_
#define QUILLMARSH_SYNC_SERVER_REFERENCE_SERVER_H_

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "server/certificates.h"
#include "server/fault.h"
#include "server/routes.h"

namespace quillmarsh::sync::server {

struct ServeRequest {
  std::string root_dir;
  int api_port = 0;    // 0: any free port
  int files_port = 0;  // 0: any free port
  ExpectedToken token;
  std::int64_t files_bytes_per_second = 0;  // 0: the object store sends as fast as it can
  // Paths on either site (a trailing '*' covers a prefix) and how to
  // mishandle requests for them.
  std::vector<std::pair<std::string, Fault>> faults = {};
};

class Site;

class ReferenceServer {
 public:
  // Makes the TLS files under the root when missing, binds 127.0.0.1 and
  // serves before returning; logs each request at info. Fails with
  // ValueError for a root that is no directory or holds nothing published,
  // OSError (EADDRINUSE) when a port cannot be bound.
  explicit ReferenceServer(ServeRequest request);
  // Stops both sites and waits for their threads.
  ~ReferenceServer();
  ReferenceServer(const ReferenceServer&) = delete;
  ReferenceServer& operator=(const ReferenceServer&) = delete;

  std::string api_url() const;    // "https://127.0.0.1:P"
  std::string files_url() const;  // "https://127.0.0.1:Q"
  const TlsFiles& tls() const;
  const ServerRoot& root() const;

 private:
  ServerRoot root_;
  TlsFiles tls_;
  std::unique_ptr<Site> files_;
  std::unique_ptr<Site> api_;
};

}  // namespace quillmarsh::sync::server

#endif  // QUILLMARSH_SYNC_SERVER_REFERENCE_SERVER_H_
