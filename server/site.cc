#include "server/site.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <list>
#include <vector>

#include "sync/errors.h"

namespace quillmarsh::sync::server {
namespace {

// One thread per connection: a pool would hold a thread per idle keep-alive
// connection, and a client's parallel workers would queue behind them.
class ConnectionThreads final : public httplib::TaskQueue {
 public:
  explicit ConnectionThreads(std::atomic<std::size_t>& accepted) : accepted_(accepted) {}

  void enqueue(std::function<void()> fn) override {
    ++accepted_;
    std::lock_guard<std::mutex> lock(mu_);
    for (auto it = workers_.begin(); it != workers_.end();) {
      if (it->done->load()) {
        it->thread.join();
        it = workers_.erase(it);
      } else {
        ++it;
      }
    }
    auto done = std::make_shared<std::atomic<bool>>(false);
    workers_.push_back({std::thread([fn = std::move(fn), done] {
                          fn();
                          done->store(true);
                        }),
                        done});
  }

  void shutdown() override {
    std::list<Worker> all;
    {
      std::lock_guard<std::mutex> lock(mu_);
      all.swap(workers_);
    }
    for (auto& w : all) w.thread.join();
  }

 private:
  struct Worker {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> done;
  };
  std::atomic<std::size_t>& accepted_;
  std::mutex mu_;
  std::list<Worker> workers_;
};

// httplib listens with a backlog of 5, and a client's eight parallel
// connects then lose SYNs and wait a second for the retransmit. Linux lets
// listen() widen the queue of a listening socket; the socket is a protected
// member, which a member pointer formed in a subclass reaches.
struct ListeningSocket : httplib::Server {
  static void widen_backlog(httplib::Server& s) { ::listen((s.*&ListeningSocket::svr_sock_).load(), SOMAXCONN); }
};

// SO_REUSEADDR alone still lets a restarted server bind at once over the
// last run's connections in TIME_WAIT; httplib's SO_REUSEPORT would let a
// second server bind a port in use and take part of its connections.
void reuse_address_only(socket_t sock) {
  int yes = 1;
  ::setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
}

// Idle keep-alive connections sit in httplib's wait loop (up to its
// keep-alive timeout) even after stop(); shutting their sockets down wakes
// them. Only sockets whose local end is our port are server-side ones.
void shutdown_connections_on(int port) {
  std::vector<int> fds;
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (dirent* e = readdir(dir)) {
      const int fd = std::atoi(e->d_name);
      if (fd > 2 && fd != dirfd(dir)) fds.push_back(fd);
    }
    closedir(dir);
  }
  for (const int fd : fds) {
    sockaddr_in addr{};
    socklen_t len = sizeof(addr);
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0 && addr.sin_family == AF_INET &&
        ntohs(addr.sin_port) == port) {
      ::shutdown(fd, SHUT_RDWR);
    }
  }
}

}  // namespace

Site::Site(const std::optional<TlsFiles>& tls, int port, const char* role) : https_(tls.has_value()) {
  if (tls) {
    server_ = std::make_unique<httplib::SSLServer>(tls->cert_file.c_str(), tls->key_file.c_str());
    if (!server_->is_valid()) throw RuntimeError("cannot load " + tls->cert_file + " or " + tls->key_file);
  } else {
    server_ = std::make_unique<httplib::Server>();
  }
  server_->set_socket_options(reuse_address_only);
  // httplib's default (5) closes every fifth request's connection and would
  // hide a client's reuse faults.
  server_->set_keep_alive_max_count(100000);
  server_->set_tcp_nodelay(true);
  server_->new_task_queue = [this] { return new ConnectionThreads(connections_); };
  if (port == 0) {
    port_ = server_->bind_to_any_port("127.0.0.1");
  } else if (server_->bind_to_port("127.0.0.1", port)) {
    port_ = port;
  }
  if (port_ <= 0) {
    throw OSError(EADDRINUSE,
                  "cannot listen on 127.0.0.1:" + std::to_string(port) + " for the " + role + ": the port is in use");
  }
  ListeningSocket::widen_backlog(*server_);
}

Site::~Site() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    stopping_ = true;
  }
  stop_cv_.notify_all();
  if (thread_.joinable()) {
    server_->stop();
    shutdown_connections_on(port_);
    thread_.join();
  }
}

std::string Site::url() const {
  return (https_ ? "https" : "http") + std::string("://127.0.0.1:") + std::to_string(port_);
}

void Site::start() {
  auto done = std::make_shared<std::atomic<bool>>(false);
  thread_ = std::thread([this, done] {
    // A client that hangs up mid-response must not kill the process (OpenSSL
    // writes with plain write()); the connection threads inherit the mask.
    sigset_t pipe_signal;
    sigemptyset(&pipe_signal);
    sigaddset(&pipe_signal, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_signal, nullptr);
    server_->listen_after_bind();
    done->store(true);
  });
  // stop() does nothing until listening has begun.
  while (!server_->is_running() && !done->load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  if (!server_->is_running()) {
    thread_.join();
    throw RuntimeError("listening on " + url() + " failed");
  }
}

bool Site::pause(double seconds) {
  if (seconds <= 0) return true;
  std::unique_lock<std::mutex> lock(mu_);
  return !stop_cv_.wait_for(lock, std::chrono::duration<double>(seconds), [this] { return stopping_; });
}

}  // namespace quillmarsh::sync::server
