// The two GETs through which every byte from the network arrives: one with
// a bearer token for the API server, one without for public object storage.
// Both return the response triple for every HTTP status; only transport
// failures fail.
#ifndef QUILLMARSH_SYNC_ENGINE_TRANSPORT_H_
#define QUILLMARSH_SYNC_ENGINE_TRANSPORT_H_

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "sync/engine/curl_session.h"

namespace quillmarsh::sync {

// The response triple. `body` may be shorter than the server announced: the
// caller notices that, not the transport.
struct HttpResponse {
  int status = 0;
  std::map<std::string, std::string> resp_headers;
  std::string body;
};

// "bytes={start}-{end}", "bytes={start}-", or nothing for the whole file.
std::optional<std::string> _range_header(std::int64_t range_start, std::int64_t range_end);

// Opens `req`, retrying only when the response head does not arrive in time
// (waits of 0.25 s, 0.5 s, ... up to 1 s); after the last attempt fails with
// ConnectionError "Timed out fetching ...".
OpenedResponse _urlopen_with_sync_retries(const HttpRequest& req, double timeout);

// The rule behind those retries, for a caller that opens the request some
// other way: after each TimeoutError, `after` logs the retry and gives the
// wait before the next try, or nothing when the tries are spent; the
// failure is then `exhausted()`.
class HeadTimeoutRetries {
 public:
  explicit HeadTimeoutRetries(std::string url);
  std::optional<double> after(const TimeoutError& timeout);
  ConnectionError exhausted() const;

 private:
  std::string url_;
  std::int64_t attempts_;
  std::int64_t made_ = 0;
  std::exception_ptr last_;
  std::string last_text_;
};

// What both GETs make of one opened request, or of its failure to open: a
// URLError becomes ConnectionError "Connection failed to {url}: ...", a short
// body comes back as it is, and any other failure travels.
HttpResponse _sync_get_result(const std::string& url, OpenedResponse opened, std::exception_ptr failure);

// The requests _http_get and _http_get_public open, for a caller that opens
// them itself (the bearer URL is checked here all the same).
HttpRequest _http_get_request(const std::string& url, const std::string& token, std::int64_t range_start,
                              std::int64_t range_end, const BodySink* sink);
HttpRequest _http_get_public_request(const std::string& url, std::int64_t range_start, std::int64_t range_end,
                                     const BodySink* sink);

// GET `url` from the API server with "Authorization: Bearer {token}". The
// URL passes the transport-security collaborator first; a refusal fails
// before any traffic. With a `sink`, a body whose status it accepts goes
// there as it arrives, and the response's body stays empty.
HttpResponse _http_get(const std::string& url, const std::string& token, std::int64_t range_start = 0,
                       std::int64_t range_end = -1, const BodySink* sink = nullptr);

// GET `url` from public object storage, with no token. When
// QUILLMARSH_SYNC_PUBLIC_DOWNLOAD_BASE_URL is set, a URL whose path holds
// "releases/{tag}/{path...}" is fetched from "{override}/data/files/{path...}".
HttpResponse _http_get_public(const std::string& url, std::int64_t range_start = 0,
                              std::int64_t range_end = -1, const BodySink* sink = nullptr);

// The URL _http_get_public would fetch for `url` under `override_base`.
std::string _public_download_url(const std::string& url, const std::string& override_base);

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_ENGINE_TRANSPORT_H_
