// Re-downloading files found bad between passes: directly through repair,
// or reported by a consumer and repaired on a background thread.
#include "sync/engine/download_progress.h"
#include "sync/support/background_thread.h"
#include "sync/support/integer.h"
#include "sync/support/log.h"
#include "sync/sync_manager.h"

namespace quillmarsh::sync {

SyncResult SyncManager::repair(const std::vector<std::string>& corrupted_files) {
  _acquire_flock();
  SyncResult result;
  try {
    const std::shared_ptr<Manifest> manifest = _manifest.load();
    if (manifest) result.era_id = integer_of(manifest->era_id);
    if (!corrupted_files.empty()) {
      if (!manifest) throw StateError("Cannot repair without a manifest: " + corrupted_files.front());
      // Paths the manifest does not list are passed over.
      Json found = Json::object();
      auto& found_entries = found.get_ref<Json::object_t&>();
      for (const std::string& file_path : corrupted_files) {
        if (const ManifestEntry* entry = manifest->find(file_path)) found_entries.emplace_back(file_path, manifest->info(*entry));
      }
      ProgressTally progress(_progress_observer.load(), found, result, _bytes_arrived);
      // One file after another; the first failure ends the batch.
      for (const auto& [file_path, file_info] : found_entries) {
        _download_file(file_path, file_info, result);
        progress.file_done();
      }
    }
    _persist_hash_cache();
  } catch (...) {
    try {
      _release_flock();
    } catch (...) {
      // The failure that ended the repair is the one to report.
    }
    throw;
  }
  _release_flock();
  return result;
}

void SyncManager::report_corruption(const std::string& file_path) {
  if (!_running.load()) throw StateError("Sync thread is not running. Call start() or acquire() first.");
  if (const std::shared_ptr<Manifest> manifest = _manifest.load()) {
    if (!manifest->find(file_path)) throw ValueError("File not in manifest: " + file_path);
  }
  {
    std::lock_guard<std::mutex> lock(_repair_lock);
    _repair_queue.push_back(file_path);
  }
  // Every report starts its own thread; it holds the manager while it runs
  // and is let go at once, so it never holds up the process.
  BackgroundThread repair_thread([self = shared_from_this()] { self->_process_repair_queue(); });
}

void SyncManager::_process_repair_queue() {
  std::vector<std::string> files;
  {
    std::lock_guard<std::mutex> lock(_repair_lock);
    files.swap(_repair_queue);
  }
  // An earlier thread or the poll loop may have taken the work already.
  if (files.empty()) return;
  try {
    repair(files);
  } catch (const std::exception& e) {
    log_warning("Background repair failed: %s", {e});
  }
}

}  // namespace quillmarsh::sync
