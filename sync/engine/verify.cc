// The read-only check of the local files against the manifest in force. It
// hashes afresh and leaves the digest cache alone, so that it can tell what
// the cache would miss.
#include "sync/engine/file_primitives.h"
#include "sync/engine/platform.h"
#include "sync/paths/manifest_paths.h"
#include "sync/support/posix_file.h"
#include "sync/sync_manager.h"

namespace quillmarsh::sync {
namespace {

// Whether a digest is stated at all: null, false, zero and empty values are not.
bool states_digest(const Json& sha) {
  if (sha.is_string()) return !sha.get_ref<const std::string&>().empty();
  if (sha.is_null()) return false;
  if (sha.is_boolean()) return sha.get<bool>();
  if (sha.is_number()) return sha != Json(0);
  return !sha.empty();
}

bool is_corrupted(const std::string& local_path, const Json& file_info) {
  static const Json kNoSize = 0;
  static const Json kNoSha = "";
  const auto size = file_info.find("size_bytes");
  const Json& expected_size = file_info.is_object() && size != file_info.end() ? *size : kNoSize;
  // Compared as the entry holds it: a size given as text never matches.
  if (Json(stat_path(local_path).size) != expected_size) return true;
  const auto sha = file_info.find("sha256");
  const Json& expected_sha = file_info.is_object() && sha != file_info.end() ? *sha : kNoSha;
  if (!states_digest(expected_sha)) return false;
  const std::string actual_sha = _sha256_file(local_path);
  return !(expected_sha.is_string() && expected_sha.get_ref<const std::string&>() == actual_sha);
}

}  // namespace

VerifyResult SyncManager::verify() {
  VerifyResult result;
  // The manifest as it stands now; a pass may replace it meanwhile.
  const std::shared_ptr<Manifest> manifest = _manifest.load();
  if (!manifest || !manifest->files().is_object()) return result;
  for (const auto& [file_path, file_info] : manifest->files().get_ref<const Json::object_t&>()) {
    const std::string kind = entry_text(file_info, "kind");
    const std::string file_platform = entry_text(file_info, "platform");
    // A module built for another platform is not expected here.
    if (is_module_kind(kind) && !file_platform.empty() && file_platform != CURRENT_PLATFORM) continue;
    const std::string local_path = _manifest_local_path(_data_dir, file_path);
    if (!path_exists(local_path)) {
      result.missing_files.push_back(file_path);
      result.valid = false;
      continue;
    }
    if (is_corrupted(local_path, file_info)) {
      result.corrupted_files.push_back(file_path);
      result.valid = false;
    }
  }
  return result;
}

}  // namespace quillmarsh::sync
