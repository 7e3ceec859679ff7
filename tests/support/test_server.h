// A loopback HTTPS (or HTTP) server for network tests: the reference
// server's object store site over bytes held in memory, at any path, or
// either of its sites over a published root, with per-path faults,
// recording every request.
//
//   TestServer server;
//   server.put("/a.bin", "hello world");
//   server.fault("/a.bin", {.cut_after_bytes = 4, .times = 1});
//   // fetch server.url("/a.bin") trusting TestServer::ca_file() ...
//   EXPECT_EQ(server.request_count("/a.bin"), 1u);

#ifndef QUILLMARSH_SYNC_TESTS_SUPPORT_TEST_SERVER_H_
#define QUILLMARSH_SYNC_TESTS_SUPPORT_TEST_SERVER_H_

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "server/fault.h"

namespace quillmarsh::sync::testing {

using server::Fault;
using server::HeaderNameLess;
using server::Headers;

struct RecordedRequest {
  std::string path;                  // percent-decoded, without the query
  Headers headers;                   // names as received; lookups ignore case
  std::optional<std::string> range;  // the Range header, if any

  std::optional<std::string> header(const std::string& name) const;
};

class TestServer {
 public:
  enum class Scheme { https, http };

  // Binds 127.0.0.1 on an ephemeral port; serving when this returns.
  explicit TestServer(Scheme scheme = Scheme::https);
  // Serves what publish_era wrote under `root`: with a token, the API's
  // routes, which want it; without, the era files at /era_N/....
  explicit TestServer(const std::string& root, const std::string& api_token = "");
  // Stops and joins; interrupts delays and stalls and drops open
  // connections, so it returns promptly even with a response in flight.
  ~TestServer();

  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;

  std::string base_url() const;                    // "https://127.0.0.1:PORT"
  std::string url(const std::string& path) const;  // base_url() + path
  static std::string ca_file();                    // PEM of the CA to trust

  // GET and HEAD of `path` (decoded, no query) serve `bytes`. A
  // Content-Type among `headers` replaces application/octet-stream.
  void put(const std::string& path, std::string bytes, Headers headers = {});
  void remove(const std::string& path);

  void fault(const std::string& path, Fault f);
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

}  // namespace quillmarsh::sync::testing

#endif  // QUILLMARSH_SYNC_TESTS_SUPPORT_TEST_SERVER_H_
