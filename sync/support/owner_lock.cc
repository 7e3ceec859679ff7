#include "sync/support/owner_lock.h"

#include "sync/errors.h"

namespace quillmarsh::sync {

void OwnerLock::lock() {
  const auto me = std::this_thread::get_id();
  std::unique_lock<std::mutex> guard(mu_);
  if (depth_ > 0 && owner_ == me) {
    ++depth_;
    return;
  }
  cv_.wait(guard, [this] { return depth_ == 0; });
  owner_ = me;
  depth_ = 1;
}

void OwnerLock::unlock() {
  {
    std::lock_guard<std::mutex> guard(mu_);
    if (depth_ == 0 || owner_ != std::this_thread::get_id()) {
      throw RuntimeError("cannot release un-acquired lock");
    }
    if (--depth_ > 0) return;
    owner_ = std::thread::id();
  }
  cv_.notify_one();
}

bool OwnerLock::held_by_this_thread() const {
  std::lock_guard<std::mutex> guard(mu_);
  return depth_ > 0 && owner_ == std::this_thread::get_id();
}

}  // namespace quillmarsh::sync
