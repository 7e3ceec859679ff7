// One shared manager per data directory, counted by its consumers: the
// first acquire starts the background threads, the last release stops them
// and drops the manager from the registry, so the next caller gets a fresh
// one.
#include <utility>

#include "sync/era/era_id.h"
#include "sync/era/era_thread.h"
#include "sync/support/log.h"
#include "sync/support/posix_file.h"
#include "sync/support/real_path.h"
#include "sync/sync_manager.h"

namespace quillmarsh::sync {

// Never destroyed: a daemon thread may outlive static destruction.
std::mutex& SyncManager::_class_lock() {
  static auto* lock = new std::mutex;
  return *lock;
}

std::unordered_map<std::string, std::weak_ptr<SyncManager>>& SyncManager::_instances() {
  static auto* instances = new std::unordered_map<std::string, std::weak_ptr<SyncManager>>;
  return *instances;
}

std::shared_ptr<SyncManager> SyncManager::get_or_create(const std::string& data_dir, const std::string& server_url,
                                                        TokenSource get_token, double poll_interval_s) {
  const std::string canonical = resolve_path(data_dir);
  std::lock_guard<std::mutex> lock(_class_lock());
  auto& instances = _instances();
  if (const auto it = instances.find(canonical); it != instances.end()) {
    if (std::shared_ptr<SyncManager> instance = it->second.lock()) {
      if (instance->_server_url != server_url) {
        throw ValueError("SyncManager for '" + canonical + "' already exists with server_url='" +
                         instance->_server_url + "', cannot reuse with server_url='" + server_url + "'");
      }
      // A callable has no stable identity to compare; the newest one wins.
      instance->_set_get_token(std::move(get_token));
      return instance;
    }
    instances.erase(it);
  }
  std::shared_ptr<SyncManager> instance = create(data_dir, server_url, std::move(get_token), poll_interval_s);
  instances[canonical] = instance;
  return instance;
}

void SyncManager::_evict(const std::string& data_dir) {
  const std::string canonical = resolve_path(data_dir);
  std::lock_guard<std::mutex> lock(_class_lock());
  _instances().erase(canonical);
}

void SyncManager::acquire() {
  std::lock_guard<std::mutex> lock(_consumer_lock);
  _consumer_count.fetch_add(1);
  _persist_consumer_count();
  // The threads decide, not the count: a count inherited from an earlier
  // process must not keep the first consumer from starting them.
  if (!_running.load() && !_consumer_lifecycle_started.load()) {
    _start_internal();
    _consumer_lifecycle_started.store(true);
  }
}

void SyncManager::release() {
  // Class lock first: a get_or_create for this directory either finds the
  // live manager or waits and builds one that cannot meet the old threads.
  std::lock_guard<std::mutex> class_lock(_class_lock());
  std::lock_guard<std::mutex> lock(_consumer_lock);
  if (_consumer_count.load() <= 0) return;
  _consumer_count.fetch_sub(1);
  _persist_consumer_count();
  if (_consumer_count.load() == 0) {
    _stop_internal();
    _consumer_lifecycle_started.store(false);
    _instances().erase(resolve_path(_data_dir));
  }
}

void SyncManager::_persist_consumer_count() {
  try {
    write_file(_consumer_count_path, std::to_string(_consumer_count.load()));
  } catch (const std::exception& e) {
    log_warning("Failed to persist consumer count: %s", {e});
  }
}

void SyncManager::_start_internal() {
  _start_sync_thread();
  std::shared_ptr<EraThread> era_thread = _era_thread.load();
  if (!era_thread) {
    const std::weak_ptr<SyncManager> weak = weak_from_this();
    // The monitor keeps the token source in force now; a later get_or_create
    // with another one reaches the poll thread, and the monitor built after
    // the next stop.
    TokenSource get_token;
    {
      std::lock_guard<std::mutex> lock(token_mu_);
      get_token = _get_token;
    }
    era_thread = std::make_shared<EraThread>(
        _server_url, std::move(get_token), shared_from_this(), _poll_interval,
        [weak] { if (auto self = weak.lock()) self->_kill_fn(); },
        [weak] { if (auto self = weak.lock()) self->_restart_fn(); });
    _era_thread.store(era_thread);
  }
  try {
    era_thread->start();
  } catch (const StateError&) {
    // Already started: the monitor that runs serves.
  }
}

namespace {

// The listeners take an integer: the manifest's era where it has one, else 0,
// so that no manifest can stop the searches from being told.
std::int64_t era_in_force(const SyncManager& manager) {
  const std::shared_ptr<Manifest> manifest = manager._manifest.load();
  return manifest ? era_integer(manifest->era_id).value_or(0) : 0;
}

}  // namespace

void SyncManager::_kill_fn() { _notify_era_callbacks("kill", era_in_force(*this)); }

void SyncManager::_restart_fn() { _notify_era_callbacks("restart", era_in_force(*this)); }

}  // namespace quillmarsh::sync
