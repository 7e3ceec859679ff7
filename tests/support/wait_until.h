// Waiting for something another thread or process does, with a bound, so a
// test that goes wrong fails instead of hanging.
#ifndef QUILLMARSH_SYNC_TESTS_SUPPORT_WAIT_UNTIL_H_
#define QUILLMARSH_SYNC_TESTS_SUPPORT_WAIT_UNTIL_H_

#include <chrono>
#include <functional>
#include <thread>

namespace quillmarsh::sync::testing {

// Polls `done` until it holds or ten seconds pass; says whether it held.
inline bool wait_until(const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace quillmarsh::sync::testing

#endif  // QUILLMARSH_SYNC_TESTS_SUPPORT_WAIT_UNTIL_H_
