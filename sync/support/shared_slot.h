// A shared_ptr that several threads read and replace.
#ifndef QUILLMARSH_SYNC_SUPPORT_SHARED_SLOT_H_
#define QUILLMARSH_SYNC_SUPPORT_SHARED_SLOT_H_

#include <memory>
#include <mutex>
#include <utility>

namespace quillmarsh::sync {

// It stands in for std::atomic<std::shared_ptr<T>>, whose libstdc++ 12
// load() drops its lock with relaxed order, so a reader's access is not
// ordered before the next writer's and ThreadSanitizer rightly reports a
// race. A plain mutex is cheap at the rate these slots change.
template <typename T>
class SharedSlot {
 public:
  SharedSlot() = default;
  SharedSlot(const SharedSlot&) = delete;
  SharedSlot& operator=(const SharedSlot&) = delete;

  std::shared_ptr<T> load() const {
    std::lock_guard<std::mutex> hold(_mutex);
    return _value;
  }

  void store(std::shared_ptr<T> value) {
    // The old value is released outside the lock: its destructor may be long.
    std::shared_ptr<T> old = exchange(std::move(value));
  }

  std::shared_ptr<T> exchange(std::shared_ptr<T> value) {
    std::lock_guard<std::mutex> hold(_mutex);
    std::swap(_value, value);
    return value;
  }

 private:
  mutable std::mutex _mutex;
  std::shared_ptr<T> _value;
};

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_SUPPORT_SHARED_SLOT_H_
