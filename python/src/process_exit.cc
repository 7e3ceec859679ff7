#include "python/src/process_exit.h"

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <vector>

namespace quillmarsh::sync::python {
namespace {

// Never destroyed: read by the exit handler, after static destruction may
// have begun.
struct Managers {
  std::mutex mu;
  std::vector<std::weak_ptr<SyncManager>> made;
};
Managers& managers() {
  static auto* m = new Managers;
  return *m;
}

bool any_manager_left() {
  Managers& m = managers();
  std::lock_guard<std::mutex> lock(m.mu);
  return std::any_of(m.made.begin(), m.made.end(), [](const auto& weak) { return !weak.expired(); });
}

// Runs before the handlers registered earlier: OpenSSL's cleanup and the
// C++ static destructors of the libraries loaded before this module.
void end_without_teardown(int status, void*) {
  if (!any_manager_left()) return;
  std::fflush(nullptr);
  _exit(status);
}

}  // namespace

void install_process_exit_handler() { on_exit(end_without_teardown, nullptr); }

void note_manager(const std::shared_ptr<SyncManager>& manager) {
  Managers& m = managers();
  std::lock_guard<std::mutex> lock(m.mu);
  std::erase_if(m.made, [](const auto& weak) { return weak.expired(); });
  m.made.push_back(manager);
}

}  // namespace quillmarsh::sync::python
