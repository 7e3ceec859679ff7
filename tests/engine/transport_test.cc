#include "sync/engine/transport.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "sync/collaborators/transport_security.h"
#include "sync/errors.h"
#include "sync/support/log.h"
#include "sync/support/sleep.h"
#include "tests/support/sync_fixture.h"

namespace quillmarsh::sync {
namespace {

using testing::Fault;
using testing::outcome_and_cause;
using testing::TestServer;

sockaddr_in loopback(int port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<std::uint16_t>(port));
  return addr;
}

// A forward proxy that knows only CONNECT, as a company's proxy does for
// HTTPS: it answers the tunnel's own head at once, then copies bytes both
// ways until either side closes. One tunnel at a time: a client's attempts
// come one after another.
class TunnelProxy {
 public:
  TunnelProxy() {
    sockaddr_in addr = loopback(0);
    socklen_t len = sizeof addr;
    if (::bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), len) != 0 || ::listen(listen_fd_, 16) != 0 ||
        ::getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
      throw std::runtime_error("proxy cannot listen");
    }
    port_ = ntohs(addr.sin_port);
    acceptor_ = std::thread([this] {
      for (int client; (client = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) tunnel(client);
    });
  }
  ~TunnelProxy() {
    stop_ = true;
    ::shutdown(listen_fd_, SHUT_RDWR);
    acceptor_.join();
    ::close(listen_fd_);
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  int tunnels_opened() const { return opened_; }

 private:
  // Reads "CONNECT 127.0.0.1:PORT HTTP/1.1" and its head, then copies bytes
  // both ways.
  void tunnel(int client) {
    std::string head;
    char c;
    while (head.find("\r\n\r\n") == std::string::npos && ::read(client, &c, 1) == 1) head += c;
    const std::size_t colon = head.find(':'), space = head.find(' ', colon);
    const int upstream = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in addr = loopback(std::stoi(head.substr(colon + 1, space - colon - 1)));
    const std::string established = "HTTP/1.1 200 Connection established\r\n\r\n";
    if (head.starts_with("CONNECT ") &&
        ::connect(upstream, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0 &&
        ::write(client, established.data(), established.size()) > 0) {
      ++opened_;
      pollfd fds[2] = {{client, POLLIN, 0}, {upstream, POLLIN, 0}};
      char buffer[16384];
      for (bool open = true; open && !stop_;) {
        if (::poll(fds, 2, 100) <= 0) continue;
        for (int i = 0; i < 2 && open; ++i) {
          if (fds[i].revents == 0) continue;
          const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
          open = n > 0 && ::write(fds[1 - i].fd, buffer, static_cast<std::size_t>(n)) == n;
        }
      }
    }
    ::close(upstream);
    ::close(client);
  }

  const int listen_fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<int> opened_{0};
  std::thread acceptor_;
};

class Transport : public testing::SyncFixture {
 protected:
  void SetUp() override {
    SyncFixture::SetUp();
    store_.put("/file.bin", content_);
  }

  const std::string content_ = testing::pseudo_random_bytes(1000, 1);
};

// Ranges, keep-alive, the token kept from the store and answers passed on as
// they came (404, 416, cut bodies) show in the Download suite.
TEST_F(Transport, ARedirectIsFollowedWithItsRange) {
  store_.fault("/moved.bin", Fault{.redirect_to = "/file.bin"});
  HttpResponse moved = _http_get_public(store_.url("/moved.bin"), 10, 19);
  EXPECT_EQ(moved.status, 206);
  EXPECT_EQ(moved.body, content_.substr(10, 10));
}

// Through a proxy the tunnel's "200 Connection established" comes first and
// is not the server's answer: a head that is late behind it is still a late
// head, asked for again, where a slow body would not be. A late head met
// directly, and recovered from, is the Download suite's late-head case.
TEST_F(Transport, ASlowHeadThroughAProxyIsRetriedUntilTheAttemptsRunOut) {
  // Long enough for a TLS handshake on a loaded machine; the delays outlast it by a wide margin.
  env_.set("QUILLMARSH_SYNC_HTTP_TIMEOUT_SECONDS", "1.0");
  store_.fault("/slow", Fault{.delay_before_head_s = 2.5});
  const std::string url = store_.url("/slow");
  TunnelProxy proxy;
  env_.unset("no_proxy").unset("NO_PROXY").set("https_proxy", proxy.url()).set("HTTPS_PROXY", proxy.url());
  const auto [failure, cause] = outcome_and_cause([&] { _http_get(url, "t"); });
  EXPECT_TRUE(failure.starts_with("ConnectionError: Timed out fetching " + url + " after 3 attempt(s): ")) << failure;
  EXPECT_TRUE(cause.starts_with("TimeoutError: ")) << cause;
  EXPECT_EQ(store_.request_count("/slow"), 3u);
  EXPECT_GT(proxy.tunnels_opened(), 0);
  EXPECT_EQ(waits_.events(), (std::vector<std::string>{"sleep 0.25", "sleep 0.50"}));
}

TEST_F(Transport, ARefusedPortOrAnUntrustedCertificateIsAConnectionFailure) {
  const std::string url = TestServer().url("/x");  // a port closed with its server refuses
  const auto [failure, cause] = outcome_and_cause([&] { _http_get(url, "t"); });
  EXPECT_TRUE(failure.starts_with("ConnectionError: Connection failed to " + url + ": ")) << failure;
  EXPECT_TRUE(cause.starts_with("URLError: ")) << cause;

  // Trusted, then not: neither a kept connection nor a kept TLS session
  // outlives the change.
  EXPECT_EQ(_http_get_public(store_.url("/file.bin")).status, 200);
  set_extra_ca_file(std::nullopt);
  EXPECT_THROW(_http_get_public(store_.url("/file.bin")), ConnectionError);
  EXPECT_EQ(store_.request_count("/file.bin"), 1u);

  // The system's bundle is searched by subject among real certificates of
  // every kind; the one that signed the server's is found there, and where
  // the variables point, not only where libcurl was built to look.
  const std::string bundle = path("bundle.pem"), empty_dir = path("no-certs");
  make_dirs(empty_dir);
  write_file(bundle, read_file("/etc/ssl/certs/ca-certificates.crt") + read_file(TestServer::ca_file()));
  env_.set("SSL_CERT_FILE", bundle);
  env_.set("SSL_CERT_DIR", empty_dir);
  set_extra_ca_file(std::nullopt);  // a new trust setting: stores are built again
  EXPECT_EQ(_http_get_public(store_.url("/file.bin")).status, 200);
  write_file(bundle, read_file("/etc/ssl/certs/ca-certificates.crt"));
  set_extra_ca_file(std::nullopt);
  EXPECT_THROW(_http_get_public(store_.url("/file.bin")), ConnectionError);
}

TEST_F(Transport, TheTransportPolicyRefusesBeforeAnyTraffic) {
  TestServer plain(TestServer::Scheme::http);
  plain.put("/v", "ok");
  // Plain http is fine to a loopback host, not elsewhere.
  EXPECT_EQ(_http_get(plain.url("/v"), "t").body, "ok");
  EXPECT_THROW(_http_get("http://example.invalid/v", "t"), ValueError);
  EXPECT_THROW(_http_get("ftp://127.0.0.1/v", "t"), ValueError);

  struct Refusing : TransportSecurity {
    std::vector<std::string> seen;
    void validate_bearer_transport_url(const std::string& url) override {
      seen.push_back(url);
      throw RuntimeError("refused by host policy");
    }
  };
  auto refusing = std::make_shared<Refusing>();
  auto previous = transport_security_slot().set(refusing);
  EXPECT_THROW(_http_get(store_.url("/file.bin"), "t"), RuntimeError);
  EXPECT_EQ(refusing->seen, std::vector<std::string>{store_.url("/file.bin")});
  // The public GET does not ask the policy.
  EXPECT_EQ(_http_get_public(store_.url("/file.bin")).status, 200);
  transport_security_slot().set(nullptr);
  EXPECT_THROW(_http_get(store_.url("/file.bin"), "t"), ImportError);
  transport_security_slot().set(previous);
  EXPECT_EQ(store_.request_count("/file.bin"), 1u);
}

TEST_F(Transport, TheOverrideRewritesReleasePathsOntoAnotherHost) {
  const std::string base = " https://mirror.test:8443/ ";
  EXPECT_EQ(_public_download_url("https://r2.example/bucket/releases/v7/features/a.bin?x=1#f", base),
            "https://mirror.test:8443/data/files/features/a.bin");
  EXPECT_EQ(_public_download_url("https://h/releases/v1/releases/v2/a.bin", base),
            "https://mirror.test:8443/data/files/releases/v2/a.bin");  // the first "releases" counts
  EXPECT_EQ(_public_download_url("https://h/releases/v7", base), "https://h/releases/v7");
  EXPECT_EQ(_public_download_url("https://h/bucket/features/a.bin", base), "https://h/bucket/features/a.bin");
  EXPECT_EQ(_public_download_url("https://h/releases/v7/a.bin", "  "), "https://h/releases/v7/a.bin");

  store_.put("/data/files/features/a.bin", "mirrored");
  env_.set("QUILLMARSH_SYNC_PUBLIC_DOWNLOAD_BASE_URL", store_.base_url() + "/");
  EXPECT_EQ(_http_get_public("https://object-store.invalid/bucket/releases/v3/features/a.bin").body, "mirrored");
}

}  // namespace
}  // namespace quillmarsh::sync
