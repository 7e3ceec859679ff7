// Failures across the language boundary, both ways.
//
// A C++ failure reaches Python as the class of the same name: the binding's
// SyncError tree and StateError, Python's built-in ConnectionError,
// TimeoutError, OSError, FileNotFoundError, ValueError, TypeError,
// RuntimeError, ImportError, and the host's AuthError and
// LibraryUpdateRequired when its modules load. A failure raised by Python
// code that the component called becomes the C++ kind its class matches,
// so the component's handlers tell it apart, and it reaches a Python caller
// again as the very object that was raised.
#ifndef QUILLMARSH_SYNC_PYTHON_SRC_FAILURES_H_
#define QUILLMARSH_SYNC_PYTHON_SRC_FAILURES_H_

#include <pybind11/pybind11.h>

#include <exception>
#include <string>
#include <utility>

#include "python/src/python_gate.h"
#include "sync/errors.h"

namespace quillmarsh::sync::python {

// Marks a C++ failure made from a Python one, and keeps that one.
class PythonOrigin {
 public:
  PythonOrigin(PyRef original, std::string type_name)
      : original_(std::move(original)), type_name_(std::move(type_name)) {}
  virtual ~PythonOrigin() = default;
  const PyRef& original() const { return original_; }
  const char* python_type_name() const noexcept { return type_name_.c_str(); }

 private:
  PyRef original_;
  std::string type_name_;
};

// The C++ kind `Base`, raised in Python as `original`. Logs name the
// Python class.
template <typename Base>
class FromPython : public Base, public PythonOrigin {
 public:
  template <typename... BaseArgs>
  FromPython(PyRef original, std::string type_name, BaseArgs&&... base_args)
      : Base(std::forward<BaseArgs>(base_args)...), PythonOrigin(std::move(original), std::move(type_name)) {}
  const char* type_name() const noexcept override { return python_type_name(); }
};

// Python code's failure of no kind the component knows (KeyError, ...).
class PythonFailure : public Error {
 public:
  using Error::Error;
};

// Throws the Python failure `e` as its C++ kind. Needs the GIL; `e` must not
// outlive it.
[[noreturn]] void throw_cpp_failure(const py::error_already_set& e);

// The Python failure for a C++ one, its causes chained as __cause__.
// Needs the GIL.
py::object python_failure_of(const std::exception_ptr& failure);

// Loads the binding's failure classes and registers the translator that
// raises C++ failures as Python ones. Called once, at import.
void install_failure_translation();

// Runs `body` with the GIL from any thread; a Python failure in it is thrown
// as its C++ kind, and RuntimeError when the interpreter is exiting.
template <typename Body>
auto with_python(Body&& body) -> decltype(body()) {
  GilFromAnyThread gil;
  if (!gil.held()) throw RuntimeError("Python is exiting; the call into it was not made");
  try {
    return body();
  } catch (const py::error_already_set& e) {
    throw_cpp_failure(e);
  } catch (const py::cast_error& e) {
    throw TypeError(e.what());
  }
}

}  // namespace quillmarsh::sync::python

#endif  // QUILLMARSH_SYNC_PYTHON_SRC_FAILURES_H_
