// The object store's ranges and the faults other suites (and `qmsync serve
// --fault`) inject through it: were one of them to serve something else, a
// library test could pass for the wrong reason.
#include "tests/support/test_server.h"

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>
#include <thread>

#include "server/publisher.h"
#include "server/reference_server.h"
#include "sync/engine/curl_session.h"
#include "sync/errors.h"
#include "sync/support/posix_file.h"
#include "tests/support/sample_data.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait_until.h"

namespace quillmarsh::sync::testing {
namespace {

class TestServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    set_extra_ca_file(TestServer::ca_file());
    server_.put("/f", body_);
  }
  void TearDown() override { set_extra_ca_file(std::nullopt); }

  OpenedResponse get(const std::string& path, std::optional<std::string> range = std::nullopt,
                     std::vector<std::pair<std::string, std::string>> headers = {}) {
    if (range) headers.emplace_back("Range", *range);
    return open_http_request({server_.url(path), std::move(headers)}, 10);
  }
  static std::string header(const OpenedResponse& r, const std::string& name) {
    const auto it = r.headers.find(name);
    return it == r.headers.end() ? "<absent>" : it->second;
  }

  const std::string body_ = pseudo_random_bytes(1000, 1);
  TestServer server_;
};

TEST_F(TestServerTest, ServesSingleRangesAndRefusesWhatLiesBeyond) {
  struct Case {
    const char* range;
    int status;
    const char* content_range;
    std::size_t begin, length;
  };
  const Case cases[] = {
      {"bytes=0-9", 206, "bytes 0-9/1000", 0, 10},     {"bytes=990-2000", 206, "bytes 990-999/1000", 990, 10},
      {"bytes=995-", 206, "bytes 995-999/1000", 995, 5}, {"bytes=-7", 206, "bytes 993-999/1000", 993, 7},
      {"bytes=1000-", 416, "bytes */1000", 0, 0},      {"bytes=0-1,5-6", 200, "<absent>", 0, 1000},
  };
  for (const Case& c : cases) {
    const OpenedResponse r = get("/f", c.range);
    EXPECT_EQ(r.status, c.status) << c.range;
    EXPECT_EQ(header(r, "Content-Range"), c.content_range) << c.range;
    EXPECT_TRUE(r.body == body_.substr(c.begin, c.length)) << c.range;
  }
  server_.remove("/f");
  EXPECT_EQ(get("/f").status, 404);
}

TEST_F(TestServerTest, BodyFaultsShapeWhatIsSent) {
  // A cut counts within the span served, and `times` lets the next request through.
  server_.fault("/f", {.cut_after_bytes = 300, .times = 2});
  OpenedResponse cut = get("/f");
  EXPECT_TRUE(cut.partial);
  EXPECT_TRUE(cut.body == body_.substr(0, 300));
  cut = get("/f", "bytes=100-599");
  EXPECT_TRUE(cut.partial);
  EXPECT_TRUE(cut.body == body_.substr(100, 300));
  EXPECT_TRUE(get("/f").body == body_);

  server_.fault("/f", {.wrong_bytes = true});
  const std::string flipped = get("/f", "bytes=10-19").body;
  ASSERT_EQ(flipped.size(), 10u);
  for (std::size_t i = 0; i < 10; ++i) EXPECT_EQ(flipped[i], static_cast<char>(body_[10 + i] ^ 0xFF)) << i;

  server_.fault("/f", {.ignore_range = true});
  const OpenedResponse whole = get("/f", "bytes=100-299");
  EXPECT_EQ(whole.status, 200);
  EXPECT_TRUE(whole.body == body_);

  server_.fault("/f", {.half_range = true});
  const OpenedResponse half = get("/f", "bytes=100-299");
  EXPECT_EQ(half.status, 206);
  EXPECT_EQ(header(half, "Content-Range"), "bytes 100-199/1000");
  EXPECT_TRUE(half.body == body_.substr(100, 100));

  server_.fault("/f", {.empty_206 = true});
  const OpenedResponse empty = get("/f", "bytes=100-299");
  EXPECT_EQ(empty.status, 206);
  EXPECT_EQ(header(empty, "Content-Range"), "bytes 100-299/1000");
  EXPECT_TRUE(empty.body.empty());
  EXPECT_FALSE(empty.partial);
}

TEST_F(TestServerTest, StatusRedirectAndHeaderFaultsCountedBySkipAndTimes) {
  server_.put("/target", "here");
  server_.fault("/old", {.redirect_to = "/target"});
  EXPECT_EQ(get("/old").body, "here");
  EXPECT_EQ(server_.request_count("/target"), 1u);

  // Two served normally, then two faulted, then normal again.
  server_.fault("/f", {.status = 503, .times = 2, .skip = 2, .headers = {{"Retry-After", "1"}}});
  std::vector<int> statuses;
  for (int i = 0; i < 5; ++i) statuses.push_back(get("/f").status);
  EXPECT_EQ(statuses, (std::vector<int>{200, 200, 503, 503, 200}));
  server_.fault("/f", {.status = 503, .headers = {{"Retry-After", "1"}}});
  const OpenedResponse busy = get("/f");
  EXPECT_TRUE(busy.body == body_);  // no body given: the file's bytes
  EXPECT_EQ(header(busy, "Retry-After"), "1");
  server_.fault("/missing", {.status = 200, .body = "made up"});
  EXPECT_EQ(get("/missing").body, "made up");

  server_.clear_fault("/f");
  EXPECT_EQ(get("/f").status, 200);
  server_.clear_faults();
  EXPECT_EQ(get("/missing").status, 404);
}

TEST_F(TestServerTest, RecordsEachRequestAsSent) {
  server_.put("/dir/a b.bin", "x");
  get("/dir/a%20b.bin?x=1&y=%2F", "bytes=0-0", {{"authorization", "Bearer t0k"}});
  const auto requests = server_.requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].path, "/dir/a b.bin");
  EXPECT_EQ(requests[0].query, "x=1&y=%2F");
  EXPECT_EQ(requests[0].range, "bytes=0-0");
  EXPECT_EQ(requests[0].header("Authorization"), "Bearer t0k");
  EXPECT_EQ(server_.request_count("/dir/a b.bin"), 1u);
  server_.clear_requests();
  EXPECT_TRUE(server_.requests().empty());
}

TEST(FaultSpec, ReadsWhatServeTakesAndRefusesTheRest) {
  const server::Fault f =
      server::parse_fault("status=503,cut=10,wrong-bytes,delay=0.5,stall=7@2.5,ignore-range,half-range,empty-206,"
                          "times=2,skip=1,body=a,b");
  EXPECT_EQ(f.status, 503);
  EXPECT_EQ(f.cut_after_bytes, 10u);
  EXPECT_TRUE(f.wrong_bytes && f.ignore_range && f.half_range && f.empty_206);
  EXPECT_EQ(f.delay_before_head_s, 0.5);
  EXPECT_EQ(f.stall_after_bytes, 7u);
  EXPECT_EQ(f.stall_s, 2.5);
  EXPECT_EQ(f.times, 2);
  EXPECT_EQ(f.skip, 1);
  EXPECT_EQ(f.body, "a,b");  // the rest, commas and all
  EXPECT_EQ(server::parse_fault("redirect=https://h/x?a=1,b=2").redirect_to, "https://h/x?a=1,b=2");
  for (const char* bad : {"cut", "cut=-1", "cut=1k", "stall=5", "delay=soon", "times=", "teapot"}) {
    EXPECT_THROW(server::parse_fault(bad), ValueError) << bad;
  }
}

TEST(FaultSpec, ReferenceServerMisbehavesOnBothSites) {
  TempDir tmp;
  make_dirs(tmp / "source/features/u");
  write_file(tmp / "source/features/u/vocabulary.json", vocabulary_text(1, "u"));
  write_file(tmp / "source/features/u/digits.txt", "0123456789");
  server::publish_era({tmp / "source", tmp / "root", 1, 1, std::nullopt, true});
  server::ReferenceServer server({tmp / "root", 0, 0, [] { return std::string("t"); }, 0,
                                  {{"/era_1/features/*", {.cut_after_bytes = 3, .times = 1}},
                                   {"/era_1/features/u/vocabulary.json", {.status = 500}},
                                   {"/data/manifest", {.status = 503, .times = 1, .skip = 1}},
                                   {"/data/shuffle", {.cut_after_bytes = 10}}}});
  set_extra_ca_file(server.tls().ca_file);
  const std::string digits = server.files_url() + "/era_1/features/u/digits.txt";
  const OpenedResponse cut = open_http_request({digits, {}}, 10);
  EXPECT_TRUE(cut.partial);
  EXPECT_EQ(cut.body, "012");
  EXPECT_EQ(open_http_request({digits, {}}, 10).body, "0123456789");
  // An exact path wins over a prefix.
  EXPECT_EQ(open_http_request({server.files_url() + "/era_1/features/u/vocabulary.json", {}}, 10).status, 500);

  // The API's answers meet the same faults, the token still checked.
  const HttpRequest manifest{server.api_url() + "/data/manifest", {{"Authorization", "Bearer t"}}};
  std::vector<int> statuses;
  for (int i = 0; i < 3; ++i) statuses.push_back(open_http_request(manifest, 10).status);
  EXPECT_EQ(statuses, (std::vector<int>{200, 503, 200}));
  const OpenedResponse seed =
      open_http_request({server.api_url() + "/data/shuffle", {{"Authorization", "Bearer t"}}}, 10);
  EXPECT_TRUE(seed.partial);
  EXPECT_EQ(seed.body.size(), 10u);
  EXPECT_EQ(open_http_request({server.api_url() + "/data/shuffle", {}}, 10).status, 401);
  set_extra_ca_file(std::nullopt);
}

TEST(TestServerLifecycle, DestructorEndsResponsesHeldByDelaysAndStalls) {
  set_extra_ca_file(TestServer::ca_file());
  std::optional<TestServer> server(std::in_place);
  server->put("/slow", "x");
  server->fault("/slow", {.delay_before_head_s = 60});
  server->put("/stall", std::string(100, 's'));
  server->fault("/stall", {.stall_after_bytes = 10, .stall_s = 60});
  std::vector<std::jthread> clients;
  for (const std::string path : {"/slow", "/stall"}) {
    clients.emplace_back([url = server->url(path)] {
      try {
        open_http_request({url, {}}, 120);
      } catch (const std::exception&) {
      }
    });
  }
  ASSERT_TRUE(wait_until([&] { return server->requests().size() == 2; }));
  // Far below the faults' minute: the destructor did not wait them out.
  const auto start = std::chrono::steady_clock::now();
  server.reset();
  for (std::jthread& client : clients) client.join();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
  set_extra_ca_file(std::nullopt);
}

}  // namespace
}  // namespace quillmarsh::sync::testing
