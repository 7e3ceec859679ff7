// Per-universe vocabularies: where they live in a manifest and whether the
// files on disk are right for the manifest's era.
#ifndef QUILLMARSH_SYNC_ARTEFACTS_VOCABULARY_H_
#define QUILLMARSH_SYNC_ARTEFACTS_VOCABULARY_H_

#include <optional>
#include <string>
#include <string_view>

#include "sync/manifest.h"

namespace quillmarsh::sync {

// The cleaned universe name; SyncError when it is empty or not a single safe
// path segment.
std::string _validate_named_universe(const std::optional<std::string>& named_universe);
// The universe of a path of the form features/{universe}/vocabulary.json, or
// absent for any other path.
std::optional<std::string> _vocabulary_named_universe_from_path(std::string_view file_path);
// The vocabularies of `manifest` as they stand under `data_dir`, by universe;
// SyncError or EraError when a local file is not right.
Json _validate_manifest_vocabulary_files(const std::string& data_dir, const Manifest& manifest);
// The metadata of the first vocabulary, which stands for all of them.
Json _first_vocabulary_metadata(const Json& vocabularies);

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_ARTEFACTS_VOCABULARY_H_
