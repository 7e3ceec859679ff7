// When C++ threads may enter Python, and how Python objects held by C++
// are kept alive and let go.
//
// The component's threads call Python (the token source, era callbacks,
// collaborators, the log) at any time, and they outlive the interpreter:
// they are daemon threads. Once the interpreter starts to exit, a thread
// that takes the GIL is killed by the interpreter (pthread_exit through C++
// frames), so every entry goes through one gate that closes at exit.
#ifndef QUILLMARSH_SYNC_PYTHON_SRC_PYTHON_GATE_H_
#define QUILLMARSH_SYNC_PYTHON_SRC_PYTHON_GATE_H_

#include <pybind11/pybind11.h>

#include <memory>

namespace quillmarsh::sync::python {

namespace py = pybind11;

// Holds the GIL for its scope on any thread, unless the interpreter is
// exiting; held() says which. A thread that holds the GIL already keeps it.
class GilFromAnyThread {
 public:
  GilFromAnyThread();
  ~GilFromAnyThread();
  GilFromAnyThread(const GilFromAnyThread&) = delete;
  GilFromAnyThread& operator=(const GilFromAnyThread&) = delete;

  bool held() const { return already_held_ || entered_; }

 private:
  bool already_held_ = false;
  bool entered_ = false;
  PyGILState_STATE state_{};
};

// Gives up the GIL for a call into the component. If the interpreter began
// to exit meanwhile, a thread other than the exiting one never takes the GIL
// back: it parks, as a daemon thread does, instead of being killed.
class ReleasedGil {
 public:
  ReleasedGil();
  ~ReleasedGil();
  ReleasedGil(const ReleasedGil&) = delete;
  ReleasedGil& operator=(const ReleasedGil&) = delete;

 private:
  PyThreadState* state_;
};

// One strong reference to a Python object that any thread may copy and drop
// without the GIL. The last owner lets the object go with the GIL, or leaks
// it when the interpreter is exiting.
class PyRef {
 public:
  PyRef() = default;
  // Needs the GIL.
  explicit PyRef(py::handle object);

  // Borrowed; needs the GIL.
  py::handle get() const { return owner_ ? py::handle(owner_->object) : py::handle(); }
  explicit operator bool() const { return owner_ != nullptr; }

 private:
  struct Owner {
    explicit Owner(PyObject* o) : object(o) {}
    ~Owner();
    Owner(const Owner&) = delete;
    Owner& operator=(const Owner&) = delete;
    PyObject* object;
  };
  std::shared_ptr<Owner> owner_;
};

// Runs at interpreter exit (atexit), with the GIL: closes the gate, then
// waits a bounded time, GIL released, for threads already inside Python.
void close_python_gate();

}  // namespace quillmarsh::sync::python

#endif  // QUILLMARSH_SYNC_PYTHON_SRC_PYTHON_GATE_H_
