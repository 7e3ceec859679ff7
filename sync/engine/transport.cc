#include "sync/engine/transport.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "sync/collaborators/transport_security.h"
#include "sync/engine/tunables.h"
#include "sync/errors.h"
#include "sync/support/text.h"
#include "sync/support/log.h"
#include "sync/support/sleep.h"
#include "sync/support/url.h"

namespace quillmarsh::sync {
namespace {

HttpRequest request_for(const std::string& url, std::vector<std::pair<std::string, std::string>> headers,
                        std::int64_t range_start, std::int64_t range_end, const BodySink* sink) {
  if (auto range = _range_header(range_start, range_end)) headers.emplace_back("Range", *range);
  return HttpRequest{url, std::move(headers), sink};
}

// Steps 3 onward of both GETs: open, read.
HttpResponse get(const HttpRequest& req) {
  OpenedResponse opened;
  try {
    opened = _urlopen_with_sync_retries(req, _sync_http_timeout_seconds());
  } catch (const URLError&) {
    return _sync_get_result(req.full_url, {}, std::current_exception());
  }
  return _sync_get_result(req.full_url, std::move(opened), nullptr);
}

}  // namespace

std::optional<std::string> _range_header(std::int64_t range_start, std::int64_t range_end) {
  if (!(range_start > 0 || range_end >= 0)) return std::nullopt;
  if (range_end >= range_start && range_end >= 0) {
    return "bytes=" + std::to_string(range_start) + "-" + std::to_string(range_end);
  }
  return "bytes=" + std::to_string(range_start) + "-";
}

HeadTimeoutRetries::HeadTimeoutRetries(std::string url)
    : url_(std::move(url)), attempts_(_sync_http_retries() + 1) {}

std::optional<double> HeadTimeoutRetries::after(const TimeoutError& timeout) {
  last_ = std::make_exception_ptr(timeout);
  last_text_ = timeout.what();
  const std::int64_t attempt = made_++;
  if (attempt + 1 >= attempts_) return std::nullopt;
  const std::string& url = url_.empty() ? std::string("<unknown>") : url_;
  log_warning("Sync HTTP request timed out; retrying attempt %d/%d for %s", {attempt + 2, attempts_, url});
  return std::min(0.25 * static_cast<double>(attempt + 1), 1.0);
}

ConnectionError HeadTimeoutRetries::exhausted() const {
  return ConnectionError("Timed out fetching " + url_ + " after " + std::to_string(attempts_) +
                             " attempt(s): " + last_text_,
                         last_);
}

OpenedResponse _urlopen_with_sync_retries(const HttpRequest& req, double timeout) {
  HeadTimeoutRetries retries(req.full_url);
  for (;;) {
    try {
      return open_http_request(req, timeout);
    } catch (const TimeoutError& e) {
      const std::optional<double> wait = retries.after(e);
      if (!wait) throw retries.exhausted();
      sync_sleep(*wait);
    }
  }
}

HttpResponse _sync_get_result(const std::string& url, OpenedResponse opened, std::exception_ptr failure) {
  if (failure) {
    try {
      std::rethrow_exception(failure);
    } catch (const URLError& e) {
      throw ConnectionError("Connection failed to " + url + ": " + e.what(), std::current_exception());
    }
  }
  // A short body comes back as it is; any other read failure travels.
  if (opened.read_failure && !opened.partial) std::rethrow_exception(opened.read_failure);
  return HttpResponse{opened.status, std::move(opened.headers), std::move(opened.body)};
}

HttpRequest _http_get_request(const std::string& url, const std::string& token, std::int64_t range_start,
                              std::int64_t range_end, const BodySink* sink) {
  validate_bearer_transport_url(url);
  return request_for(url, {{"Authorization", "Bearer " + token}, {"User-Agent", _SYNC_USER_AGENT}}, range_start,
                     range_end, sink);
}

HttpResponse _http_get(const std::string& url, const std::string& token, std::int64_t range_start,
                       std::int64_t range_end, const BodySink* sink) {
  return get(_http_get_request(url, token, range_start, range_end, sink));
}

std::string _public_download_url(const std::string& url, const std::string& override_base) {
  const std::string_view base = strip(override_base);
  if (base.empty()) return url;
  std::vector<std::string> parts;
  const std::string path = split_url(url).path;
  for (std::size_t start = 0; start <= path.size();) {
    const std::size_t slash = std::min(path.find('/', start), path.size());
    if (slash > start) parts.push_back(path.substr(start, slash - start));
    start = slash + 1;
  }
  const auto release = std::find(parts.begin(), parts.end(), "releases");
  if (release == parts.end()) return url;
  const std::size_t release_index = static_cast<std::size_t>(release - parts.begin());
  if (parts.size() <= release_index + 2) return url;
  std::string rel_path;
  for (std::size_t i = release_index + 2; i < parts.size(); ++i) {
    if (!rel_path.empty()) rel_path += '/';
    rel_path += parts[i];
  }
  std::string_view trimmed = base;
  while (!trimmed.empty() && trimmed.back() == '/') trimmed.remove_suffix(1);
  return std::string(trimmed) + "/data/files/" + rel_path;
}

HttpRequest _http_get_public_request(const std::string& url, std::int64_t range_start, std::int64_t range_end,
                                     const BodySink* sink) {
  const char* override_base = std::getenv("QUILLMARSH_SYNC_PUBLIC_DOWNLOAD_BASE_URL");
  const std::string target = _public_download_url(url, override_base ? override_base : "");
  return request_for(target, {{"User-Agent", _SYNC_USER_AGENT}}, range_start, range_end, sink);
}

HttpResponse _http_get_public(const std::string& url, std::int64_t range_start, std::int64_t range_end,
                              const BodySink* sink) {
  return get(_http_get_public_request(url, range_start, range_end, sink));
}

}  // namespace quillmarsh::sync
