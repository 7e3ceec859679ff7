// A flag that threads can wait on, with a timed wait.
#ifndef QUILLMARSH_SYNC_SUPPORT_EVENT_H_
#define QUILLMARSH_SYNC_SUPPORT_EVENT_H_

#include <condition_variable>
#include <mutex>
#include <optional>

namespace quillmarsh::sync {

class Event {
 public:
  void set();
  void clear();
  bool is_set() const;
  // Waits until the flag is set or `timeout_s` passes (forever when absent).
  // Returns whether the flag is set.
  bool wait(std::optional<double> timeout_s = std::nullopt) const;

 private:
  mutable std::mutex mu_;
  mutable std::condition_variable cv_;
  bool flag_ = false;
};

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_SUPPORT_EVENT_H_
