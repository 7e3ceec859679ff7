#include "python/src/log_sink.h"

#include <pybind11/pybind11.h>

#include "python/src/python_gate.h"
#include "sync/support/log.h"

namespace quillmarsh::sync::python {
namespace {

namespace py = pybind11;

// Never released: records come from threads that outlive the interpreter.
struct Logger {
  py::object logger;
  py::object is_enabled_for, make_record, handle;
  py::object name, unknown_file, no_args;
};
Logger* g_logger = nullptr;

// Log text carries paths, which need not be UTF-8.
py::object text(const std::string& s) {
  PyObject* o = PyUnicode_DecodeUTF8(s.data(), static_cast<Py_ssize_t>(s.size()), "backslashreplace");
  if (!o) throw py::error_already_set();
  return py::reinterpret_steal<py::object>(o);
}

void emit(const LogRecord& record) {
  GilFromAnyThread gil;
  if (!gil.held()) return;
  const Logger& l = *g_logger;
  try {
    const py::int_ level(static_cast<int>(record.level));
    // The cheap way out comes first: nothing is built for a level nobody hears.
    if (!l.is_enabled_for(level).cast<bool>()) return;
    // The record is made and handled as Logger._log does, with args empty
    // so that the text is never %-formatted again.
    py::object rec = l.make_record(l.name, level, l.unknown_file, 0, text(record.message), l.no_args, py::none());
    if (!record.failure.empty()) rec.attr("exc_text") = text(record.failure);
    l.handle(rec);
  } catch (py::error_already_set& e) {
    // A failing handler must not turn into a failure of the component.
    e.discard_as_unraisable("quillmarsh.sync log record");
  }
}

}  // namespace

void install_python_log_sink() {
  py::object logger = py::module_::import("logging").attr("getLogger")(kLoggerName);
  g_logger = new Logger{logger,
                        logger.attr("isEnabledFor"),
                        logger.attr("makeRecord"),
                        logger.attr("handle"),
                        py::str(kLoggerName),
                        py::str("(unknown file)"),
                        py::tuple()};
  set_log_sink(emit);
}

}  // namespace quillmarsh::sync::python
