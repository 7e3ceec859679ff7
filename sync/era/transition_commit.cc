// The commit: staged files are renamed into the live directory, the new
// manifest replaces the old on disk and in memory, what the new era does not
// hold goes, the host's modules hear of the change, and searches come back.
//
// The era is confirmed again just before the first rename (the last moment
// the live data is whole), just after the manifest swap, and before the
// searches restart.
#include <string_view>
#include <unordered_set>

#include "sync/artefacts/vocabulary.h"
#include "sync/collaborators/auth.h"
#include "sync/collaborators/identity.h"
#include "sync/engine/file_primitives.h"
#include "sync/era/era_id.h"
#include "sync/era/transition_run.h"
#include "sync/paths/manifest_paths.h"
#include "sync/support/file_tree.h"
#include "sync/support/log.h"
#include "sync/support/posix_file.h"
#include "sync/support/stop_point.h"

namespace quillmarsh::sync::transition {
namespace {

// The folders whose files belong to the era's data set alone: a file there
// that the new era does not list is a stray.
constexpr std::string_view kSweptFolders[] = {"features/",      "named_universes/",  "universe_masks/",
                                              "found_signals/", "found_strategies/", "useful_signals/"};

void confirm(SyncManager& manager, const TransitionRun& run) {
  manager._confirm_active_era(run.new_era_id, run.allow_closing_confirmation);
}

void delete_strays(SyncManager& manager, const TransitionRun& run) {
  std::unordered_set<std::string> new_manifest_paths{"manifest.json", "shuffle_seed.enc"};
  for (const auto& [file_path, file_info] : run.new_manifest->files().items()) new_manifest_paths.insert(file_path);

  const auto visible = [](std::string_view name) { return !name.starts_with("."); };
  for (const std::string& rel_path : walk_files(manager._data_dir, visible)) {
    if (rel_path.starts_with(".") || new_manifest_paths.contains(rel_path)) continue;
    for (const std::string_view folder : kSweptFolders) {
      if (rel_path.starts_with(folder)) {
        remove_file(join_path(manager._data_dir, rel_path));
        break;
      }
    }
  }
}

std::shared_ptr<SearchTracker> open_tracker(SyncManager& manager, const TransitionRun& run) {
  try {
    const std::shared_ptr<IdentityModule> identity = identity_slot().require();
    std::shared_ptr<Identity> tracker_identity;
    try {
      tracker_identity = identity->resolve_identity_for_data_dir(manager._data_dir);
    } catch (const std::exception&) {
      tracker_identity = nullptr;
    }
    return run.search_tracking->open_tracker(manager._data_dir, tracker_identity);
  } catch (const std::exception&) {
    // Without an identity the tracker still works; only a second failure
    // stops the run.
    return run.search_tracking->open_tracker(manager._data_dir, std::nullopt);
  }
}

}  // namespace

void commit_staged_files(SyncManager& manager, TransitionRun& run) {
  confirm(manager, run);
  for (const std::string& staged_file_path : run.staged_file_paths) {
    const std::string staged_path = _manifest_local_path(*run.transition_staging_dir, staged_file_path);
    const std::string live_path = _manifest_local_path(manager._data_dir, staged_file_path);
    const std::string live_parent = dir_name(live_path);
    if (!live_parent.empty()) make_dirs(live_parent);
    rename_file(staged_path, live_path);
    stop_point("transition: a staged file renamed");
  }
  for (const char* artifact_name : {"shuffle_seed.enc", "shuffle_seed.enc.meta.json"}) {
    const std::string staged_artifact = join_path(*run.transition_staging_dir, artifact_name);
    if (path_exists(staged_artifact)) rename_file(staged_artifact, join_path(manager._data_dir, artifact_name));
  }
  // The server's manifest whole, with any entry the vocabulary download
  // repaired in staging.
  stop_point("transition: before manifest.json");
  _atomic_write(join_path(manager._data_dir, "manifest.json"), json_text(*run.new_manifest->_data()));
  stop_point("transition: after manifest.json");
  manager._manifest.store(run.new_manifest);
  // After the swap on purpose: if the era moved meanwhile, the new data
  // stays but nothing is deleted or restarted on its account.
  confirm(manager, run);
}

void remove_what_the_era_lacks(SyncManager& manager, TransitionRun& run,
                               const std::shared_ptr<Manifest>& old_manifest) {
  if (old_manifest && old_manifest->files().is_object()) {
    for (const auto& [old_file, file_info] : old_manifest->files().get_ref<const Json::object_t&>()) {
      if (run.new_manifest->find(old_file)) continue;
      const std::string local_path = _manifest_local_path(manager._data_dir, old_file);
      if (path_exists(local_path)) remove_file(local_path);
    }
  }
  delete_strays(manager, run);
}

void notify_siblings(SyncManager& manager, TransitionRun& run) {
  try {
    auth_slot().require()->notify_era_change(run.manifest_era_id);
  } catch (const std::exception& e) {
    log_warning("Failed to notify auth about era change: %s", {e});
  }
  const std::shared_ptr<SearchTracker> tracker = open_tracker(manager, run);
  try {
    tracker->handle_era_transition(run.manifest_era_id, era_integer(run.previous_era_id));
  } catch (...) {
    tracker->close();
    throw;
  }
  tracker->close();
}

void reload_and_restart(SyncManager& manager, TransitionRun& run) {
  manager._vocabulary.store(std::make_shared<const SyncManager::Vocabularies>(
      _validate_manifest_vocabulary_files(manager._data_dir, *run.new_manifest)));
  if (run.restart_searches_fn) {
    confirm(manager, run);
    run.restart_searches_fn();
  }
}

}  // namespace quillmarsh::sync::transition
