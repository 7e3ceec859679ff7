#include "tests/support/test_server.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <latch>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace quillmarsh::sync::testing {
namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point t0) {
  return std::chrono::duration<double>(Clock::now() - t0).count();
}

struct Reply {
  CURLcode code = CURLE_OK;
  long status = 0;
  std::string body;
  Headers headers;    // of the last response when redirects are followed
  double head_s = 0;  // until the first response byte
  long redirects = 0;
  // (seconds since start, body bytes so far) at each delivery.
  std::vector<std::pair<double, std::size_t>> arrivals;
  Clock::time_point start;

  std::string header(const std::string& name) const {
    auto it = headers.find(name);
    return it == headers.end() ? "<absent>" : it->second;
  }
};

struct Request {
  std::vector<std::string> headers{};  // "Name: value"
  bool follow = false;
  bool head = false;
  bool trust_test_ca = true;
  std::string method{};  // custom method, e.g. "POST"
  std::string body{};
  std::vector<std::string> resolve{};  // CURLOPT_RESOLVE entries
};

// One easy handle, reused like the library's transport reuses it, so
// consecutive calls share a connection.
class Client {
 public:
  Client() : curl_(curl_easy_init()) {}
  ~Client() { curl_easy_cleanup(curl_); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  Reply fetch(const std::string& url, const Request& r = {}) {
    Reply reply;
    curl_easy_reset(curl_);
    curl_easy_setopt(curl_, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl_, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl_, CURLOPT_TIMEOUT_MS, 10000L);
    const std::string ca = TestServer::ca_file();
    if (r.trust_test_ca) curl_easy_setopt(curl_, CURLOPT_CAINFO, ca.c_str());
    curl_easy_setopt(curl_, CURLOPT_FOLLOWLOCATION, r.follow ? 1L : 0L);
    if (r.head) curl_easy_setopt(curl_, CURLOPT_NOBODY, 1L);
    if (!r.method.empty()) {
      curl_easy_setopt(curl_, CURLOPT_POSTFIELDS, r.body.c_str());
      curl_easy_setopt(curl_, CURLOPT_CUSTOMREQUEST, r.method.c_str());
    }
    curl_slist* list = nullptr;
    for (const auto& h : r.headers) list = curl_slist_append(list, h.c_str());
    curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, list);
    curl_slist* resolve = nullptr;
    for (const auto& e : r.resolve)
      resolve = curl_slist_append(resolve, e.c_str());
    curl_easy_setopt(curl_, CURLOPT_RESOLVE, resolve);
    curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, &Client::on_body);
    curl_easy_setopt(curl_, CURLOPT_WRITEDATA, &reply);
    curl_easy_setopt(curl_, CURLOPT_HEADERFUNCTION, &Client::on_header);
    curl_easy_setopt(curl_, CURLOPT_HEADERDATA, &reply);

    reply.start = Clock::now();
    reply.code = curl_easy_perform(curl_);
    curl_slist_free_all(list);
    curl_slist_free_all(resolve);
    curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &reply.status);
    curl_easy_getinfo(curl_, CURLINFO_REDIRECT_COUNT, &reply.redirects);
    curl_easy_getinfo(curl_, CURLINFO_STARTTRANSFER_TIME, &reply.head_s);
    return reply;
  }

 private:
  static size_t on_body(char* p, size_t size, size_t n, void* user) {
    auto* reply = static_cast<Reply*>(user);
    reply->body.append(p, size * n);
    reply->arrivals.emplace_back(seconds_since(reply->start),
                                 reply->body.size());
    return size * n;
  }

  static size_t on_header(char* p, size_t size, size_t n, void* user) {
    auto* reply = static_cast<Reply*>(user);
    std::string line(p, size * n);
    if (line.rfind("HTTP/", 0) == 0) reply->headers.clear();
    auto colon = line.find(':');
    if (colon != std::string::npos) {
      auto value = line.substr(colon + 1);
      value.erase(0, value.find_first_not_of(' '));
      value.erase(value.find_last_not_of("\r\n ") + 1);
      reply->headers[line.substr(0, colon)] = value;
    }
    return size * n;
  }

  CURL* curl_;
};

Reply fetch(const std::string& url, const Request& r = {}) {
  return Client().fetch(url, r);
}

// Distinct-looking bytes, so a misplaced slice does not compare equal.
std::string pattern(std::size_t n) {
  std::string s(n, '\0');
  for (std::size_t i = 0; i < n; ++i)
    s[i] = static_cast<char>((i * 7 + i / 251) % 256);
  return s;
}

// Body bytes received before the first pause of at least `gap` seconds.
std::optional<std::size_t> bytes_before_gap(const Reply& r, double gap) {
  double last = 0;
  std::size_t before = 0;
  for (const auto& [t, total] : r.arrivals) {
    if (t - last >= gap && total > 0 && last > 0) return before;
    last = t;
    before = total;
  }
  return std::nullopt;
}

// ---------------------------------------------------------------------------

TEST(TestServerServing, WholeBodyWithLengthTypeAndExtraHeaders) {
  TestServer server;
  const std::string body = pattern(70000);  // several provider chunks
  server.put("/a.bin", body);
  server.put("/b.json", "{}",
             {{"content-type", "application/json"}, {"ETag", "\"v1\""}});

  Reply a = fetch(server.url("/a.bin"));
  ASSERT_EQ(a.code, CURLE_OK) << curl_easy_strerror(a.code);
  EXPECT_EQ(a.status, 200);
  EXPECT_EQ(a.body, body);
  EXPECT_EQ(a.header("Content-Length"), "70000");
  EXPECT_EQ(a.header("Content-Type"), "application/octet-stream");
  EXPECT_EQ(a.header("Accept-Ranges"), "bytes");
  EXPECT_EQ(a.header("Content-Range"), "<absent>");

  // Even when the client accepts compression the bytes stay as put.
  Reply b =
      fetch(server.url("/b.json"), {.headers = {"Accept-Encoding: gzip"}});
  EXPECT_EQ(b.body, "{}");
  EXPECT_EQ(b.header("Content-Type"), "application/json");
  EXPECT_EQ(b.header("ETag"), "\"v1\"");
  EXPECT_EQ(b.header("Content-Encoding"), "<absent>");
}

TEST(TestServerServing, UnknownPathReplaceAndRemove) {
  TestServer server;
  Reply missing = fetch(server.url("/nope"));
  EXPECT_EQ(missing.code, CURLE_OK);
  EXPECT_EQ(missing.status, 404);
  EXPECT_FALSE(missing.body.empty());

  server.put("/f", "one");
  server.put("/f", "two");
  EXPECT_EQ(fetch(server.url("/f")).body, "two");
  server.remove("/f");
  EXPECT_EQ(fetch(server.url("/f")).status, 404);

  server.put("/empty", "");
  Reply empty = fetch(server.url("/empty"));
  EXPECT_EQ(empty.code, CURLE_OK);
  EXPECT_EQ(empty.status, 200);
  EXPECT_EQ(empty.header("Content-Length"), "0");
}

TEST(TestServerServing, HeadAnnouncesLengthWithoutBody) {
  TestServer server;
  server.put("/f", pattern(1234));
  Reply r = fetch(server.url("/f"), {.head = true});
  EXPECT_EQ(r.code, CURLE_OK);
  EXPECT_EQ(r.status, 200);
  EXPECT_EQ(r.header("Content-Length"), "1234");
  EXPECT_TRUE(r.body.empty());
}

TEST(TestServerServing, PlainHttpScheme) {
  TestServer server(TestServer::Scheme::http);
  EXPECT_EQ(server.base_url(),
            "http://127.0.0.1:" + std::to_string(server.port()));
  server.put("/f", "plain");
  Reply r = fetch(server.url("/f"));
  EXPECT_EQ(r.code, CURLE_OK);
  EXPECT_EQ(r.body, "plain");
}

TEST(TestServerServing, TrustedOnlyThroughTheTestCa) {
  TestServer server;
  EXPECT_EQ(server.base_url(),
            "https://127.0.0.1:" + std::to_string(server.port()));
  server.put("/f", "x");

  Reply untrusted = fetch(server.url("/f"), {.trust_test_ca = false});
  EXPECT_EQ(untrusted.code, CURLE_PEER_FAILED_VERIFICATION);

  // The certificate also names localhost.
  const std::string port = std::to_string(server.port());
  Reply by_name = fetch("https://localhost:" + port + "/f",
                        {.resolve = {"localhost:" + port + ":127.0.0.1"}});
  EXPECT_EQ(by_name.code, CURLE_OK) << curl_easy_strerror(by_name.code);
  EXPECT_EQ(by_name.body, "x");
}

TEST(TestServerServing, KeepAliveConnectionServesManyRequests) {
  TestServer server;
  server.put("/f", pattern(5000));
  Client c;
  for (int i = 0; i < 30; ++i) {
    Reply r = c.fetch(server.url("/f"),
                      {.headers = {"Range: bytes=" + std::to_string(i) + "-"}});
    ASSERT_EQ(r.code, CURLE_OK) << i;
    ASSERT_EQ(r.body, pattern(5000).substr(i)) << i;
  }
  EXPECT_EQ(server.connection_count(), 1u);
}

// ---------------------------------------------------------------------------

struct RangeCase {
  std::string range;
  long status;
  std::string content_range;
  std::size_t begin, length;
};

TEST(TestServerRange, FormsAndUnsatisfiable) {
  TestServer server;
  const std::string body = pattern(100);
  server.put("/f", body);
  const std::vector<RangeCase> cases = {
      {"bytes=0-9", 206, "bytes 0-9/100", 0, 10},
      {"bytes=99-99", 206, "bytes 99-99/100", 99, 1},
      {"bytes=90-200", 206, "bytes 90-99/100", 90, 10},  // end clipped
      {"bytes=95-", 206, "bytes 95-99/100", 95, 5},
      {"bytes=-7", 206, "bytes 93-99/100", 93, 7},
      {"bytes=-500", 206, "bytes 0-99/100", 0, 100},
      {"bytes=100-", 416, "bytes */100", 0, 0},
      {"bytes=150-160", 416, "bytes */100", 0, 0},
      {"bytes=-0", 416, "bytes */100", 0, 0},
      {"bytes=0-1,5-6", 200, "<absent>", 0, 100},  // multi-range ignored
  };
  Client c;
  for (const auto& k : cases) {
    SCOPED_TRACE(k.range);
    Reply r = c.fetch(server.url("/f"), {.headers = {"Range: " + k.range}});
    ASSERT_EQ(r.code, CURLE_OK) << curl_easy_strerror(r.code);
    EXPECT_EQ(r.status, k.status);
    EXPECT_EQ(r.header("Content-Range"), k.content_range);
    EXPECT_EQ(r.header("Content-Length"), std::to_string(k.length));
    EXPECT_EQ(r.body, body.substr(k.begin, k.length));
  }

  server.put("/empty", "");
  Reply r = c.fetch(server.url("/empty"), {.headers = {"Range: bytes=0-"}});
  EXPECT_EQ(r.status, 416);
  EXPECT_EQ(r.header("Content-Range"), "bytes */0");
}

TEST(TestServerRange, RangeAcrossChunksOfALargeBody) {
  TestServer server;
  const std::string body = pattern(1 << 20);
  server.put("/big", body);
  Reply r =
      fetch(server.url("/big"), {.headers = {"Range: bytes=12345-600000"}});
  EXPECT_EQ(r.status, 206);
  EXPECT_EQ(r.body, body.substr(12345, 600000 - 12345 + 1));
}

// ---------------------------------------------------------------------------

TEST(TestServerFault, CutBodyIsAShortReadThatClosesTheConnection) {
  TestServer server;
  const std::string body = pattern(1000);
  server.put("/f", body);
  server.fault("/f", {.cut_after_bytes = 300, .times = 2});
  Client c;

  Reply whole = c.fetch(server.url("/f"));
  EXPECT_EQ(whole.code, CURLE_PARTIAL_FILE);
  EXPECT_EQ(whole.header("Content-Length"), "1000");
  EXPECT_EQ(whole.body, body.substr(0, 300));

  // Counted within the served span, not the file.
  Reply ranged =
      c.fetch(server.url("/f"), {.headers = {"Range: bytes=100-599"}});
  EXPECT_EQ(ranged.code, CURLE_PARTIAL_FILE);
  EXPECT_EQ(ranged.body, body.substr(100, 300));

  Reply after = c.fetch(server.url("/f"));
  EXPECT_EQ(after.code, CURLE_OK);
  EXPECT_EQ(after.body, body);
  EXPECT_EQ(server.connection_count(), 3u);
}

TEST(TestServerFault, CutBeforeTheFirstByte) {
  TestServer server;
  server.put("/f", "abc");
  server.fault("/f", {.cut_after_bytes = 0});
  Reply r = fetch(server.url("/f"));
  EXPECT_EQ(r.code, CURLE_PARTIAL_FILE);
  EXPECT_EQ(r.status, 200);
  EXPECT_TRUE(r.body.empty());
}

TEST(TestServerFault, WrongBytesKeepTheLength) {
  TestServer server;
  const std::string body = pattern(500);
  server.put("/f", body);
  server.fault("/f", {.wrong_bytes = true});
  Reply r = fetch(server.url("/f"), {.headers = {"Range: bytes=10-19"}});
  EXPECT_EQ(r.code, CURLE_OK);
  EXPECT_EQ(r.status, 206);
  ASSERT_EQ(r.body.size(), 10u);
  for (std::size_t i = 0; i < 10; ++i) {
    EXPECT_EQ(static_cast<unsigned char>(r.body[i]),
              static_cast<unsigned char>(body[10 + i]) ^ 0xFF);
  }
}

TEST(TestServerFault, StatusWithBodyOrTheFileBytes) {
  TestServer server;
  server.put("/f", "file bytes");
  server.fault(
      "/f", {.status = 503, .body = "busy", .headers = {{"Retry-After", "1"}}});
  Reply busy = fetch(server.url("/f"));
  EXPECT_EQ(busy.code, CURLE_OK);
  EXPECT_EQ(busy.status, 503);
  EXPECT_EQ(busy.body, "busy");
  EXPECT_EQ(busy.header("Retry-After"), "1");

  server.fault("/f", {.status = 500});
  Reply plain = fetch(server.url("/f"));
  EXPECT_EQ(plain.status, 500);
  EXPECT_EQ(plain.body, "file bytes");

  server.fault("/missing", {.status = 401, .body = "who?"});
  EXPECT_EQ(fetch(server.url("/missing")).body, "who?");

  server.clear_faults();
  EXPECT_EQ(fetch(server.url("/f")).status, 200);
  EXPECT_EQ(fetch(server.url("/missing")).status, 404);
}

TEST(TestServerFault, DelayBeforeHead) {
  TestServer server;
  server.put("/f", "x");
  server.fault("/f", {.delay_before_head_s = 0.3});
  Reply r = fetch(server.url("/f"));
  EXPECT_EQ(r.code, CURLE_OK);
  EXPECT_EQ(r.body, "x");
  EXPECT_GE(r.head_s, 0.29);
}

TEST(TestServerFault, StallInsideTheBody) {
  TestServer server;
  const std::string body = pattern(2000);
  server.put("/f", body);
  server.fault("/f", {.stall_after_bytes = 700, .stall_s = 0.3});
  Reply r = fetch(server.url("/f"));
  EXPECT_EQ(r.code, CURLE_OK);
  EXPECT_EQ(r.body, body);
  EXPECT_LT(r.head_s, 0.25);  // the head is not held back
  EXPECT_EQ(bytes_before_gap(r, 0.25), std::optional<std::size_t>(700));
}

TEST(TestServerFault, RangeMisbehaviour) {
  TestServer server;
  const std::string body = pattern(1000);
  server.put("/f", body);
  Client c;
  const Request ranged{.headers = {"Range: bytes=100-299"}};

  server.fault("/f", {.ignore_range = true});
  Reply ignored = c.fetch(server.url("/f"), ranged);
  EXPECT_EQ(ignored.status, 200);
  EXPECT_EQ(ignored.header("Content-Range"), "<absent>");
  EXPECT_EQ(ignored.body, body);

  server.fault("/f", {.half_range = true});
  Reply half = c.fetch(server.url("/f"), ranged);
  EXPECT_EQ(half.status, 206);
  EXPECT_EQ(half.header("Content-Range"), "bytes 100-199/1000");
  EXPECT_EQ(half.body, body.substr(100, 100));
  Reply unranged = c.fetch(server.url("/f"));  // nothing to halve
  EXPECT_EQ(unranged.status, 200);
  EXPECT_EQ(unranged.body, body);

  server.fault("/f", {.empty_206 = true});
  Reply empty = c.fetch(server.url("/f"), ranged);
  EXPECT_EQ(empty.code, CURLE_OK);
  EXPECT_EQ(empty.status, 206);
  EXPECT_EQ(empty.header("Content-Range"), "bytes 100-299/1000");
  EXPECT_EQ(empty.header("Content-Length"), "0");
  EXPECT_TRUE(empty.body.empty());
}

TEST(TestServerFault, RedirectToPathOrFullUrl) {
  TestServer server;
  TestServer other;
  server.put("/target", "here");
  other.put("/elsewhere", "there");
  server.fault("/old", {.redirect_to = "/target"});
  server.fault("/away", {.redirect_to = other.url("/elsewhere")});

  Reply unfollowed = fetch(server.url("/old"));
  EXPECT_EQ(unfollowed.status, 302);
  EXPECT_EQ(unfollowed.header("Location"), "/target");

  Reply local = fetch(server.url("/old"), {.follow = true});
  EXPECT_EQ(local.code, CURLE_OK);
  EXPECT_EQ(local.status, 200);
  EXPECT_EQ(local.redirects, 1);
  EXPECT_EQ(local.body, "here");

  Reply remote = fetch(server.url("/away"), {.follow = true});
  EXPECT_EQ(remote.body, "there");
  EXPECT_EQ(other.request_count("/elsewhere"), 1u);
  EXPECT_EQ(server.request_count("/target"), 1u);
}

TEST(TestServerFault, TimesLimitsTheFault) {
  TestServer server;
  server.put("/f", "ok");
  server.fault("/f", {.status = 503, .times = 2});
  Client c;
  EXPECT_EQ(c.fetch(server.url("/f")).status, 503);
  EXPECT_EQ(c.fetch(server.url("/f"), {.head = true}).status,
            503);  // any method counts
  EXPECT_EQ(c.fetch(server.url("/f")).status, 200);
  EXPECT_EQ(c.fetch(server.url("/f")).status, 200);
  EXPECT_EQ(server.request_count("/f"), 4u);

  server.fault("/f", {.status = 500});
  EXPECT_EQ(c.fetch(server.url("/f")).status, 500);
  server.clear_fault("/f");
  EXPECT_EQ(c.fetch(server.url("/f")).status, 200);
}

TEST(TestServerFault, FaultHeadersOverrideFileHeaders) {
  TestServer server;
  server.put("/f", "x", {{"ETag", "\"a\""}});
  server.fault("/f", {.headers = {{"etag", "\"b\""}, {"X-Extra", "1"}}});
  Reply r = fetch(server.url("/f"));
  EXPECT_EQ(r.header("ETag"), "\"b\"");
  EXPECT_EQ(r.header("X-Extra"), "1");
}

// ---------------------------------------------------------------------------

TEST(TestServerRecording, PathQueryRangeAndHeaders) {
  TestServer server;
  server.put("/dir/a b.bin", pattern(50));
  Client c;
  c.fetch(server.url("/dir/a%20b.bin?x=1&y=%2F"),
          {.headers = {"Range: bytes=5-9", "authorization: Bearer t0k"}});
  c.fetch(server.url("/other"), {.head = true});

  auto reqs = server.requests();
  ASSERT_EQ(reqs.size(), 2u);
  EXPECT_EQ(reqs[0].method, "GET");
  EXPECT_EQ(reqs[0].path, "/dir/a b.bin");
  EXPECT_EQ(reqs[0].query, "x=1&y=%2F");
  EXPECT_EQ(reqs[0].target, "/dir/a%20b.bin?x=1&y=%2F");
  EXPECT_EQ(reqs[0].range, "bytes=5-9");
  EXPECT_EQ(reqs[0].header("Authorization"), "Bearer t0k");
  EXPECT_EQ(reqs[0].header("AUTHORIZATION"), "Bearer t0k");
  EXPECT_EQ(reqs[0].header("Host"),
            "127.0.0.1:" + std::to_string(server.port()));
  EXPECT_EQ(reqs[0].header("REMOTE_ADDR"), std::nullopt);
  EXPECT_EQ(reqs[1].method, "HEAD");
  EXPECT_EQ(reqs[1].path, "/other");
  EXPECT_EQ(reqs[1].range, std::nullopt);
  EXPECT_EQ(reqs[1].header("Authorization"), std::nullopt);
  EXPECT_EQ(reqs[0].remote_port, reqs[1].remote_port);  // same connection

  EXPECT_EQ(server.request_count("/dir/a b.bin"), 1u);
  server.clear_requests();
  EXPECT_TRUE(server.requests().empty());
  EXPECT_EQ(server.request_count("/other"), 0u);
}

TEST(TestServerRecording, PostBodyIsReadAndConnectionStaysUsable) {
  TestServer server;
  server.put("/f", "content");
  Client c;
  Reply post = c.fetch(server.url("/f"), {.method = "POST", .body = "payload"});
  EXPECT_EQ(post.status, 405);
  Reply get = c.fetch(server.url("/f"));
  EXPECT_EQ(get.body, "content");
  EXPECT_EQ(server.connection_count(), 1u);

  auto reqs = server.requests();
  ASSERT_EQ(reqs.size(), 2u);
  EXPECT_EQ(reqs[0].method, "POST");
  EXPECT_EQ(reqs[0].body, "payload");
}

// ---------------------------------------------------------------------------

TEST(TestServerLifecycle, DestructorInterruptsAResponseInFlight) {
  std::optional<TestServer> server(std::in_place);
  server->put("/slow", "x");
  server->fault("/slow", {.delay_before_head_s = 30});
  server->put("/stall", pattern(100));
  server->fault("/stall", {.stall_after_bytes = 10, .stall_s = 30});
  std::string slow = server->url("/slow"), stall = server->url("/stall");

  Reply a, b;
  std::thread ta([&] { a = fetch(slow); });
  std::thread tb([&] { b = fetch(stall); });
  auto t0 = Clock::now();
  while (server->requests().size() < 2 && seconds_since(t0) < 5) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ASSERT_EQ(server->requests().size(), 2u);

  t0 = Clock::now();
  server.reset();
  EXPECT_LT(seconds_since(t0), 2.0);
  ta.join();
  tb.join();
  EXPECT_NE(a.body, "x");
  EXPECT_NE(b.code, CURLE_OK);
}

TEST(TestServerLifecycle, DestructorDropsIdleKeptAliveConnection) {
  Client c;  // outlives the server, holding its connection open
  std::optional<TestServer> server(std::in_place);
  server->put("/f", "x");
  ASSERT_EQ(c.fetch(server->url("/f")).code, CURLE_OK);
  auto t0 = Clock::now();
  server.reset();
  EXPECT_LT(seconds_since(t0), 1.0);  // httplib would wait out keep-alive (5 s)
}

TEST(TestServerLifecycle, ParallelConnectsAreServedAtOnce) {
  // httplib's own pool serves 8 connections at a time and its listen
  // backlog of 5 drops SYNs in a burst (a lost SYN costs 1 s).
  constexpr int kClients = 16;
  std::optional<TestServer> server(std::in_place);
  server->put("/f", "x");
  server->fault("/f", {.delay_before_head_s = 30});
  std::string url = server->url("/f");

  std::latch go(kClients + 1);
  std::vector<std::thread> clients;
  for (int i = 0; i < kClients; ++i) {
    clients.emplace_back([&] {
      go.arrive_and_wait();
      fetch(url);
    });
  }
  go.arrive_and_wait();
  auto t0 = Clock::now();
  while (server->requests().size() < kClients && seconds_since(t0) < 5) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_EQ(server->requests().size(), std::size_t{kClients});
  EXPECT_LT(seconds_since(t0), 0.8);
  server.reset();
  for (auto& t : clients) t.join();
}

TEST(TestServerLifecycle, BurstOfConnectsIsNotDropped) {
  constexpr int kSockets = 64;
  TestServer server;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(server.port()));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::vector<pollfd> fds;
  for (int i = 0; i < kSockets; ++i) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    ASSERT_GE(fd, 0);
    connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    fds.push_back({fd, POLLOUT, 0});
  }
  // A SYN dropped by a full accept queue is only retried after 1 s.
  auto t0 = Clock::now();
  int connected = 0;
  while (connected < kSockets && seconds_since(t0) < 0.8) {
    connected = 0;
    poll(fds.data(), fds.size(), 10);
    for (auto& p : fds) connected += (p.revents & POLLOUT) ? 1 : 0;
  }
  EXPECT_EQ(connected, kSockets);
  for (auto& p : fds) close(p.fd);
}

TEST(TestServerLifecycle, ChangesWhileServing) {
  TestServer server;
  server.put("/f", "v0");
  std::atomic<bool> done{false};
  std::thread writer([&] {
    for (int i = 1; !done; ++i) {
      server.put("/f", "v" + std::to_string(i % 2));
      server.fault("/f", {.status = 503, .body = "v2", .times = 1});
      server.requests();
    }
  });
  Client c;
  for (int i = 0; i < 40; ++i) {
    Reply r = c.fetch(server.url("/f"));
    ASSERT_EQ(r.code, CURLE_OK);
    EXPECT_TRUE(r.body == "v0" || r.body == "v1" || r.body == "v2") << r.body;
  }
  done = true;
  writer.join();
}

TEST(TestServerLifecycle, UnusedLoopbackPortRefusesConnections) {
  int port = unused_loopback_port();
  EXPECT_GT(port, 0);
  Reply r = fetch("https://127.0.0.1:" + std::to_string(port) + "/");
  EXPECT_EQ(r.code, CURLE_COULDNT_CONNECT);
}

}  // namespace
}  // namespace quillmarsh::sync::testing
