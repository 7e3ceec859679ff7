#include "server/reference_server.h"

#include <signal.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>
#include <utility>

#include "sync/errors.h"
#include "sync/paths/manifest_paths.h"
#include "sync/support/json_text.h"
#include "sync/support/log.h"
#include "sync/support/posix_file.h"
#include "sync/support/real_path.h"
#include "sync/support/repr.h"

namespace quillmarsh::sync::server {
namespace {

// httplib listens with a backlog of 5, and a client's eight parallel
// connects then lose SYNs and wait a second for the retransmit. Linux lets
// listen() widen the queue of a listening socket; the socket is a protected
// member, which a member pointer formed in a subclass reaches.
struct ListeningSocket : httplib::Server {
  static void widen_backlog(httplib::Server& s) { ::listen((s.*&ListeningSocket::svr_sock_).load(), SOMAXCONN); }
};

// SO_REUSEADDR alone still lets a restarted server bind at once over the
// last run's connections in TIME_WAIT.
void reuse_address_only(socket_t sock) {
  int yes = 1;
  ::setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
}

// One info line per answered request, so that a client's trouble (a wrong
// token, a range behind the end) shows on the server's side too.
void log_request(const char* role, const httplib::Request& req, const httplib::Response& res) {
  const std::string range = req.get_header_value("Range");
  const std::string length = res.get_header_value("Content-Length");
  std::string why;
  // The API says why it refused in the body's "detail".
  if (res.status >= 400 && res.get_header_value("Content-Type") == "application/json") {
    try {
      const Json body = parse_json_text(res.body);
      if (body.is_object() && body.contains("detail") && body["detail"].is_string()) {
        why = " (" + body["detail"].get<std::string>() + ")";
      }
    } catch (const Error&) {
      // Not a document of ours: nothing more to say.
    }
  }
  log_info("reference server: %s %s %s%s: %d, %s bytes%s",
           {role, req.method, req.path, range.empty() ? std::string() : " Range " + range, res.status,
            length.empty() ? std::to_string(res.body.size()) : length, why});
}

// Whether `root` holds what publish writes: the era state, or an era with
// its manifest. A directory without either is most likely a source tree,
// where the server's key must never be written.
bool looks_published(const ServerRoot& root) {
  if (path_exists(root.state_path())) return true;
  for (const std::string& name : list_directory(root.root)) {
    const std::optional<std::int64_t> era_id = _parse_era_directory_id(name);
    if (era_id && name == "era_" + std::to_string(*era_id) && path_exists(root.manifest_path(*era_id))) return true;
  }
  return false;
}

}  // namespace

// One HTTPS site on its own listening thread; `role` names it in messages.
class ReferenceServer::Site {
 public:
  Site(const TlsFiles& tls, int port, const char* role) : server_(tls.cert_file.c_str(), tls.key_file.c_str()) {
    if (!server_.is_valid()) throw RuntimeError("cannot load " + tls.cert_file + " or " + tls.key_file);
    // Without httplib's SO_REUSEPORT: under it a second server binds a port
    // already in use and takes part of its connections.
    server_.set_socket_options(reuse_address_only);
    server_.set_keep_alive_max_count(1000);
    // Short: stopping waits this long for a connection a client left idle.
    server_.set_keep_alive_timeout(1);
    server_.set_tcp_nodelay(true);
    // A client's download workers each keep a connection open.
    server_.new_task_queue = [] { return new httplib::ThreadPool(32); };
    server_.set_logger(
        [role](const httplib::Request& req, const httplib::Response& res) { log_request(role, req, res); });
    if (port == 0) {
      port_ = server_.bind_to_any_port("127.0.0.1");
    } else if (server_.bind_to_port("127.0.0.1", port)) {
      port_ = port;
    }
    if (port_ <= 0) {
      throw OSError(EADDRINUSE, "cannot listen on 127.0.0.1:" + std::to_string(port) + " for the " + role +
                                    ": the port is in use");
    }
    ListeningSocket::widen_backlog(server_);
  }

  ~Site() {
    if (thread_.joinable()) {
      server_.stop();
      thread_.join();
    }
  }

  httplib::Server& http() { return server_; }
  std::string url() const { return "https://127.0.0.1:" + std::to_string(port_); }

  // Routes must be in place before this.
  void start() {
    auto done = std::make_shared<std::atomic<bool>>(false);
    thread_ = std::thread([this, done] {
      // A client that hangs up mid-response must not kill the process; the
      // connection threads, started from this one, inherit the mask.
      sigset_t pipe_signal;
      sigemptyset(&pipe_signal);
      sigaddset(&pipe_signal, SIGPIPE);
      pthread_sigmask(SIG_BLOCK, &pipe_signal, nullptr);
      server_.listen_after_bind();
      done->store(true);
    });
    // stop() does nothing until listening has begun.
    while (!server_.is_running() && !done->load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (!server_.is_running()) throw RuntimeError("listening on " + url() + " failed");
  }

 private:
  httplib::SSLServer server_;
  int port_ = -1;
  std::thread thread_;
};

ReferenceServer::ReferenceServer(ServeRequest request) {
  if (!is_directory(request.root_dir)) throw ValueError("server root is not a directory: " + quoted(std::string_view(request.root_dir)));
  root_ = ServerRoot{resolve_path(expand_user(request.root_dir))};
  if (!looks_published(root_)) {
    throw ValueError("server root " + quoted(std::string_view(request.root_dir)) +
                     " holds no published era (no current.json, no era_N/manifest.json); serve the --out "
                     "directory of qmsync publish, not a source tree");
  }
  tls_ = ensure_tls_files(root_.tls_dir());
  files_ = std::make_unique<Site>(tls_, request.files_port, "object store");
  api_ = std::make_unique<Site>(tls_, request.api_port, "API server");
  add_object_store_routes(files_->http(), root_, request.files_bytes_per_second);
  add_api_routes(api_->http(), root_, std::move(request.token), files_->url());
  files_->start();
  api_->start();
}

ReferenceServer::~ReferenceServer() {
  api_.reset();
  files_.reset();
}

std::string ReferenceServer::api_url() const { return api_->url(); }
std::string ReferenceServer::files_url() const { return files_->url(); }
const TlsFiles& ReferenceServer::tls() const { return tls_; }
const ServerRoot& ReferenceServer::root() const { return root_; }

}  // namespace quillmarsh::sync::server
