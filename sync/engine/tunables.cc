#include "sync/engine/tunables.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <string>

#include "sync/errors.h"
#include "sync/support/integer.h"
#include "sync/support/text.h"
#include "sync/support/log.h"

namespace quillmarsh::sync {
namespace {

std::optional<std::string> env(const char* name) {
  const char* value = std::getenv(name);
  if (value == nullptr) return std::nullopt;
  return std::string(value);
}

// A float as Python's float() reads it: surrounding white space allowed,
// "inf" and "nan" accepted, nothing else after the number.
std::optional<double> parse_float(const std::string& text) {
  const std::string body(strip(text));
  if (body.empty()) return std::nullopt;
  errno = 0;
  char* end = nullptr;
  const double value = std::strtod(body.c_str(), &end);
  if (end != body.c_str() + body.size()) return std::nullopt;
  // strtod accepts hexadecimal floats and "infinity"; float() accepts the
  // latter but not the former.
  if (body.find_first_of("xX") != std::string::npos) return std::nullopt;
  return value;
}

// An integer setting has no upper bound, so digits beyond 64 bits stand for
// the largest value rather than for a mistake.
std::optional<std::int64_t> parse_int(const std::string& text) {
  try {
    return saturating_integer_of_text(text);
  } catch (const ValueError&) {
    return std::nullopt;
  }
}

}  // namespace

double _sync_http_timeout_seconds() {
  std::optional<std::string> raw = env("QUILLMARSH_SYNC_HTTP_TIMEOUT_SECONDS");
  if (!raw) raw = env("QUILLMARSH_SYNC_HTTP_TIMEOUT");
  if (!raw || raw->empty()) return _SYNC_HTTP_TIMEOUT_SECONDS;
  const std::optional<double> value = parse_float(*raw);
  if (!value) {
    log_warning("Invalid QUILLMARSH_SYNC_HTTP_TIMEOUT_SECONDS=%r; using %.1fs",
                {*raw, _SYNC_HTTP_TIMEOUT_SECONDS});
    return _SYNC_HTTP_TIMEOUT_SECONDS;
  }
  // NaN passes this test on purpose: only "zero or less" is refused here.
  if (*value <= 0) {
    log_warning("Non-positive QUILLMARSH_SYNC_HTTP_TIMEOUT_SECONDS=%r; using %.1fs",
                {*raw, _SYNC_HTTP_TIMEOUT_SECONDS});
    return _SYNC_HTTP_TIMEOUT_SECONDS;
  }
  return *value;
}

std::int64_t _sync_http_retries() {
  const std::optional<std::string> raw = env("QUILLMARSH_SYNC_HTTP_RETRIES");
  if (!raw || raw->empty()) return _SYNC_HTTP_RETRIES;
  const std::optional<std::int64_t> value = parse_int(*raw);
  if (!value) {
    log_warning("Invalid QUILLMARSH_SYNC_HTTP_RETRIES=%r; using %d", {*raw, _SYNC_HTTP_RETRIES});
    return _SYNC_HTTP_RETRIES;
  }
  return *value < 0 ? 0 : *value;
}

std::int64_t _sync_http_chunk_bytes() {
  const std::optional<std::string> raw = env("QUILLMARSH_SYNC_HTTP_CHUNK_BYTES");
  if (!raw || raw->empty()) return _SYNC_HTTP_CHUNK_BYTES;
  const std::optional<std::int64_t> value = parse_int(*raw);
  if (!value) {
    log_warning("Invalid QUILLMARSH_SYNC_HTTP_CHUNK_BYTES=%r; using %d", {*raw, _SYNC_HTTP_CHUNK_BYTES});
    return _SYNC_HTTP_CHUNK_BYTES;
  }
  if (*value <= 0) {
    log_warning("Non-positive QUILLMARSH_SYNC_HTTP_CHUNK_BYTES=%r; using %d",
                {*raw, _SYNC_HTTP_CHUNK_BYTES});
    return _SYNC_HTTP_CHUNK_BYTES;
  }
  return *value;
}

std::int64_t _sync_max_concurrency() {
  const std::optional<std::string> raw = env("QUILLMARSH_SYNC_MAX_CONCURRENCY");
  if (!raw || raw->empty()) return _SYNC_MAX_CONCURRENCY;
  const std::optional<std::int64_t> value = parse_int(*raw);
  if (!value) {
    log_warning("Invalid QUILLMARSH_SYNC_MAX_CONCURRENCY=%r; using %d", {*raw, _SYNC_MAX_CONCURRENCY});
    return _SYNC_MAX_CONCURRENCY;
  }
  return *value < 1 ? 1 : *value;
}

std::optional<double> _sync_parallel_timeout_seconds(std::int64_t /*file_count*/,
                                                     std::int64_t /*max_workers*/) {
  const std::optional<std::string> raw = env("QUILLMARSH_SYNC_PARALLEL_TIMEOUT_SECONDS");
  if (!raw || raw->empty()) return std::nullopt;
  const std::optional<double> value = parse_float(*raw);
  if (!value) {
    log_warning("Invalid QUILLMARSH_SYNC_PARALLEL_TIMEOUT_SECONDS=%r; disabling batch timeout", {*raw});
    return std::nullopt;
  }
  // Tested the other way about from the request timeout, so NaN is refused.
  if (!(*value > 0)) {
    log_warning("Non-positive QUILLMARSH_SYNC_PARALLEL_TIMEOUT_SECONDS=%r; disabling batch timeout",
                {*raw});
    return std::nullopt;
  }
  return *value;
}

}  // namespace quillmarsh::sync
