// A loopback HTTPS (or HTTP) server for network tests: serves byte strings
// put into it, honours single byte ranges itself, records every request and
// misbehaves on demand through per-path faults.
//
//   TestServer server;
//   server.put("/a.bin", "hello world");
//   server.fault("/a.bin", {.cut_after_bytes = 4, .times = 1});
//   // fetch server.url("/a.bin") trusting TestServer::ca_file() ...
//   EXPECT_EQ(server.request_count("/a.bin"), 1u);

#ifndef QUILLMARSH_SYNC_TESTS_SUPPORT_TEST_SERVER_H_
#define QUILLMARSH_SYNC_TESTS_SUPPORT_TEST_SERVER_H_

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quillmarsh::sync::testing {

// Orders header names without regard to ASCII case, as HTTP compares them.
struct HeaderNameLess {
  bool operator()(const std::string& a, const std::string& b) const;
};
using Headers = std::map<std::string, std::string, HeaderNameLess>;

// How to mishandle requests for one path. Fields combine: the delay comes
// first, then a redirect or a forced status, otherwise normal serving with
// the range and body faults applied. Body faults (cut, wrong bytes, stall)
// also shape a forced status's body.
struct Fault {
  // Answer with this status; the body is `body` if set, else the file's bytes.
  std::optional<int> status{};
  std::optional<std::string> body{};
  // Announce the full Content-Length, send only this many body bytes, then
  // drop the connection.
  std::optional<std::size_t> cut_after_bytes{};
  // Right length, every byte XOR 0xFF.
  bool wrong_bytes = false;
  // Sleep before sending the response head.
  double delay_before_head_s = 0;
  // After this many body bytes, sleep stall_s, then send the rest.
  std::optional<std::size_t> stall_after_bytes{};
  double stall_s = 0;
  // A ranged request gets 200 and the whole file.
  bool ignore_range = false;
  // A ranged request gets 206 with only the first half (at least one byte)
  // of the asked span; Content-Range tells the truth about what is sent.
  bool half_range = false;
  // 206 with the Content-Range of the asked span (the whole file if none)
  // but an empty body.
  bool empty_206 = false;
  // 302 with Location: this (a path on this server or a full URL).
  std::optional<std::string> redirect_to{};
  // Apply to the next N requests for the path (any method, whether or not
  // the fault changes anything for them), then serve normally. -1: always.
  int times = -1;
  // Serve the next N requests for the path normally before the fault
  // applies (and before `times` starts counting): "fail the third chunk".
  int skip = 0;
  // Extra response headers; they override the file's headers of that name.
  Headers headers{};
};

struct RecordedRequest {
  std::string method;
  std::string path;                  // percent-decoded, without the query
  std::string query;                 // raw text after '?', empty if none
  std::string target;                // the request-target exactly as sent
  Headers headers;                   // names as received; lookups ignore case
  std::optional<std::string> range;  // the Range header, if any
  std::string body;
  int remote_port = 0;  // tells connections apart

  std::optional<std::string> header(const std::string& name) const;
};

class TestServer {
 public:
  enum class Scheme { https, http };

  // Binds 127.0.0.1 on an ephemeral port; serving when this returns.
  explicit TestServer(Scheme scheme = Scheme::https);
  // Stops and joins; interrupts delays and stalls and drops open
  // connections, so it returns promptly even with a response in flight.
  ~TestServer();

  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;

  int port() const;
  std::string base_url() const;                    // "https://127.0.0.1:PORT"
  std::string url(const std::string& path) const;  // base_url() + path
  static std::string ca_file();                    // PEM of the CA to trust

  // GET and HEAD of `path` (decoded, no query) serve `bytes`. A
  // Content-Type among `headers` replaces application/octet-stream.
  void put(const std::string& path, std::string bytes, Headers headers = {});
  void remove(const std::string& path);

  void fault(const std::string& path, Fault f);
  void clear_fault(const std::string& path);
  void clear_faults();

  // Every request that reached the handler, in arrival order. A request
  // whose Range header does not parse at all is answered 416 by the HTTP
  // library before that and is not recorded.
  std::vector<RecordedRequest> requests() const;
  std::size_t request_count(const std::string& path) const;
  void clear_requests();

  // TCP connections accepted so far; shows whether a client reuses them.
  std::size_t connection_count() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

// A port on 127.0.0.1 with nothing listening on it (bound, read, closed).
int unused_loopback_port();

}  // namespace quillmarsh::sync::testing

#endif  // QUILLMARSH_SYNC_TESTS_SUPPORT_TEST_SERVER_H_
