#include "python/src/failures.h"

#include <cerrno>

#include "sync/engine/curl_session.h"

namespace quillmarsh::sync::python {
namespace {

// The binding's own classes (quillmarsh_sync._errors), loaded at import and
// never released: the component's threads may translate after exit began.
struct BindingClasses {
  py::object sync_error, disk_space_error, integrity_error, era_error, manifest_error, state_error;
  py::object auth_error, library_update_required;
  py::object host_failure_class;  // name -> the host's class, or the binding's
};
BindingClasses* g_classes = nullptr;

// A chain of causes longer than this is cut: logs need no more.
constexpr int kMaxCauseDepth = 16;

bool matches(py::handle type, py::handle cls) {
  return cls && PyErr_GivenExceptionMatches(type.ptr(), cls.ptr()) != 0;
}

// The host module's class when that module is loaded: an instance of it can
// exist only then, so nothing is imported here.
py::handle loaded_host_class(const char* module_name, const char* class_name) {
  PyObject* module = PyDict_GetItemString(PyImport_GetModuleDict(), module_name);  // borrowed
  if (!module || !PyObject_HasAttrString(module, class_name)) return {};
  py::object cls = py::reinterpret_steal<py::object>(PyObject_GetAttrString(module, class_name));
  if (!cls || !PyType_Check(cls.ptr())) {
    PyErr_Clear();
    return {};
  }
  return cls.ptr();  // the module keeps it alive
}

std::string text_of(py::handle value) {
  PyObject* text = PyObject_Str(value.ptr());
  if (!text) {
    PyErr_Clear();
    return "<unprintable " + std::string(Py_TYPE(value.ptr())->tp_name) + " object>";
  }
  py::object owned = py::reinterpret_steal<py::object>(text);
  return owned.cast<std::string>();
}

template <typename Kind>
std::exception_ptr made(const PyRef& original, const std::string& name, const std::string& message,
                        std::exception_ptr cause) {
  return std::make_exception_ptr(FromPython<Kind>(original, name, message, std::move(cause)));
}

template <typename Kind>
std::exception_ptr made_os(const PyRef& original, const std::string& name, py::handle value,
                           const std::string& message, std::exception_ptr cause) {
  int error_number = 0;
  if (py::object n = value.attr("errno"); py::isinstance<py::int_>(n)) error_number = n.cast<int>();
  return std::make_exception_ptr(FromPython<Kind>(original, name, error_number, message, std::move(cause)));
}

std::exception_ptr cpp_failure_of(py::handle value, int depth) {
  const py::handle type = reinterpret_cast<PyObject*>(Py_TYPE(value.ptr()));
  const std::string name = type.attr("__name__").cast<std::string>();
  const std::string message = text_of(value);
  std::exception_ptr cause;
  if (depth < kMaxCauseDepth) {
    if (py::object c = value.attr("__cause__"); !c.is_none()) cause = cpp_failure_of(c, depth + 1);
  }
  const PyRef original(value);
  const BindingClasses& b = *g_classes;
  if (matches(type, b.integrity_error)) return made<IntegrityError>(original, name, message, cause);
  if (matches(type, b.disk_space_error)) return made<DiskSpaceError>(original, name, message, cause);
  if (matches(type, b.era_error)) return made<EraError>(original, name, message, cause);
  if (matches(type, b.manifest_error)) return made<ManifestError>(original, name, message, cause);
  if (matches(type, b.sync_error)) return made<SyncError>(original, name, message, cause);
  if (matches(type, b.state_error)) return made<StateError>(original, name, message, cause);
  if (matches(type, b.auth_error) || matches(type, loaded_host_class("quillmarsh.auth", "AuthError"))) {
    return made<AuthError>(original, name, message, cause);
  }
  if (matches(type, b.library_update_required) ||
      matches(type, loaded_host_class("quillmarsh.deployment", "LibraryUpdateRequired"))) {
    return made<LibraryUpdateRequired>(original, name, message, cause);
  }
  // ConnectionError and TimeoutError are OSErrors in Python: they come first.
  if (matches(type, PyExc_ConnectionError)) return made<ConnectionError>(original, name, message, cause);
  if (matches(type, PyExc_TimeoutError)) return made<TimeoutError>(original, name, message, cause);
  if (matches(type, PyExc_FileNotFoundError)) return made_os<FileNotFoundError>(original, name, value, message, cause);
  if (matches(type, PyExc_OSError)) return made_os<OSError>(original, name, value, message, cause);
  if (matches(type, PyExc_ImportError)) return made<ImportError>(original, name, message, cause);
  if (matches(type, PyExc_ValueError)) return made<ValueError>(original, name, message, cause);
  if (matches(type, PyExc_TypeError)) return made<TypeError>(original, name, message, cause);
  if (matches(type, PyExc_RuntimeError)) return made<RuntimeError>(original, name, message, cause);
  return made<PythonFailure>(original, name, message, cause);
}

py::object host_class(const char* name) { return g_classes->host_failure_class(name); }

py::object builtin(PyObject* cls) { return py::reinterpret_borrow<py::object>(cls); }

py::object python_class_for(const Error& e) {
  const BindingClasses& b = *g_classes;
  if (dynamic_cast<const IntegrityError*>(&e)) return b.integrity_error;
  if (dynamic_cast<const DiskSpaceError*>(&e)) return b.disk_space_error;
  if (dynamic_cast<const EraError*>(&e)) return b.era_error;
  if (dynamic_cast<const ManifestError*>(&e)) return b.manifest_error;
  if (dynamic_cast<const SyncError*>(&e)) return b.sync_error;
  if (dynamic_cast<const StateError*>(&e)) return b.state_error;
  if (dynamic_cast<const AuthError*>(&e)) return host_class("AuthError");
  if (dynamic_cast<const LibraryUpdateRequired*>(&e)) return host_class("LibraryUpdateRequired");
  if (dynamic_cast<const ConnectionError*>(&e)) return builtin(PyExc_ConnectionError);
  if (dynamic_cast<const TimeoutError*>(&e)) return builtin(PyExc_TimeoutError);
  if (dynamic_cast<const FileNotFoundError*>(&e)) return builtin(PyExc_FileNotFoundError);
  if (dynamic_cast<const OSError*>(&e)) return builtin(PyExc_OSError);
  if (dynamic_cast<const ValueError*>(&e)) return builtin(PyExc_ValueError);
  if (dynamic_cast<const TypeError*>(&e)) return builtin(PyExc_TypeError);
  if (dynamic_cast<const ImportError*>(&e)) return builtin(PyExc_ImportError);
  if (dynamic_cast<const FuturesTimeoutError*>(&e)) {
    return py::module_::import("concurrent.futures").attr("TimeoutError");
  }
  if (dynamic_cast<const URLError*>(&e)) return py::module_::import("urllib.error").attr("URLError");
  return builtin(PyExc_RuntimeError);
}

}  // namespace

void throw_cpp_failure(const py::error_already_set& e) {
  std::rethrow_exception(cpp_failure_of(e.value(), 0));
}

py::object python_failure_of(const std::exception_ptr& failure) {
  try {
    std::rethrow_exception(failure);
  } catch (const PythonOrigin& e) {
    return py::reinterpret_borrow<py::object>(e.original().get());
  } catch (const Error& e) {
    py::object instance = python_class_for(e)(e.what());
    if (const auto* os_error = dynamic_cast<const OSError*>(&e)) instance.attr("errno") = os_error->error_number();
    if (e.cause()) {
      py::object cause = python_failure_of(e.cause());
      PyException_SetCause(instance.ptr(), cause.release().ptr());  // steals
    }
    return instance;
  } catch (const std::exception& e) {
    return builtin(PyExc_RuntimeError)(e.what());
  } catch (...) {
    return builtin(PyExc_RuntimeError)("unknown failure");
  }
}

void install_failure_translation() {
  py::module_ errors = py::module_::import("quillmarsh_sync._errors");
  g_classes = new BindingClasses{
      errors.attr("SyncError"),      errors.attr("DiskSpaceError"),        errors.attr("IntegrityError"),
      errors.attr("EraError"),       errors.attr("ManifestError"),         errors.attr("StateError"),
      errors.attr("AuthError"),      errors.attr("LibraryUpdateRequired"), errors.attr("host_failure_class"),
  };
  py::register_exception_translator([](std::exception_ptr p) {
    try {
      std::rethrow_exception(p);
    } catch (const Error&) {
      try {
        py::object failure = python_failure_of(p);
        PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(failure.ptr())), failure.ptr());
      } catch (py::error_already_set& e) {
        e.restore();
      }
    }
  });
}

}  // namespace quillmarsh::sync::python
