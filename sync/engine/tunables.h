// The component's constants, and the readers through which environment
// variables override some of them. Every reader looks at the environment on
// every call, so a change takes effect at the next request or batch.
#ifndef QUILLMARSH_SYNC_ENGINE_TUNABLES_H_
#define QUILLMARSH_SYNC_ENGINE_TUNABLES_H_

#include <cstdint>
#include <optional>

namespace quillmarsh::sync {

inline constexpr const char* _SYNC_USER_AGENT = "quillmarsh-sync/0.0.3";
inline constexpr double _SYNC_HTTP_TIMEOUT_SECONDS = 30.0;
inline constexpr std::int64_t _SYNC_HTTP_RETRIES = 2;
inline constexpr std::int64_t _SYNC_HTTP_CHUNK_BYTES = 8388608;
inline constexpr std::int64_t _SYNC_MAX_CONCURRENCY = 8;
// Reserved: the batch timeout is off unless its variable is set, so this is
// deliberately not a fall-back.
inline constexpr double _SYNC_PARALLEL_TIMEOUT_SECONDS = 300.0;
inline constexpr std::int64_t _SYNC_HASH_FILE_CHUNK_BYTES = 8388608;
inline constexpr const char* _SYNC_HASH_CACHE_FILENAME = ".sync_hash_cache.json";
inline constexpr std::int64_t _SYNC_HASH_CACHE_VERSION = 1;

// QUILLMARSH_SYNC_HTTP_TIMEOUT_SECONDS (or the older QUILLMARSH_SYNC_HTTP_TIMEOUT
// when the new name is not set at all); positive seconds, else 30.0.
double _sync_http_timeout_seconds();
// QUILLMARSH_SYNC_HTTP_RETRIES; retries after the first attempt, at least 0.
std::int64_t _sync_http_retries();
// QUILLMARSH_SYNC_HTTP_CHUNK_BYTES; the ranged download chunk, positive.
std::int64_t _sync_http_chunk_bytes();
// QUILLMARSH_SYNC_MAX_CONCURRENCY; download workers, at least 1.
std::int64_t _sync_max_concurrency();
// QUILLMARSH_SYNC_PARALLEL_TIMEOUT_SECONDS; the batch timeout, absent when
// unset or refused. The two counts are accepted and ignored.
std::optional<double> _sync_parallel_timeout_seconds(std::int64_t file_count, std::int64_t max_workers);

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_ENGINE_TUNABLES_H_
