// Deleting the directories of past eras, on the caller's thread or on one
// background thread per manager.
#include <set>

#include "sync/paths/manifest_paths.h"
#include "sync/support/background_thread.h"
#include "sync/support/integer.h"
#include "sync/support/log.h"
#include "sync/support/posix_file.h"
#include "sync/sync_manager.h"

namespace quillmarsh::sync {
namespace {

// Sizes are taken before the tree goes; a failure loses what was counted.
std::int64_t remove_counted_tree(const std::string& path) {
  const std::int64_t bytes = tree_file_bytes(path);
  remove_tree(path);
  return bytes;
}

}  // namespace

std::vector<SyncManager::CleanupTarget> SyncManager::_cleanup_targets(bool keep_current) const {
  std::optional<std::int64_t> current_era_id;
  if (keep_current) {
    if (const std::shared_ptr<Manifest> manifest = _manifest.load()) {
      try {
        current_era_id = integer_of(manifest->era_id);
      } catch (const TypeError&) {
        // No usable current era: every era directory goes.
      } catch (const ValueError&) {
      }
    }
  }

  // Selection looks through a link (a linked era directory is still one);
  // deletion never does, so only the link itself goes.
  std::vector<CleanupTarget> targets;
  std::set<std::string> era_dirs;
  for (const std::string& name : list_directory(_data_dir)) {
    const std::optional<std::int64_t> era_id = _parse_era_directory_id(name);
    if (!era_id) continue;
    // "era2" and "era_02" name the same era; none of them goes.
    if (current_era_id && *era_id == *current_era_id) continue;
    const std::string path = join_path(_data_dir, name);
    if (is_directory(path)) {
      targets.push_back({path, true});
      era_dirs.insert(name);
    }
  }
  if (!keep_current) {
    for (const char* name : {"manifest.json", "shuffle_seed.enc"}) {
      const std::string path = join_path(_data_dir, name);
      if (path_exists(path)) targets.push_back({path, false});
    }
    for (const std::string& name : list_directory(_data_dir)) {
      if (name.starts_with(".") || era_dirs.contains(name)) continue;
      const std::string path = join_path(_data_dir, name);
      if (is_directory(path)) targets.push_back({path, true});
    }
  }
  return targets;
}

std::int64_t SyncManager::cleanup_old_eras(bool keep_current) {
  std::int64_t bytes_freed = 0;
  for (const CleanupTarget& target : _cleanup_targets(keep_current)) {
    if (target.tree) {
      bytes_freed += remove_counted_tree(target.path);
    } else {
      const std::int64_t size = stat_path(target.path).size;
      remove_file(target.path);
      bytes_freed += size;
    }
  }
  return bytes_freed;
}

void SyncManager::_schedule_cleanup_old_eras(bool keep_current) {
  std::lock_guard<std::mutex> lock(_cleanup_lock);
  // A running cleanup serves, with the keep_current it was started with.
  if (_cleanup_thread && _cleanup_thread->is_alive()) return;
  _cleanup_thread = std::make_shared<BackgroundThread>(
      [self = shared_from_this(), keep_current] { self->_cleanup_old_eras_background(keep_current); },
      "quillmarsh-sync-cleanup");
}

void SyncManager::_cleanup_old_eras_background(bool keep_current) {
  std::int64_t bytes_freed = 0;
  try {
    bytes_freed = cleanup_old_eras(keep_current);
  } catch (const std::exception& e) {
    log_message(LogLevel::warning, "Background old-era cleanup failed: %s", {e}, std::current_exception());
    return;
  } catch (...) {
    log_message(LogLevel::warning, "Background old-era cleanup failed: %s", {"unknown failure"},
                std::current_exception());
    return;
  }
  if (bytes_freed != 0) log_info("Old era cleanup completed: freed %s bytes", {bytes_freed});
}

}  // namespace quillmarsh::sync
