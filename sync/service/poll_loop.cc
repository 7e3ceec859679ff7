// The background life of a manager: the poll thread, its start and stop,
// and the cheap check that decides whether a pass is due.
#include "sync/engine/file_primitives.h"
#include "sync/era/era_thread.h"
#include "sync/support/log.h"
#include "sync/support/posix_file.h"
#include "sync/support/sleep.h"
#include "sync/support/text.h"
#include "sync/sync_manager.h"

namespace quillmarsh::sync {

void SyncManager::start() {
  if (_running.load()) throw StateError("SyncManager already running");
  _start_sync_thread();
}

void SyncManager::_start_sync_thread() {
  _stop_event.clear();
  _running.store(true);
  // The thread holds the manager, so the manager outlives it.
  _sync_thread.store(std::make_shared<BackgroundThread>([self = shared_from_this()] { self->_poll_loop(); }));
}

void SyncManager::stop() {
  if (_running.load()) _stop_internal();
}

void SyncManager::_stop_internal() {
  _stop_event.set();
  // Dropped whatever its stop does: the next start builds a new monitor.
  if (const std::shared_ptr<EraThread> era_thread = _era_thread.exchange(nullptr)) {
    try {
      era_thread->stop();
    } catch (const std::exception& e) {
      log_warning("Failed to stop era thread: %s", {e});
    }
  }
  // A transition finishes its work first, within bounds.
  for (int round = 0; round < 100 && _in_transition.load(); ++round) sync_sleep(0.1);
  // Wait, without bound, for a pass in progress.
  { std::lock_guard<std::mutex> wait_for_pass(_sync_lock); }
  if (const auto thread = _sync_thread.load()) thread->join_for(30.0);
  _running.store(false);
  _consumer_lifecycle_started.store(false);
  _sync_thread.store(nullptr);
  _flock_lock.lock();
  if (_flock_fd) {
    try {
      close_file(*_flock_fd, _flock_path);
    } catch (const std::exception& e) {
      log_debug("Failed to close file descriptor: %s", {e});
    }
    _flock_fd.reset();
  }
  _flock_lock.unlock();
  try {
    for (const std::string& path : find_entries(_data_dir, [](std::string_view name) { return name.ends_with(".tmp"); })) {
      remove_file(path);
    }
  } catch (const std::exception& e) {
    log_debug("Failed to clean up tmp files: %s", {e});
  }
}

void SyncManager::_poll_loop() {
  while (!_stop_event.is_set()) {
    if (!_in_transition.load()) {
      try {
        _poll_once();
      } catch (const std::exception& e) {
        log_warning("Poll loop iteration failed: %s", {e});
      }
    }
    _stop_event.wait(_poll_interval);
  }
}

void SyncManager::_poll_once() {
  if (_in_transition.load()) return;
  std::vector<std::string> files_to_repair;
  {
    std::lock_guard<std::mutex> lock(_repair_lock);
    files_to_repair.swap(_repair_queue);
  }
  if (!files_to_repair.empty()) repair(files_to_repair);

  // A cycle never waits behind a pass already running.
  std::unique_lock<std::mutex> pass(_sync_lock, std::try_to_lock);
  if (!pass.owns_lock()) return;
  try {
    // The transition flag is a hint, so it is read again after each wait.
    if (_in_transition.load() || !needs_sync() || _in_transition.load()) return;
    _sync_impl_under_flock();
  } catch (const std::exception& e) {
    log_warning("Poll once failed: %s", {e});
  }
}

bool SyncManager::needs_sync() {
  HttpResponse response;
  try {
    response = _http_get(_server_url + "/data/manifest/version");
  } catch (...) {
    return true;
  }
  const std::shared_ptr<Manifest> manifest = _manifest.load();
  if (!manifest || response.status != 200) return true;
  // A bad answer from the server is a failure, not a reason to sync.
  check_utf8(response.body);
  const Json data = parse_json_text(response.body);
  if (!data.is_object()) throw TypeError("version document is not a JSON object");
  const auto version = data.find("version");
  if ((version == data.end() ? Json(0) : *version) != manifest->version) return true;
  for (const char* key : {"manifest_sha256", "manifest_sha", "sha256"}) {
    const auto digest = data.find(key);
    if (digest == data.end() || !is_given(*digest)) continue;
    try {
      // A digest that is not text can only differ.
      const std::string local_sha = _sha256_file(join_path(_data_dir, "manifest.json"));
      if (!digest->is_string() || local_sha != digest->get_ref<const std::string&>()) return true;
    } catch (const OSError&) {
      return true;
    }
    break;
  }
  return !_local_manifest_files_complete(*manifest);
}

}  // namespace quillmarsh::sync
