#include "sync/support/background_thread.h"

#include <pthread.h>

namespace quillmarsh::sync {

BackgroundThread::BackgroundThread(std::function<void()> body, const std::string& name) {
  thread_ = std::thread([finished = finished_, body = std::move(body), name] {
    if (!name.empty()) pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
    try {
      body();
    } catch (...) {
      // Bodies log their own failures; none may take the process down.
    }
    finished->set();
  });
}

BackgroundThread::~BackgroundThread() {
  if (thread_.joinable()) thread_.detach();
}

bool BackgroundThread::join_for(double timeout_s) {
  if (!thread_.joinable() || thread_.get_id() == std::this_thread::get_id()) return false;
  if (!finished_->wait(timeout_s)) return false;
  thread_.join();
  return true;
}

}  // namespace quillmarsh::sync
