// A daemon-style thread: it reports its own end, so that it can be joined
// with a bound, and it is let go rather than waited for when its owner goes.
#ifndef QUILLMARSH_SYNC_SUPPORT_BACKGROUND_THREAD_H_
#define QUILLMARSH_SYNC_SUPPORT_BACKGROUND_THREAD_H_

#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "sync/support/event.h"

namespace quillmarsh::sync {

class BackgroundThread {
 public:
  // Starts `body` on a new thread, named `name` when one is given.
  BackgroundThread(std::function<void()> body, const std::string& name = "");
  // Detaches a thread that has not been joined: it never holds up its owner.
  ~BackgroundThread();
  BackgroundThread(const BackgroundThread&) = delete;
  BackgroundThread& operator=(const BackgroundThread&) = delete;

  bool is_alive() const { return !finished_->is_set(); }
  // Waits up to `timeout_s` for the body to end; joins and returns true if
  // it did. A call from the thread itself returns false at once.
  bool join_for(double timeout_s);

 private:
  std::shared_ptr<Event> finished_ = std::make_shared<Event>();
  std::thread thread_;
};

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_SUPPORT_BACKGROUND_THREAD_H_
