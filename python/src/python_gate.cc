#include "python/src/python_gate.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace quillmarsh::sync::python {
namespace {

// Never destroyed: the component's threads may use it after static
// destruction has begun.
struct Gate {
  std::mutex mu;
  std::condition_variable left;
  bool open = true;
  int inside = 0;  // threads that took the GIL through the gate
  std::thread::id exiting_thread;
};
Gate& gate() {
  static auto* g = new Gate;
  return *g;
}

// Long enough for a token source or a log handler to finish; short enough
// that an exit is never held up for long by one that hangs.
constexpr auto kExitWait = std::chrono::seconds(3);

}  // namespace

GilFromAnyThread::GilFromAnyThread() {
  Gate& g = gate();
  {
    std::lock_guard<std::mutex> lock(g.mu);
    if (!g.open) return;
    // Tested under the gate: once the interpreter is gone this call would
    // claim the GIL is held.
    already_held_ = PyGILState_Check() != 0;
    if (already_held_) return;
    ++g.inside;
    entered_ = true;
  }
  state_ = PyGILState_Ensure();
}

GilFromAnyThread::~GilFromAnyThread() {
  if (!entered_) return;
  PyGILState_Release(state_);
  Gate& g = gate();
  std::lock_guard<std::mutex> lock(g.mu);
  --g.inside;
  g.left.notify_all();
}

ReleasedGil::ReleasedGil() : state_(PyEval_SaveThread()) {}

ReleasedGil::~ReleasedGil() {
  bool park = false;
  {
    Gate& g = gate();
    std::lock_guard<std::mutex> lock(g.mu);
    park = !g.open && std::this_thread::get_id() != g.exiting_thread;
  }
  // The process is about to end; this thread must not run Python again.
  while (park) std::this_thread::sleep_for(std::chrono::hours(1));
  PyEval_RestoreThread(state_);
}

PyRef::PyRef(py::handle object)
    : owner_(object ? std::make_shared<Owner>(object.inc_ref().ptr()) : nullptr) {}

PyRef::Owner::~Owner() {
  GilFromAnyThread gil;
  // Without the GIL, or after the exit began, the reference is leaked on
  // purpose: the interpreter frees everything at the end anyway.
  if (gil.held()) Py_DECREF(object);
}

void close_python_gate() {
  Gate& g = gate();
  {
    std::lock_guard<std::mutex> lock(g.mu);
    g.open = false;
    g.exiting_thread = std::this_thread::get_id();
  }
  PyThreadState* state = PyEval_SaveThread();
  {
    std::unique_lock<std::mutex> lock(g.mu);
    g.left.wait_for(lock, kExitWait, [&] { return g.inside == 0; });
  }
  PyEval_RestoreThread(state);
}

}  // namespace quillmarsh::sync::python
