// The era's shuffle seed, "shuffle_seed.enc", and its era side file.
#ifndef QUILLMARSH_SYNC_ARTEFACTS_SHUFFLE_SEED_H_
#define QUILLMARSH_SYNC_ARTEFACTS_SHUFFLE_SEED_H_

#include <cstdint>
#include <string>

namespace quillmarsh::sync {

// Returns when the seed at `path` is right for `expected_era_id`; fails with
// SyncError or EraError otherwise.
void _validate_shuffle_seed_file(const std::string& path, std::int64_t expected_era_id);

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_ARTEFACTS_SHUFFLE_SEED_H_
