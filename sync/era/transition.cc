// Moving a data directory from one era's data set to the next: the entry,
// the library gate, the new manifest, and the exit every run ends with. The
// staging of files and the commit live beside this file.
//
// The run never touches the live data until every changed file of the new
// era sits in a staging directory inside the data directory; then renames
// put them in place. A run that fails leaves the live data as it found it,
// or moved as far as the commit got: there is no rollback, and a later run
// reuses whatever already has the new era's digest.
#include <unistd.h>

#include <exception>

#include "sync/era/era_id.h"
#include "sync/era/transition_run.h"
#include "sync/support/integer.h"
#include "sync/support/file_tree.h"
#include "sync/support/log.h"
#include "sync/support/posix_file.h"
#include "sync/support/repr.h"
#include "sync/support/text.h"

namespace quillmarsh::sync {
namespace transition {
namespace {

// Steps every run takes once the file lock is held, whatever became of it.
// A failure here replaces the run's own.
void exit_transition(SyncManager& manager, const TransitionRun& run) {
  manager._status_message.store(nullptr);
  manager._in_transition = false;
  manager._release_flock();
  if (run.transition_staging_dir && is_directory(*run.transition_staging_dir)) {
    remove_tree_ignoring_errors(*run.transition_staging_dir);
  }
  try {
    if (path_exists(run.transition_lock_path)) remove_file(run.transition_lock_path);
  } catch (const OSError& e) {
    log_debug("best-effort transition_lock cleanup failed for %s: %s", {run.transition_lock_path, e});
  }
}

// The body of a run between taking the file lock and the exit.
void run_locked_stages(SyncManager& manager, TransitionRun& run) {
  // Unguarded on purpose: searches that cannot be stopped must not see
  // their files change.
  if (run.kill_searches_fn) run.kill_searches_fn();
  pass_library_gate(manager, run);
  fetch_new_manifest(manager, run);
  stage_files(manager, run);
  if (run.superseded_era_id) return;
  stage_artefacts(manager, run);

  const std::shared_ptr<Manifest> old_manifest = manager._manifest.load();
  commit_staged_files(manager, run);
  remove_what_the_era_lacks(manager, run, old_manifest);
  manager._schedule_cleanup_old_eras(true);
  if (run.has_real_era_advance) notify_siblings(manager, run);
  reload_and_restart(manager, run);
}

// Leftover ".tmp" files of the overtaken run (and anyone else's) go before
// the next run starts; the first failure ends the sweep.
void sweep_superseded_tmp_files(const std::string& data_dir) {
  try {
    const std::vector<std::string> leftovers =
        find_entries(data_dir, [](std::string_view name) { return name.ends_with(".tmp"); });
    for (const std::string& path : leftovers) remove_file(path);
  } catch (const std::exception& e) {
    log_debug("Failed to clean superseded tmp files: %s", {e});
  }
}

std::string m1_text(const std::string& min_ver, const Json& new_era_id) {
  return "quillmarsh >= " + min_ver + " required for era " + text_of_json(new_era_id) +
         ". Build a local wheel with build_wheel() and install it with: pip install --upgrade "
         "/path/to/quillmarsh-*.whl";
}

std::string m2_text(const std::string& min_ver, const Json& new_era_id, const std::string& reason) {
  return "quillmarsh >= " + min_ver + " required for era " + text_of_json(new_era_id) +
         "; auto-update failed: " + reason +
         ". Build a local wheel with build_wheel() and install it with: pip install --upgrade "
         "/path/to/quillmarsh-*.whl";
}

}  // namespace

void pass_library_gate(SyncManager& manager, TransitionRun& run) {
  Deployment& deployment = *run.deployment;
  const std::string current_version = deployment._CURRENT_VERSION();
  std::optional<std::string> newer_version;
  try {
    newer_version = deployment.check_update(current_version);
  } catch (const ConnectionError& e) {
    log_warning("Could not check local wheel cache for library update: %s", {e});
  }

  const Json era_manifest = manager._confirm_active_era(run.new_era_id, run.allow_closing_confirmation);
  std::string min_ver = "0.0.0";
  if (era_manifest.contains("min_library_version")) min_ver = text_of_json(era_manifest["min_library_version"]);

  bool current_below_min = false;
  try {
    current_below_min = deployment._compare_versions(current_version, min_ver) < 0;
  } catch (const ValueError&) {
    // A version the era cannot state properly does not lock anyone out.
    log_warning("Invalid min_library_version from era config: %s", {min_ver});
    min_ver = current_version;
    current_below_min = false;
  }

  if (newer_version) {
    try {
      const UpdateResult update_result = deployment.auto_update(min_ver);
      if (update_result.success.value_or(true)) {
        current_below_min = false;
      } else {
        const std::string warning = update_result.warning.value_or("Could not auto-update to latest.");
        log_warning("Auto-update failed: %s", {warning});
        if (current_below_min) throw LibraryUpdateRequired(m2_text(min_ver, run.new_era_id, warning));
      }
    } catch (const LibraryUpdateRequired&) {
      throw;
    } catch (const std::exception& e) {
      log_warning("Auto-update failed: %s", {e});
      if (current_below_min) throw LibraryUpdateRequired(m2_text(min_ver, run.new_era_id, e.what()));
    }
  }
  if (current_below_min) throw LibraryUpdateRequired(m1_text(min_ver, run.new_era_id));
}

void fetch_new_manifest(SyncManager& manager, TransitionRun& run) {
  const HttpResponse response = manager._http_get(manager._server_url + "/data/manifest");
  if (response.status != 200) {
    throw SyncError("Failed to fetch era " + text_of_json(run.new_era_id) +
                    " manifest: HTTP " + std::to_string(response.status));
  }
  check_utf8(response.body);
  // Taken as the server sent it: the filters a sync pass applies would
  // change the manifest that goes on disk.
  run.new_manifest = std::make_shared<Manifest>(std::make_shared<Json>(parse_json_text(response.body)));
  try {
    run.manifest_era_id = integer_of(run.new_manifest->era_id);
  } catch (const std::exception&) {
    throw EraError("Era transition manifest has invalid era_id=" + quoted_json(run.new_manifest->era_id),
                   std::current_exception());
  }
  if (run.manifest_era_id != integer_of(run.new_era_id)) {
    throw EraError("Era transition manifest era_id=" + std::to_string(run.manifest_era_id) +
                   " does not match active era_id=" + text_of_json(run.new_era_id));
  }
  run.sync_result = SyncResult{};
  run.sync_result.era_id = run.manifest_era_id;
}

}  // namespace transition

void SyncManager::trigger_era_transition(const Json& new_era_id, std::function<void()> kill_searches_fn,
                                         std::function<void()> restart_searches_fn) {
  using transition::TransitionRun;
  TransitionRun run;
  run.new_era_id = new_era_id;
  run.kill_searches_fn = kill_searches_fn;
  run.restart_searches_fn = restart_searches_fn;
  // A host without these modules cannot move eras; nothing has changed yet.
  run.deployment = deployment_slot().require();
  run.search_tracking = search_tracking_slot().require();

  // A manifest whose era_id is null names no era: the move counts as a first
  // one. Ids of kinds that cannot be ordered fail here, before anything moved.
  if (const std::shared_ptr<Manifest> manifest = _manifest.load()) run.previous_era_id = manifest->era_id;
  run.has_real_era_advance = run.previous_era_id.is_null() || era_id_greater(new_era_id, run.previous_era_id);
  run.allow_closing_confirmation = !run.has_real_era_advance;
  run.transition_lock_path = join_path(_data_dir, ".transition_lock");

  _in_transition = true;
  try {
    write_file(run.transition_lock_path, std::to_string(::getpid()));
  } catch (const std::exception& e) {
    log_warning("Failed to write transition lock file: %s", {e});
  }
  // Outside the guarded region: a failure here leaves the flag and the lock
  // file in force, which keeps other work away until a run completes.
  _acquire_flock();
  try {
    transition::run_locked_stages(*this, run);
  } catch (...) {
    transition::exit_transition(*this, run);
    throw;
  }
  transition::exit_transition(*this, run);

  if (run.superseded_era_id) {
    transition::sweep_superseded_tmp_files(_data_dir);
    trigger_era_transition(*run.superseded_era_id, kill_searches_fn, restart_searches_fn);
  }
}

}  // namespace quillmarsh::sync
