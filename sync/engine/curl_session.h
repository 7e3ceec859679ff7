// One HTTP exchange over libcurl, the only place that calls it.
//
// Each thread keeps its own handles, so connections and TLS sessions are
// reused from one request to the next. The exchange is split where the
// callers need it split: opening (connect, send, wait for the response head)
// and the body, whose failure is handed back rather than raised, because a
// caller treats a short body differently from a failed open.
#ifndef QUILLMARSH_SYNC_ENGINE_CURL_SESSION_H_
#define QUILLMARSH_SYNC_ENGINE_CURL_SESSION_H_

#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "sync/errors.h"

namespace quillmarsh::sync {

// No HTTP response at all: the connection or the sending of the request
// failed. `what()` is the reason.
class URLError : public Error {
 public:
  using Error::Error;
  const char* type_name() const noexcept override { return "URLError"; }
};

// Where a body goes that the caller writes somewhere as it arrives, instead
// of into the response: once the final response's head is in, `accepts` is
// asked about its status; when it says yes, every piece of the body goes to
// `write` (a few hundred KiB at most, while it is still in the CPU's cache).
// A failure of either ends the exchange and reaches the caller as it is.
struct BodySink {
  std::function<bool(int status)> accepts;
  std::function<void(std::string_view piece)> write;
};

struct HttpRequest {
  std::string full_url;
  std::vector<std::pair<std::string, std::string>> headers;
  const BodySink* sink = nullptr;
};

// A response whose head has arrived. `status` is any HTTP status, redirects
// having been followed. When reading the body failed, `read_failure` holds
// the failure; `partial` says that the connection merely ended before the
// announced length, and `body` then holds the bytes that did arrive.
struct OpenedResponse {
  int status = 0;
  std::map<std::string, std::string> headers;  // the server's spelling; the last repeat wins
  std::string body;
  std::exception_ptr read_failure;
  bool partial = false;
  // The body went to the request's sink; `body` is empty.
  bool streamed = false;
};

// Runs one exchange. `timeout_s` bounds each wait: the connection, and any
// silence of the server once connected. Fails with URLError when no
// connection could be made or the request could not be sent, TimeoutError
// when the response head does not come in time, ConnectionError when the
// server drops the connection before the head, ValueError for a URL that is
// not http(s).
OpenedResponse open_http_request(const HttpRequest& request, double timeout_s);

// Several exchanges at once, driven by the one thread that owns the loop:
// what a batch of many small files needs to keep its connections busy
// without a thread per transfer. Connections are kept between exchanges.
// Each exchange ends exactly as open_http_request would end it: `done` gets
// the response, or the failure open_http_request would throw. A loop keeps
// the trust setting in force when its first exchange starts.
class TransferLoop {
 public:
  using Done = std::function<void(OpenedResponse response, std::exception_ptr failure)>;
  TransferLoop();
  ~TransferLoop();  // unfinished exchanges end unannounced, closing their connections
  TransferLoop(const TransferLoop&) = delete;
  TransferLoop& operator=(const TransferLoop&) = delete;

  // The request's sink must stay valid until `done` is called. Fails as
  // open_http_request does for a NaN timeout.
  void start(const HttpRequest& request, double timeout_s, Done done);
  // Moves every exchange on, waiting at most `max_wait_ms` for the network;
  // returns early once any exchange has ended (its `done` has been called).
  void run(int max_wait_ms);
  std::size_t running() const { return running_.size(); }

 private:
  struct Transfer;
  struct Pinned;
  // `code` is libcurl's result, or kSilent when the server stayed silent.
  static constexpr int kSilent = -1;
  void end(Transfer* transfer, int code);
  void* multi_;
  std::vector<std::unique_ptr<Transfer>> running_;
  std::vector<std::unique_ptr<Transfer>> idle_;
  std::unique_ptr<Pinned> trust_;
};

// Process-wide: a PEM bundle of CA certificates trusted beside the system's
// own, or nothing. Fails with OSError or ValueError when the file cannot be
// read or holds no certificate; the previous setting then stays.
void set_extra_ca_file(const std::optional<std::string>& pem_path);

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_ENGINE_CURL_SESSION_H_
