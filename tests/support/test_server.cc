#include "tests/support/test_server.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <httplib.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <list>
#include <mutex>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <utility>

#include "server/byte_range.h"

#ifndef QMSYNC_TEST_CERT_DIR
#error "QMSYNC_TEST_CERT_DIR must name the directory holding ca.pem"
#endif

namespace quillmarsh::sync::testing {

bool HeaderNameLess::operator()(const std::string& a,
                                const std::string& b) const {
  return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                      [](unsigned char x, unsigned char y) {
                                        return std::tolower(x) <
                                               std::tolower(y);
                                      });
}

std::optional<std::string> RecordedRequest::header(
    const std::string& name) const {
  auto it = headers.find(name);
  if (it == headers.end()) return std::nullopt;
  return it->second;
}

namespace {

constexpr std::size_t kChunk = 16 * 1024;

// One thread per connection: httplib's default pool has 8 threads, and each
// idle keep-alive connection holds one, so parallel clients would queue.
class ConnectionThreads final : public httplib::TaskQueue {
 public:
  explicit ConnectionThreads(std::atomic<std::size_t>& accepted)
      : accepted_(accepted) {}

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

// httplib listens with a backlog of 5: a burst of parallel connects then
// loses SYNs and waits a second for the retransmit. Linux lets listen() be
// called again on a listening socket to widen the queue. The socket is a
// protected member; a member pointer formed in a subclass reaches it.
struct ListeningSocket : httplib::Server {
  static void widen_backlog(httplib::Server& s) {
    ::listen((s.*&ListeningSocket::svr_sock_).load(), SOMAXCONN);
  }
};

// Idle keep-alive connections sit in httplib's wait loop (up to its
// keep-alive timeout) even after stop(); shutting their sockets down wakes
// them. Only sockets whose local end is our port are server-side ones.
void shutdown_connections_on(int port) {
  std::vector<int> fds;
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (dirent* e = readdir(dir)) {
      int fd = std::atoi(e->d_name);
      if (fd > 2 && fd != dirfd(dir)) fds.push_back(fd);
    }
    closedir(dir);
  }
  for (int fd : fds) {
    sockaddr_in addr{};
    socklen_t len = sizeof(addr);
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0 &&
        addr.sin_family == AF_INET && ntohs(addr.sin_port) == port) {
      ::shutdown(fd, SHUT_RDWR);
    }
  }
}

// Writing to a socket the client has closed raises SIGPIPE (OpenSSL uses
// plain write()); blocked here, inherited by every connection thread.
void block_sigpipe_in_this_thread() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

struct Span {
  std::size_t begin = 0;
  std::size_t length = 0;
};

std::string content_range(Span s, std::size_t n) {
  const auto size = static_cast<std::int64_t>(n);
  if (s.length == 0) return server::content_range({}, size);
  return server::content_range({server::RangeKind::span, static_cast<std::int64_t>(s.begin),
                                static_cast<std::int64_t>(s.length)},
                               size);
}

}  // namespace

class TestServer::Impl {
 public:
  explicit Impl(Scheme scheme);
  ~Impl();

  void handle(const httplib::Request& req, httplib::Response& res);

  // Sleeps unless the server stops first; false if it did.
  bool pause(double seconds);

  Scheme scheme_;
  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
  int port_ = -1;
  std::atomic<std::size_t> connections_{0};

  struct File {
    std::shared_ptr<const std::string> bytes;
    Headers headers;
  };

  mutable std::mutex mu_;
  std::condition_variable stop_cv_;
  bool stopping_ = false;
  std::map<std::string, File> files_;
  std::map<std::string, Fault> faults_;
  std::vector<RecordedRequest> requests_;

 private:
  RecordedRequest record(const httplib::Request& req) const;
  void send(httplib::Response& res, int status,
            std::shared_ptr<const std::string> bytes, Span span,
            Headers headers, const Fault& f);
};

TestServer::Impl::Impl(Scheme scheme) : scheme_(scheme) {
  if (scheme == Scheme::https) {
    const std::string dir = QMSYNC_TEST_CERT_DIR;
    const std::string cert = dir + "/server.pem";
    const std::string key = dir + "/server-key.pem";
    server_ = std::make_unique<httplib::SSLServer>(cert.c_str(), key.c_str());
  } else {
    server_ = std::make_unique<httplib::Server>();
  }
  if (!server_->is_valid()) {
    throw std::runtime_error("TestServer: cannot load " QMSYNC_TEST_CERT_DIR
                             "/server.pem or server-key.pem");
  }

  // The default (5) would close every fifth request's connection and hide
  // reuse faults.
  server_->set_keep_alive_max_count(100000);
  server_->set_tcp_nodelay(true);
  server_->new_task_queue = [this] {
    return new ConnectionThreads(connections_);
  };

  auto handler = [this](const httplib::Request& req, httplib::Response& res) {
    handle(req, res);
  };
  // Method handlers (unlike a pre-routing handler) run after httplib has
  // read the request body, so a kept-alive connection stays in sync.
  server_->Get(".*", handler);
  server_->Post(".*", handler);
  server_->Put(".*", handler);
  server_->Patch(".*", handler);
  server_->Delete(".*", handler);
  server_->Options(".*", handler);

  port_ = server_->bind_to_any_port("127.0.0.1");
  if (port_ < 0) throw std::runtime_error("TestServer: cannot bind 127.0.0.1");
  ListeningSocket::widen_backlog(*server_);

  auto listening_done = std::make_shared<std::atomic<bool>>(false);
  thread_ = std::thread([this, listening_done] {
    block_sigpipe_in_this_thread();
    server_->listen_after_bind();
    listening_done->store(true);
  });
  // stop() is a no-op until listening starts, so wait for it.
  while (!server_->is_running() && !listening_done->load()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (!server_->is_running()) {
    thread_.join();
    throw std::runtime_error("TestServer: listening failed");
  }
}

TestServer::Impl::~Impl() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    stopping_ = true;
  }
  stop_cv_.notify_all();
  server_->stop();
  shutdown_connections_on(port_);
  thread_.join();
}

bool TestServer::Impl::pause(double seconds) {
  if (seconds <= 0) return true;
  std::unique_lock<std::mutex> lock(mu_);
  return !stop_cv_.wait_for(lock, std::chrono::duration<double>(seconds),
                            [this] { return stopping_; });
}

RecordedRequest TestServer::Impl::record(const httplib::Request& req) const {
  RecordedRequest r;
  r.method = req.method;
  r.path = req.path;
  r.target = req.target;
  if (auto q = req.target.find('?'); q != std::string::npos) {
    r.query = req.target.substr(q + 1);
  }
  for (const auto& [name, value] : req.headers) {
    // httplib adds the peer and local addresses as pseudo-headers.
    if (name == "REMOTE_ADDR" || name == "REMOTE_PORT" ||
        name == "LOCAL_ADDR" || name == "LOCAL_PORT") {
      continue;
    }
    auto [it, fresh] = r.headers.emplace(name, value);
    if (!fresh) it->second += ", " + value;
  }
  r.range = r.header("Range");
  r.body = req.body;
  r.remote_port = req.remote_port;
  return r;
}

void TestServer::Impl::handle(const httplib::Request& req,
                              httplib::Response& res) {
  // Ranges are answered here; left set, httplib would slice the body again.
  const_cast<httplib::Request&>(req).ranges.clear();

  RecordedRequest rec = record(req);
  std::optional<File> file;
  Fault f;
  {
    std::lock_guard<std::mutex> lock(mu_);
    requests_.push_back(rec);
    if (auto it = files_.find(req.path); it != files_.end()) file = it->second;
    if (auto it = faults_.find(req.path); it != faults_.end()) {
      if (it->second.skip > 0) {
        --it->second.skip;  // served normally; the fault waits its turn
      } else {
        f = it->second;
        if (it->second.times > 0 && --it->second.times == 0) faults_.erase(it);
      }
    }
  }

  if (!pause(f.delay_before_head_s)) {
    res.status = 503;
    return;
  }

  Headers headers = file ? file->headers : Headers{};
  for (const auto& [name, value] : f.headers) headers[name] = value;
  auto bytes = file ? file->bytes : std::make_shared<const std::string>();

  if (f.redirect_to) {
    headers["Location"] = *f.redirect_to;
    send(res, 302, nullptr, {}, std::move(headers), f);
    return;
  }
  if (f.status) {
    if (f.body) bytes = std::make_shared<const std::string>(*f.body);
    send(res, *f.status, bytes, {0, bytes->size()}, std::move(headers), f);
    return;
  }
  if (req.method != "GET" && req.method != "HEAD") {
    headers["Allow"] = "GET, HEAD";
    send(res, 405, nullptr, {}, std::move(headers), f);
    return;
  }
  if (!file) {
    headers["Content-Type"] = "text/plain";
    auto text = std::make_shared<const std::string>("not found\n");
    send(res, 404, text, {0, text->size()}, std::move(headers), f);
    return;
  }

  const std::size_t n = bytes->size();
  headers.emplace("Accept-Ranges", "bytes");
  server::ByteRange range;
  if (rec.range && !f.ignore_range) range = server::parse_range(*rec.range, static_cast<std::int64_t>(n));

  if (range.kind == server::RangeKind::unsatisfiable) {
    headers["Content-Range"] = content_range({}, n);
    send(res, 416, nullptr, {}, std::move(headers), f);
    return;
  }
  Span span = range.kind == server::RangeKind::span
                  ? Span{static_cast<std::size_t>(range.begin), static_cast<std::size_t>(range.length)}
                  : Span{0, n};
  if (f.empty_206) {
    headers["Content-Range"] = content_range(span, n);
    send(res, 206, nullptr, {}, std::move(headers), f);
    return;
  }
  if (range.kind == server::RangeKind::whole) {
    send(res, 200, bytes, span, std::move(headers), f);
    return;
  }
  if (f.half_range) span.length = std::max<std::size_t>(1, span.length / 2);
  headers["Content-Range"] = content_range(span, n);
  send(res, 206, bytes, span, std::move(headers), f);
}

void TestServer::Impl::send(httplib::Response& res, int status,
                            std::shared_ptr<const std::string> bytes, Span span,
                            Headers headers, const Fault& f) {
  res.status = status;
  std::string type = "application/octet-stream";
  if (auto it = headers.find("Content-Type"); it != headers.end()) {
    type = it->second;
    headers.erase(it);
  }
  for (const auto& [name, value] : headers) res.set_header(name, value);

  if (span.length == 0) {
    res.set_content("", type);  // httplib sends Content-Length: 0
    return;
  }
  // Always a provider with a length: Content-Length is announced up front,
  // the body can be cut or stalled mid-way, and httplib neither slices nor
  // compresses it.
  res.set_content_provider(
      span.length, type,
      [this, bytes, span, cut = f.cut_after_bytes, wrong = f.wrong_bytes,
       stall_at = f.stall_after_bytes, stall_s = f.stall_s,
       stalled = false](std::size_t offset, std::size_t length,
                        httplib::DataSink& sink) mutable {
        if (cut && offset >= *cut) return false;  // drops the connection
        if (stall_at && !stalled && offset >= *stall_at) {
          stalled = true;
          if (!pause(stall_s)) return false;
        }
        std::size_t end = offset + std::min(length, kChunk);
        if (cut) end = std::min(end, *cut);
        if (stall_at && !stalled) end = std::min(end, *stall_at);
        std::string chunk = bytes->substr(span.begin + offset, end - offset);
        if (wrong) {
          for (char& c : chunk) c = static_cast<char>(c ^ 0xFF);
        }
        return sink.write(chunk.data(), chunk.size());
      });
}

TestServer::TestServer(Scheme scheme) : impl_(std::make_unique<Impl>(scheme)) {}

TestServer::~TestServer() = default;

int TestServer::port() const { return impl_->port_; }

std::string TestServer::base_url() const {
  const char* scheme = impl_->scheme_ == Scheme::https ? "https" : "http";
  return std::string(scheme) + "://127.0.0.1:" + std::to_string(port());
}

std::string TestServer::url(const std::string& path) const {
  return base_url() + path;
}

std::string TestServer::ca_file() {
  return std::string(QMSYNC_TEST_CERT_DIR) + "/ca.pem";
}

void TestServer::put(const std::string& path, std::string bytes,
                     Headers headers) {
  Impl::File file{std::make_shared<const std::string>(std::move(bytes)),
                  std::move(headers)};
  std::lock_guard<std::mutex> lock(impl_->mu_);
  impl_->files_[path] = std::move(file);
}

void TestServer::remove(const std::string& path) {
  std::lock_guard<std::mutex> lock(impl_->mu_);
  impl_->files_.erase(path);
}

void TestServer::fault(const std::string& path, Fault f) {
  std::lock_guard<std::mutex> lock(impl_->mu_);
  if (f.times == 0) {
    impl_->faults_.erase(path);
  } else {
    impl_->faults_[path] = std::move(f);
  }
}

void TestServer::clear_fault(const std::string& path) {
  std::lock_guard<std::mutex> lock(impl_->mu_);
  impl_->faults_.erase(path);
}

void TestServer::clear_faults() {
  std::lock_guard<std::mutex> lock(impl_->mu_);
  impl_->faults_.clear();
}

std::vector<RecordedRequest> TestServer::requests() const {
  std::lock_guard<std::mutex> lock(impl_->mu_);
  return impl_->requests_;
}

std::size_t TestServer::request_count(const std::string& path) const {
  std::lock_guard<std::mutex> lock(impl_->mu_);
  return static_cast<std::size_t>(
      std::count_if(impl_->requests_.begin(), impl_->requests_.end(),
                    [&](const RecordedRequest& r) { return r.path == path; }));
}

void TestServer::clear_requests() {
  std::lock_guard<std::mutex> lock(impl_->mu_);
  impl_->requests_.clear();
}

std::size_t TestServer::connection_count() const {
  return impl_->connections_.load();
}

int unused_loopback_port() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) throw std::runtime_error("unused_loopback_port: socket()");
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(addr);
  int port = -1;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
    port = ntohs(addr.sin_port);
  }
  ::close(fd);
  if (port < 0) throw std::runtime_error("unused_loopback_port: bind()");
  return port;
}

}  // namespace quillmarsh::sync::testing
