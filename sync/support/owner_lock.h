// A reentrant lock that knows its owner, so that a release by a thread that
// does not hold it is refused (RuntimeError) instead of corrupting the lock,
// as a std::recursive_mutex would.
#ifndef QUILLMARSH_SYNC_SUPPORT_OWNER_LOCK_H_
#define QUILLMARSH_SYNC_SUPPORT_OWNER_LOCK_H_

#include <condition_variable>
#include <mutex>
#include <thread>

namespace quillmarsh::sync {

class OwnerLock {
 public:
  // Blocks until this thread holds the lock; a holder may take it again.
  void lock();
  // Gives back one level; RuntimeError when this thread does not hold it.
  void unlock();
  bool held_by_this_thread() const;

 private:
  mutable std::mutex mu_;
  std::condition_variable cv_;
  std::thread::id owner_;
  int depth_ = 0;
};

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_SUPPORT_OWNER_LOCK_H_
