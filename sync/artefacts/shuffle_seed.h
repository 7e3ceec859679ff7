// The era's shuffle seed, "shuffle_seed.enc", and the side file that records
// the era it was fetched for.
#ifndef QUILLMARSH_SYNC_ARTEFACTS_SHUFFLE_SEED_H_
#define QUILLMARSH_SYNC_ARTEFACTS_SHUFFLE_SEED_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "sync/support/json_text.h"

namespace quillmarsh::sync {

// The seed is opaque and always this long.
inline constexpr std::size_t kShuffleSeedBytes = 60;

// The side file's path for a seed path: the seed's path + ".meta.json".
std::string _shuffle_seed_meta_path(const std::string& path);

// The value of header `name`, compared without regard to case, or absent.
std::optional<std::string> _header_value(const std::map<std::string, std::string>& headers,
                                         std::string_view name);

// Returns when the response's X-Era-Id names `expected_era_id`. SyncError
// when the header is missing, EraError when it is no integer or another
// era; `artifact` begins the messages.
void _validate_response_era_header(const std::map<std::string, std::string>& headers,
                                   const Json& expected_era_id, std::string_view artifact);

// Writes the side file of the seed at `path`, {"era_id": N}, atomically.
void _write_shuffle_seed_metadata(const std::string& path, const Json& era_id);

// SyncError unless `data` is exactly kShuffleSeedBytes long.
void _validate_shuffle_seed_bytes(std::string_view data);

// Returns when the seed at `path` is well formed and, if `expected_era_id`
// is given, its side file names that era; SyncError or EraError otherwise.
void _validate_shuffle_seed_file(const std::string& path,
                                 const std::optional<std::int64_t>& expected_era_id = std::nullopt);

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_ARTEFACTS_SHUFFLE_SEED_H_
