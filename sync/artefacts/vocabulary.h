// Per-universe vocabularies: where they live in a manifest and whether the
// files on disk are right for the manifest's era. The validators form a
// ladder (path, parsed value, bytes, file, whole manifest); each returns or
// fails, none changes anything on disk.
#ifndef QUILLMARSH_SYNC_ARTEFACTS_VOCABULARY_H_
#define QUILLMARSH_SYNC_ARTEFACTS_VOCABULARY_H_

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sync/manifest.h"

namespace quillmarsh::sync {

// The top-level keys every vocabulary holds, in sorted order.
inline constexpr std::array<std::string_view, 7> _REQUIRED_VOCABULARY_KEYS = {
    "era_id", "features", "filtrations", "metadata", "named_universe", "reductions", "rotations"};

// The cleaned universe name; SyncError when it is empty or not a single safe
// path segment.
std::string _validate_named_universe(const std::optional<std::string>& named_universe);
// The universe of a path of the form features/{universe}/vocabulary.json, or
// absent for any other path.
std::optional<std::string> _vocabulary_named_universe_from_path(std::string_view file_path);
// The vocabulary paths of `manifest`, as the manifest spells them, sorted.
// TypeError when the manifest's files are no map.
std::vector<std::string> _vocabulary_manifest_paths(const Manifest& manifest);

// The valid vocabulary made from a parsed value: a copy whose `metadata` is
// a copy too. SyncError when malformed, EraError when of another era.
Json _validate_vocabulary_data(Json vocabulary, std::int64_t expected_era_id,
                               const std::optional<std::string>& named_universe = std::nullopt);
// As _validate_vocabulary_data, from UTF-8 JSON bytes.
Json _validate_vocabulary_bytes(std::string_view data, std::int64_t expected_era_id,
                                const std::optional<std::string>& named_universe = std::nullopt);
// As _validate_vocabulary_data, from a file.
Json _validate_vocabulary_file(const std::string& path, std::int64_t expected_era_id,
                               const std::optional<std::string>& named_universe = std::nullopt);

// The vocabularies of `manifest` as they stand under `data_dir`, by universe
// in sorted path order; SyncError or EraError at the first file that is not
// right, and SyncError for a manifest that lists none.
Json _validate_manifest_vocabulary_files(const std::string& data_dir, const Manifest& manifest);
// The metadata of the first vocabulary, which stands for all of them.
Json _first_vocabulary_metadata(const Json& vocabularies);

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_ARTEFACTS_VOCABULARY_H_
