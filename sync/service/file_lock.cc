// The lock that serialises writing passes across processes sharing a data
// directory: flock(2) on ".sync_flock", ordered inside the process by
// _flock_lock, because threads sharing one descriptor would not exclude
// each other through flock alone.
#include "sync/support/log.h"
#include "sync/support/posix_file.h"
#include "sync/sync_manager.h"

namespace quillmarsh::sync {

void SyncManager::_acquire_flock() {
  _flock_lock.lock();
  try {
    for (;;) {
      if (!_flock_fd) _flock_fd = open_lock_file(_flock_path);
      lock_exclusive(*_flock_fd, _flock_path);
      // A holder deletes the file before it unlocks, so a process that
      // waited on a file that has since gone would share "the" lock with a
      // newcomer that made a new one. Only a lock on the file the path
      // still names counts; otherwise wait again on the new file.
      if (names_same_file(*_flock_fd, _flock_path)) return;
      const int stale = *_flock_fd;
      _flock_fd.reset();
      try {
        close_file(stale, _flock_path);
      } catch (const std::exception& e) {
        log_debug("Failed to close flock file descriptor: %s", {e});
      }
    }
  } catch (...) {
    if (_flock_fd) {
      try {
        close_file(*_flock_fd, _flock_path);
      } catch (const std::exception& e) {
        log_debug("Failed to close flock file descriptor: %s", {e});
      }
      _flock_fd.reset();
    }
    _flock_lock.unlock();
    throw;
  }
}

void SyncManager::_release_flock() {
  std::exception_ptr unlock_failure;
  // Only the holder touches the descriptor: a stray release from another
  // thread must not pull the lock from under the thread that holds it.
  if (_flock_lock.held_by_this_thread() && _flock_fd) {
    // The file exists only while someone holds or waits for the lock. It
    // goes while the lock is still held, so that no one can lock it anew
    // between the unlock and the unlink; waiters on it see that the path
    // has moved on and start again.
    try {
      remove_file(_flock_path);
    } catch (const std::exception& e) {
      log_debug("Failed to remove flock file: %s", {e});
    }
    try {
      unlock(*_flock_fd, _flock_path);
    } catch (...) {
      unlock_failure = std::current_exception();
    }
    try {
      close_file(*_flock_fd, _flock_path);
    } catch (const std::exception& e) {
      log_debug("Failed to close flock file descriptor: %s", {e});
    }
    _flock_fd.reset();
  }
  try {
    _flock_lock.unlock();
  } catch (const RuntimeError&) {
    // Released by a thread that never took it: harmless.
  }
  if (unlock_failure) std::rethrow_exception(unlock_failure);
}

}  // namespace quillmarsh::sync
