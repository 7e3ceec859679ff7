// The working half of a full sync pass: which files must come down (stage
// 6), bringing them and the era artefacts (stage 7), and the record's
// metadata and counts after the commit (stage 9).
#include <set>

#include "sync/artefacts/vocabulary.h"
#include "sync/engine/file_primitives.h"
#include "sync/engine/result_fields.h"
#include "sync/paths/manifest_paths.h"
#include "sync/support/integer.h"
#include "sync/support/log.h"
#include "sync/support/posix_file.h"
#include "sync/sync_manager.h"

namespace quillmarsh::sync {
namespace {

// Distinct signal groups under `prefix` among `paths`.
template <typename Paths>
std::size_t count_groups(const Paths& paths, std::string_view prefix) {
  std::set<std::string> groups;
  for (const auto& [file_path, file_info] : paths.items()) {
    if (auto key = _agent_signal_group_key(std::string_view(file_path), prefix)) groups.insert(*key);
  }
  return groups.size();
}

}  // namespace

Json SyncManager::_select_files_to_download(const Manifest& server_manifest, SyncResult& result) {
  result = SyncResult{};
  result.era_id = integer_of(server_manifest.era_id);
  result.pnl_column_count = integer_or_zero(server_manifest.pnl_column_count);
  Json files_to_download = Json::object();
  auto& selected = files_to_download.get_ref<Json::object_t&>();

  // Within one era a tracked file that still fits its entry in force is
  // taken as unchanged, whatever the server's entry says now.
  const std::shared_ptr<Manifest> local = _manifest.load();
  const Manifest* tracked = local && local->era_id == server_manifest.era_id ? local.get() : nullptr;
  const bool has_base_url = server_manifest.has_base_url();

  // A first mirror selects every file: room for all of them at once spares
  // moving the list at each growth.
  selected.reserve(server_manifest.entries().size());
  ManifestPathResolver paths(_data_dir);
  for (const ManifestEntry& entry : server_manifest.entries()) {
    // Vocabularies come through their own download, never this list.
    if (entry.vocabulary || entry.elsewhere) continue;
    // The look-up of the name is the file's stat as well, where it answers.
    const ManifestPathResolver::Resolved resolved = paths.resolve(entry.path);
    const std::string& local_path = resolved.path;
    const bool on_disk = resolved.answered ? resolved.stat.has_value() : path_exists(local_path);

    if (const ManifestEntry* in_force = tracked ? tracked->find(entry.path) : nullptr; in_force && on_disk && !entry.module) {
      if (_local_file_matches_entry(*in_force, local_path, true, resolved.stat)) continue;
      log_warning("Manifest-tracked local file failed integrity check; re-downloading: %s", {entry.path});
    }
    if (on_disk) {
      const std::string file_path(entry.path);
      const std::string expected_sha(entry.sha256);
      std::optional<std::string> local_sha;
      if (!entry.module) local_sha = _cached_local_sha(file_path, local_path, expected_sha);
      if (!local_sha) {
        local_sha = _sha256_file(local_path);
        if (!entry.module) _remember_local_sha(file_path, local_path, *local_sha);
      }
      if (*local_sha == expected_sha) continue;
    }
    Json download_info = server_manifest.info(entry);
    if (has_base_url && download_info.is_object()) download_info["_manifest_base_url"] = server_manifest.base_url;
    selected.emplace_back(entry.path, std::move(download_info));
  }

  // The whole size counts, with no allowance for partial downloads.
  std::int64_t total_needed = 0;
  for (const auto& [file_path, info] : selected) {
    if (info.is_object() && info.contains("size_bytes")) total_needed += integer_of(info["size_bytes"]);
  }
  if (total_needed > 0) {
    const std::int64_t free_bytes = free_space_bytes(_data_dir);
    if (total_needed > free_bytes) {
      throw DiskSpaceError("Insufficient disk space: need " + std::to_string(total_needed) + " bytes, have " +
                           std::to_string(free_bytes) + " bytes available");
    }
  }
  return files_to_download;
}

bool SyncManager::_download_selected_files(Json files_to_download, SyncResult& result, Manifest& server_manifest) {
  // Counted before the batch takes the entries over.
  const auto useful_signals = static_cast<std::int64_t>(count_groups(files_to_download, "useful_signals/"));
  bool manifest_vocabulary_downloaded = false;
  for (const auto& [file_path, info] : files_to_download.items()) {
    manifest_vocabulary_downloaded |= _vocabulary_named_universe_from_path(file_path).has_value();
  }
  _download_files_parallel(std::move(files_to_download), result);
  result.useful_signals_downloaded = useful_signals;
  const bool vocab_downloaded = _download_vocabulary(server_manifest);
  result.vocabulary_downloaded = vocab_downloaded || manifest_vocabulary_downloaded;
  result.shuffle_seed_downloaded = _download_shuffle_seed(server_manifest);
  return vocab_downloaded;
}

void SyncManager::_fill_result_counts(SyncResult& result, const Manifest& server_manifest,
                                      bool vocab_downloaded) {
  if (vocab_downloaded || !_vocabulary.load()) {
    _vocabulary.store(std::make_shared<const Vocabularies>(_validate_manifest_vocabulary_files(_data_dir, server_manifest)));
  }
  fill_vocabulary_metadata(result, *_vocabulary.load());
  const Json& files = server_manifest.files();
  if (!files.is_object()) return;
  std::int64_t n_features = 0;
  for (const ManifestEntry& entry : server_manifest.entries()) n_features += entry.kind == "feature";
  result.n_features = n_features;
  if (const auto n = count_groups(files, "useful_signals/")) result.n_useful_signals = static_cast<std::int64_t>(n);
  result.n_found_strategies = static_cast<std::int64_t>(count_groups(files, "found_strategies/"));
}

}  // namespace quillmarsh::sync
