// One loopback HTTP(S) site on its own listening thread: the listener, the
// connection threads, SIGPIPE and the start-up wait, shared by the
// reference server's two sites and the tests' in-memory server.
#ifndef QUILLMARSH_SYNC_SERVER_SITE_H_
#define QUILLMARSH_SYNC_SERVER_SITE_H_

#include <httplib.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "server/certificates.h"

namespace quillmarsh::sync::server {

class Site {
 public:
  // Binds 127.0.0.1:`port` (0: any free port), over TLS with `tls`'s
  // certificate, plain HTTP without; `role` names the site in messages.
  // Fails with OSError (EADDRINUSE) when the port cannot be bound.
  Site(const std::optional<TlsFiles>& tls, int port, const char* role);
  // Stops listening, ends pauses and drops open connections, so that it
  // returns promptly even with a response in flight.
  ~Site();
  Site(const Site&) = delete;
  Site& operator=(const Site&) = delete;

  httplib::Server& http() { return *server_; }
  int port() const { return port_; }
  std::string url() const;  // "https://127.0.0.1:P"

  // Routes must be in place before this; serving when it returns.
  void start();

  // Sleeps `seconds` unless the site stops first; false if it did.
  bool pause(double seconds);

  // TCP connections accepted so far; shows whether a client reuses them.
  std::size_t connection_count() const { return connections_.load(); }

 private:
  std::unique_ptr<httplib::Server> server_;
  bool https_ = true;
  int port_ = -1;
  std::thread thread_;
  std::atomic<std::size_t> connections_{0};
  std::mutex mu_;
  std::condition_variable stop_cv_;
  bool stopping_ = false;
};

}  // namespace quillmarsh::sync::server

#endif  // QUILLMARSH_SYNC_SERVER_SITE_H_
