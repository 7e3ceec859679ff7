#include "sync/engine/transport.h"

#include <gtest/gtest.h>

#include "sync/collaborators/transport_security.h"
#include "sync/errors.h"
#include "sync/support/log.h"
#include "sync/support/sleep.h"
#include "tests/support/sync_fixture.h"

namespace quillmarsh::sync {
namespace {

using testing::Fault;
using testing::outcome;
using testing::outcome_and_cause;
using testing::TestServer;

// Long enough for a TLS handshake on a loaded machine, short enough for a
// test; the server's delays outlast it by a wide margin.
constexpr const char* kShortTimeout = "1.0";
constexpr double kLongerThanTimeout = 2.5;

class Transport : public testing::SyncFixture {
 protected:
  void SetUp() override {
    SyncFixture::SetUp();
    server_.put("/file.bin", content_);
  }

  const std::string content_ = testing::pseudo_random_bytes(1000, 1);
  TestServer& server_ = store_;
};

TEST_F(Transport, RangedAndWholeRequestsReturnTheRightBytesOverOneConnection) {
  const std::string url = server_.url("/file.bin");
  HttpResponse whole = _http_get_public(url);
  EXPECT_EQ(whole.status, 200);
  EXPECT_EQ(whole.body, content_);
  HttpResponse first = _http_get_public(url, 0, 0);
  EXPECT_EQ(first.status, 206);
  EXPECT_EQ(first.body, content_.substr(0, 1));
  HttpResponse span = _http_get(url, "secret-token", 100, 199);
  EXPECT_EQ(span.status, 206);
  EXPECT_EQ(span.body, content_.substr(100, 100));
  EXPECT_EQ(span.resp_headers.at("Content-Range"), "bytes 100-199/1000");
  HttpResponse rest = _http_get_public(url, 900, 50);
  EXPECT_EQ(rest.body, content_.substr(900));

  // An end before the start asks for the rest; only the token's own request carries it.
  const auto requests = server_.requests();
  ASSERT_EQ(requests.size(), 4u);
  EXPECT_EQ(requests[0].range, std::nullopt);
  EXPECT_EQ(requests[1].range, "bytes=0-0");
  EXPECT_EQ(requests[2].range, "bytes=100-199");
  EXPECT_EQ(requests[3].range, "bytes=900-");
  for (std::size_t i = 0; i < requests.size(); ++i) {
    EXPECT_EQ(requests[i].header("Authorization"), i == 2 ? std::optional<std::string>("Bearer secret-token")
                                                          : std::nullopt);
    EXPECT_EQ(requests[i].header("User-Agent"), "quillmarsh-sync/0.0.3");
  }
  EXPECT_EQ(server_.connection_count(), 1u);
}

TEST_F(Transport, EveryAnswerComesBackAsItCameShortBodiesAndRedirectsIncluded) {
  server_.fault("/forbidden", Fault{.status = 403, .body = "no entry", .headers = {{"X-Reason", "policy"}}});
  HttpResponse forbidden = _http_get(server_.url("/forbidden"), "t");
  EXPECT_EQ(forbidden.status, 403);
  EXPECT_EQ(forbidden.body, "no entry");
  EXPECT_EQ(forbidden.resp_headers.at("X-Reason"), "policy");
  EXPECT_EQ(_http_get_public(server_.url("/nothing-here")).status, 404);
  EXPECT_EQ(_http_get_public(server_.url("/file.bin"), 5000, -1).status, 416);

  server_.fault("/moved.bin", Fault{.redirect_to = "/file.bin"});
  HttpResponse moved = _http_get_public(server_.url("/moved.bin"), 10, 19);
  EXPECT_EQ(moved.status, 206);
  EXPECT_EQ(moved.body, content_.substr(10, 10));

  server_.fault("/file.bin", Fault{.cut_after_bytes = 300});
  HttpResponse cut = _http_get_public(server_.url("/file.bin"));
  EXPECT_EQ(cut.status, 200);
  EXPECT_EQ(cut.body, content_.substr(0, 300));
  HttpResponse cut_range = _http_get_public(server_.url("/file.bin"), 500, 999);
  EXPECT_EQ(cut_range.status, 206);
  EXPECT_EQ(cut_range.body, content_.substr(500, 300));
}

TEST_F(Transport, ASlowHeadIsRetriedAndASlowBodyIsNot) {
  env_.set("QUILLMARSH_SYNC_HTTP_TIMEOUT_SECONDS", kShortTimeout);
  server_.fault("/slow", Fault{.delay_before_head_s = kLongerThanTimeout});
  const std::string url = server_.url("/slow");
  const auto [failure, cause] = outcome_and_cause([&] { _http_get(url, "t"); });
  EXPECT_TRUE(failure.starts_with("ConnectionError: Timed out fetching " + url + " after 3 attempt(s): ")) << failure;
  EXPECT_TRUE(cause.starts_with("TimeoutError: ")) << cause;
  EXPECT_EQ(server_.request_count("/slow"), 3u);
  EXPECT_EQ(slept(), (std::vector<double>{0.25, 0.5}));
  EXPECT_EQ(log_.count_at(LogLevel::warning), 2u);

  // Slow once: the retry recovers.
  server_.fault("/file.bin", Fault{.delay_before_head_s = kLongerThanTimeout, .times = 1});
  EXPECT_EQ(_http_get_public(server_.url("/file.bin")).body, content_);
  EXPECT_EQ(slept(), (std::vector<double>{0.25, 0.5, 0.25}));

  // A body that stalls fails at once.
  server_.fault("/file.bin", Fault{.stall_after_bytes = 100, .stall_s = kLongerThanTimeout});
  EXPECT_THROW(_http_get_public(server_.url("/file.bin")), TimeoutError);
  EXPECT_EQ(server_.request_count("/file.bin"), 3u);

  // No retries asked for is still one attempt, and no wait.
  env_.set("QUILLMARSH_SYNC_HTTP_RETRIES", "-3");
  EXPECT_NE(outcome([&] { _http_get_public(url); }).find("after 1 attempt(s)"), std::string::npos);
  EXPECT_EQ(server_.request_count("/slow"), 4u);
  EXPECT_EQ(slept().size(), 3u);
}

TEST_F(Transport, ARefusedPortOrAnUntrustedCertificateIsAConnectionFailure) {
  const std::string url = "https://127.0.0.1:" + std::to_string(testing::unused_loopback_port()) + "/x";
  const auto [failure, cause] = outcome_and_cause([&] { _http_get(url, "t"); });
  EXPECT_TRUE(failure.starts_with("ConnectionError: Connection failed to " + url + ": ")) << failure;
  EXPECT_TRUE(cause.starts_with("URLError: ")) << cause;

  set_extra_ca_file(std::nullopt);
  EXPECT_THROW(_http_get_public(server_.url("/file.bin")), ConnectionError);
  EXPECT_EQ(server_.request_count("/file.bin"), 0u);
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
  EXPECT_THROW(_http_get(server_.url("/file.bin"), "t"), RuntimeError);
  EXPECT_EQ(refusing->seen, std::vector<std::string>{server_.url("/file.bin")});
  // The public GET does not ask the policy.
  EXPECT_EQ(_http_get_public(server_.url("/file.bin")).status, 200);
  transport_security_slot().set(nullptr);
  EXPECT_THROW(_http_get(server_.url("/file.bin"), "t"), ImportError);
  transport_security_slot().set(previous);
  EXPECT_EQ(server_.request_count("/file.bin"), 1u);
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

  server_.put("/data/files/features/a.bin", "mirrored");
  env_.set("QUILLMARSH_SYNC_PUBLIC_DOWNLOAD_BASE_URL", server_.base_url() + "/");
  EXPECT_EQ(_http_get_public("https://object-store.invalid/bucket/releases/v3/features/a.bin").body, "mirrored");
}

}  // namespace
}  // namespace quillmarsh::sync
