// The read-only check of the local files against the manifest in force. It
// hashes afresh and leaves the digest cache alone, so that it can tell what
// the cache would miss.
#include "sync/engine/file_primitives.h"
#include "sync/paths/manifest_paths.h"
#include "sync/support/posix_file.h"
#include "sync/sync_manager.h"

namespace quillmarsh::sync {
namespace {

bool is_corrupted(const std::string& local_path, const Manifest& manifest, const ManifestEntry& entry) {
  static const Json kNoSize = 0;
  const Json& file_info = manifest.info(entry);
  const auto size = file_info.is_object() ? file_info.find("size_bytes") : file_info.end();
  const Json& expected_size = size != file_info.end() ? *size : kNoSize;
  // Compared as the entry holds it: a size given as text never matches.
  if (Json(stat_path(local_path).size) != expected_size) return true;
  if (!entry.sha256_given) return false;
  // A given digest of another kind than text matches nothing.
  return entry.sha256.empty() || _sha256_file(local_path) != entry.sha256;
}

}  // namespace

VerifyResult SyncManager::verify() {
  VerifyResult result;
  // The manifest as it stands now; a pass may replace it meanwhile.
  const std::shared_ptr<Manifest> manifest = _manifest.load();
  if (!manifest) return result;
  ManifestPathResolver paths(_data_dir);
  for (const ManifestEntry& entry : manifest->entries()) {
    // A module built for another platform is not expected here.
    if (entry.elsewhere) continue;
    const std::string local_path = paths.local_path(entry.path);
    if (!path_exists(local_path)) {
      result.missing_files.emplace_back(entry.path);
      result.valid = false;
      continue;
    }
    if (is_corrupted(local_path, *manifest, entry)) {
      result.corrupted_files.emplace_back(entry.path);
      result.valid = false;
    }
  }
  return result;
}

}  // namespace quillmarsh::sync
