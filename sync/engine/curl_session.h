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

// Starts reading the system's trusted certificates on a thread of its own,
// so that a request made a little later does not wait for them. Optional:
// the first request reads them otherwise.
void prepare_trust();

// Process-wide: a PEM bundle of CA certificates trusted beside the system's
// own, or nothing. Fails with OSError or ValueError when the file cannot be
// read or holds no certificate; the previous setting then stays.
void set_extra_ca_file(const std::optional<std::string>& pem_path);

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_ENGINE_CURL_SESSION_H_
