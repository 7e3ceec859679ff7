// What one run of SyncManager::trigger_era_transition knows, and its stages
// in the order the run takes them. The run lives on the caller's thread; the
// stages share this struct and nothing else.
#ifndef QUILLMARSH_SYNC_ERA_TRANSITION_RUN_H_
#define QUILLMARSH_SYNC_ERA_TRANSITION_RUN_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sync/collaborators/deployment.h"
#include "sync/collaborators/search_tracking.h"
#include "sync/manifest.h"
#include "sync/records.h"
#include "sync/sync_manager.h"

namespace quillmarsh::sync::transition {

struct TransitionRun {
  // As the caller gave it; the gates and the manifest check take its integer.
  Json new_era_id;
  // Set when a newer era overtook new_era_id; the run then starts again.
  std::optional<std::int64_t> superseded_era_id;
  // The era of the manifest in force, as it holds it; null when none.
  Json previous_era_id;
  // A move to a higher era (or a first one) demands "active" at every gate;
  // a run for the era on disk, or an older one, also accepts "closing".
  bool has_real_era_advance = true;
  bool allow_closing_confirmation = false;
  std::string transition_lock_path;
  std::optional<std::string> transition_staging_dir;

  std::function<void()> kill_searches_fn;
  std::function<void()> restart_searches_fn;
  std::shared_ptr<Deployment> deployment;
  std::shared_ptr<SearchTracking> search_tracking;

  std::shared_ptr<Manifest> new_manifest;
  // Equal to the integer of new_era_id once the new manifest is checked.
  std::int64_t manifest_era_id = 0;
  // Scratch record for _download_file; never returned.
  SyncResult sync_result;
  // Entries really downloaded into staging, in manifest order.
  std::vector<std::string> staged_file_paths;
  std::int64_t total_files = 0;
  std::int64_t completed_files = 0;
};

// Library gate: below the era's minimum version and not updatable ends the
// run with LibraryUpdateRequired. Holds the first confirmation.
void pass_library_gate(SyncManager& manager, TransitionRun& run);
// Fetches the new era's manifest as the server has it and checks its era.
void fetch_new_manifest(SyncManager& manager, TransitionRun& run);
// Brings every changed file into the staging directory, one at a time,
// checking before each one that no newer era has taken over.
void stage_files(SyncManager& manager, TransitionRun& run);
// Vocabularies and shuffle seed of the new era, into staging.
void stage_artefacts(SyncManager& manager, TransitionRun& run);
// Moves the staged files into the live directory and swaps the manifest.
void commit_staged_files(SyncManager& manager, TransitionRun& run);
// Deletes what the new era does not hold, and strays in its data folders.
void remove_what_the_era_lacks(SyncManager& manager, TransitionRun& run,
                               const std::shared_ptr<Manifest>& old_manifest);
// Tells the host's auth and search tracking about a real era advance.
void notify_siblings(SyncManager& manager, TransitionRun& run);
// Loads the new vocabularies and gives the searches back.
void reload_and_restart(SyncManager& manager, TransitionRun& run);

}  // namespace quillmarsh::sync::transition

#endif  // QUILLMARSH_SYNC_ERA_TRANSITION_RUN_H_
