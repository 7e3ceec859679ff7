#include "sync/support/event.h"

#include <chrono>

namespace quillmarsh::sync {

void Event::set() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    flag_ = true;
  }
  cv_.notify_all();
}

void Event::clear() {
  std::lock_guard<std::mutex> lock(mu_);
  flag_ = false;
}

bool Event::is_set() const {
  std::lock_guard<std::mutex> lock(mu_);
  return flag_;
}

bool Event::wait(std::optional<double> timeout_s) const {
  std::unique_lock<std::mutex> lock(mu_);
  if (!timeout_s) {
    cv_.wait(lock, [this] { return flag_; });
    return true;
  }
  const auto timeout = std::chrono::duration<double>(*timeout_s > 0 ? *timeout_s : 0.0);
  return cv_.wait_for(lock, timeout, [this] { return flag_; });
}

}  // namespace quillmarsh::sync
