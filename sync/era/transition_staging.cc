// Staging: every file the new era needs and the live directory lacks comes
// down into ".transition_era{N}.tmp" inside the data directory, one file at
// a time, while the live data stays as it is. The server's era is asked
// before every file, so a newer era stops the run before it wastes more.
#include <algorithm>
#include <cmath>

#include "sync/engine/file_primitives.h"
#include "sync/engine/platform.h"
#include "sync/era/transition_run.h"
#include "sync/paths/manifest_paths.h"
#include "sync/support/file_tree.h"
#include "sync/support/posix_file.h"
#include "sync/support/repr.h"
#include "sync/support/sleep.h"

namespace quillmarsh::sync::transition {
namespace {

void set_status(SyncManager& manager, std::optional<std::string> message) {
  manager._status_message.store(message ? std::make_shared<const std::string>(std::move(*message)) : nullptr);
}

// Asks the server whether a newer era took over; true (with the run marked)
// when one did.
bool superseded(SyncManager& manager, TransitionRun& run) {
  const std::optional<std::int64_t> active_superseding_era_id =
      manager._check_transition_superseded(run.new_era_id, run.allow_closing_confirmation);
  if (!active_superseding_era_id) return false;
  run.superseded_era_id = active_superseding_era_id;
  set_status(manager, "Era " + text_of_json(run.new_era_id) + " superseded by era " +
                          std::to_string(*active_superseding_era_id) + "; restarting transition.");
  return true;
}

const Json::object_t& files_of(const Manifest& manifest) {
  const Json& files = manifest.files();
  if (!files.is_object()) throw TypeError("manifest files must be an object, not " + std::string(files.type_name()));
  return files.get_ref<const Json::object_t&>();
}

// Downloads one entry into staging, retrying integrity failures for as long
// as the era stays current. False when a newer era stopped it.
bool stage_one_file(SyncManager& manager, TransitionRun& run, const std::string& file_path, const Json& file_info) {
  const auto report_retry = [&manager, &run](double wait_s) {
    const auto wait_display = std::max<std::int64_t>(1, static_cast<std::int64_t>(wait_s));
    set_status(manager, "Download interrupted, retrying in " + std::to_string(wait_display) + "s (" +
                            std::to_string(run.completed_files) + "/" + std::to_string(run.total_files) +
                            " files complete)");
  };
  const Json& base_url = run.new_manifest->base_url;
  const bool has_base_url = run.new_manifest->has_base_url();
  for (int transition_retry = 0;; ++transition_retry) {
    set_status(manager, std::nullopt);
    Json download_info = file_info;
    if (has_base_url && download_info.is_object()) download_info["_manifest_base_url"] = base_url;
    try {
      manager._download_file(file_path, download_info, run.sync_result, 3, report_retry,
                             run.transition_staging_dir);
      run.staged_file_paths.push_back(file_path);
      ++run.completed_files;
      return true;
    } catch (const IntegrityError&) {
      // Bytes that keep coming wrong hold the run here until the era moves
      // on, which the gate then reports.
      if (superseded(manager, run)) return false;
      const double wait_s = std::min(std::pow(2.0, transition_retry), 60.0);
      report_retry(wait_s);
      sync_sleep(wait_s);
    }
  }
}

}  // namespace

void stage_files(SyncManager& manager, TransitionRun& run) {
  files_of(*run.new_manifest);  // a manifest whose files are no map fails here
  // Module builds for another platform are not this machine's business.
  const std::vector<ManifestEntry>& entries = run.new_manifest->entries();
  run.total_files = static_cast<std::int64_t>(
      std::count_if(entries.begin(), entries.end(), [](const ManifestEntry& entry) { return !entry.elsewhere; }));
  run.completed_files = 0;

  run.transition_staging_dir =
      join_path(manager._data_dir, ".transition_era" + std::to_string(run.manifest_era_id) + ".tmp");
  // Left by a run that died; its contents are not trusted.
  if (path_exists(*run.transition_staging_dir)) remove_tree(*run.transition_staging_dir);
  make_dirs(*run.transition_staging_dir);
  run.staged_file_paths.clear();

  ManifestPathResolver paths(manager._data_dir);
  for (const ManifestEntry& entry : entries) {
    if (entry.elsewhere) continue;
    if (superseded(manager, run)) return;
    const std::string file_path(entry.path);
    const Json& file_info = run.new_manifest->info(entry);
    const std::string local_path = paths.local_path(file_path);
    const std::string_view new_sha = entry.sha256;
    // Hashed afresh, never from the cache: the move between eras is where
    // a stale digest would cost the most.
    if (path_exists(local_path) && _sha256_file(local_path) == new_sha) {
      ++run.completed_files;
      continue;
    }
    if (!stage_one_file(manager, run, file_path, file_info)) return;
  }
}

void stage_artefacts(SyncManager& manager, TransitionRun& run) {
  set_status(manager, std::nullopt);
  manager._download_vocabulary(*run.new_manifest, run.transition_staging_dir);
  manager._download_shuffle_seed(*run.new_manifest, run.transition_staging_dir);
}

}  // namespace quillmarsh::sync::transition
