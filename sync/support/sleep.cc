#include "sync/support/sleep.h"

#include <chrono>
#include <memory>
#include <mutex>
#include <thread>

namespace quillmarsh::sync {
namespace {

struct SleepSlot {
  std::mutex mu;
  std::shared_ptr<const SleepFunction> fn;
};
SleepSlot& slot() {
  static auto* s = new SleepSlot();  // never destroyed: detached threads may sleep late
  return *s;
}

}  // namespace

void sync_sleep(double seconds) {
  std::shared_ptr<const SleepFunction> fn;
  {
    std::lock_guard<std::mutex> lock(slot().mu);
    fn = slot().fn;
  }
  if (fn) {
    (*fn)(seconds);
  } else if (seconds > 0) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  }
}

SleepFunction replace_sleep(SleepFunction fn) {
  auto next = fn ? std::make_shared<const SleepFunction>(std::move(fn)) : nullptr;
  std::lock_guard<std::mutex> lock(slot().mu);
  auto previous = std::move(slot().fn);
  slot().fn = std::move(next);
  return previous ? *previous : SleepFunction();
}

}  // namespace quillmarsh::sync
