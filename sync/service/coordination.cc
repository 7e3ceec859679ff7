// How other components of this process and other processes ask for a sync,
// and how listeners learn of era events.
#include <algorithm>

#include "sync/paths/manifest_paths.h"
#include "sync/support/log.h"
#include "sync/support/posix_file.h"
#include "sync/sync_manager.h"

namespace quillmarsh::sync {

void SyncManager::register_era_callback(EraCallback callback) {
  std::lock_guard<std::mutex> lock(_era_callbacks_lock);
  _era_callbacks.push_back(std::move(callback));
}

void SyncManager::unregister_era_callback(const EraCallback& callback) {
  std::lock_guard<std::mutex> lock(_era_callbacks_lock);
  const auto it = std::find(_era_callbacks.begin(), _era_callbacks.end(), callback);
  if (it != _era_callbacks.end()) _era_callbacks.erase(it);
}

void SyncManager::_notify_era_callbacks(const std::string& event_type, std::int64_t era_id) {
  std::vector<EraCallback> callbacks;
  {
    std::lock_guard<std::mutex> lock(_era_callbacks_lock);
    callbacks = _era_callbacks;
  }
  // No lock is held here, so a callback may call back into the manager.
  for (const EraCallback& callback : callbacks) {
    try {
      if (callback && *callback) (*callback)(event_type, era_id);
    } catch (const std::exception& e) {
      log_message(LogLevel::warning, "Era callback failed (%s): %s", {event_type, e}, std::current_exception());
    }
  }
}

std::vector<std::string> SyncManager::request_for_sync() {
  if (_in_transition.load() || path_exists(join_path(_data_dir, ".transition_lock"))) {
    throw StateError("Sync is in era transition mode \u2014 request_for_sync rejected");
  }
  if (!_running.load()) throw StateError("Sync thread is not running. Call start() or acquire() first.");
  std::shared_ptr<Event> evt;
  {
    std::lock_guard<std::mutex> lock(_coalescing_lock);
    evt = _coalescing_event;
  }
  if (evt) {
    // A pass is under way: share its outcome rather than run another.
    evt->wait(30.0);
    return _get_found_file_paths();
  }
  {
    std::lock_guard<std::mutex> lock(_coalescing_lock);
    _coalescing_event = std::make_shared<Event>();
  }
  auto finish = [this] {
    std::lock_guard<std::mutex> lock(_coalescing_lock);
    if (!_coalescing_event) throw RuntimeError("request_for_sync pass ended after a concurrent one had released its waiters");
    _coalescing_event->set();
    _coalescing_event.reset();
  };
  try {
    std::lock_guard<std::mutex> pass(_sync_lock);
    _sync_impl_under_flock();
  } catch (...) {
    try {
      finish();
    } catch (...) {
    }
    throw;
  }
  finish();
  return _get_found_file_paths();
}

std::vector<std::string> SyncManager::_get_found_file_paths() {
  std::vector<std::string> paths;
  const std::shared_ptr<Manifest> manifest = _manifest.load();
  if (!manifest) return paths;
  ManifestPathResolver resolver(_data_dir);
  for (const ManifestEntry& entry : manifest->entries()) {
    if (entry.kind != "found_signal_is_pnl" && entry.kind != "found_strategy_is_pnl") continue;
    const std::string local_path = resolver.local_path(entry.path);
    if (path_exists(local_path)) paths.push_back(local_path);
  }
  std::vector<std::pair<std::int64_t, std::string>> dated;
  dated.reserve(paths.size());
  for (std::string& path : paths) dated.emplace_back(mtime_ns(path), std::move(path));
  // Newest first; equal times keep manifest order.
  std::stable_sort(dated.begin(), dated.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
  paths.clear();
  for (auto& [time, path] : dated) paths.push_back(std::move(path));
  return paths;
}

}  // namespace quillmarsh::sync
