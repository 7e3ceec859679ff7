// Comparing the disk with a manifest. The digest cache that spares unchanged
// files a re-hash is not kept yet: every lookup misses and nothing is stored.
#include "sync/artefacts/shuffle_seed.h"
#include "sync/artefacts/vocabulary.h"
#include "sync/engine/file_primitives.h"
#include "sync/engine/platform.h"
#include "sync/paths/manifest_paths.h"
#include "sync/support/integer.h"
#include "sync/support/posix_file.h"
#include "sync/sync_manager.h"

namespace quillmarsh::sync {

std::unordered_map<std::string, Json> SyncManager::_load_hash_cache() { return {}; }

void SyncManager::_persist_hash_cache() {}

std::optional<std::string> SyncManager::_cached_local_sha(const std::string& /*file_path*/,
                                                          const std::string& /*local_path*/,
                                                          const std::string& /*expected_sha*/) {
  return std::nullopt;
}

void SyncManager::_remember_local_sha(const std::string& /*file_path*/, const std::string& /*local_path*/,
                                      const std::string& /*actual_sha*/) {}

bool SyncManager::_local_file_matches_manifest(const std::string& /*file_path*/, const std::string& local_path,
                                               const Json& file_info, bool /*cache_allowed*/) {
  if (!path_exists(local_path)) return false;
  if (file_info.is_object() && file_info.contains("size_bytes")) {
    std::int64_t expected_size;
    try {
      expected_size = integer_of(file_info["size_bytes"]);
    } catch (const TypeError&) {
      expected_size = -1;
    } catch (const ValueError&) {
      expected_size = -1;
    }
    if (expected_size >= 0) {
      try {
        if (stat_path(local_path).size != expected_size) return false;
      } catch (const OSError&) {
        return false;
      }
    }
  }
  const std::string expected_sha = entry_text(file_info, "sha256");
  if (expected_sha.empty()) return true;
  return _sha256_file(local_path) == expected_sha;
}

bool SyncManager::_local_manifest_files_complete(const Manifest& manifest) {
  try {
    _validate_shuffle_seed_file(join_path(_data_dir, "shuffle_seed.enc"), integer_of(manifest.era_id));
    _validate_manifest_vocabulary_files(_data_dir, manifest);
  } catch (const SyncError&) {  // EraError is a SyncError
    return false;
  }
  const Json& files = manifest.files();
  if (!files.is_object()) return true;
  for (const auto& [file_path, file_info] : files.items()) {
    if (!_local_entry_passes(file_path, file_info)) return false;
  }
  return true;
}

bool SyncManager::_local_entry_passes(const std::string& file_path, const Json& file_info) {
  // Vocabulary files are judged by their own validators.
  if (_vocabulary_named_universe_from_path(file_path)) return true;
  const std::string kind = entry_text(file_info, "kind");
  const std::string file_platform = entry_text(file_info, "platform");
  // A module built for another platform need not be here.
  if (is_module_kind(kind) && !file_platform.empty() && file_platform != CURRENT_PLATFORM) return true;
  const std::string local_path = _manifest_local_path(_data_dir, file_path);
  return _local_file_matches_manifest(file_path, local_path, file_info, !is_module_kind(kind));
}

}  // namespace quillmarsh::sync
