// quillmarsh_sync._core: the component, bound for Python. Importing it
// routes the component's log into logging and its collaborator slots to the
// host's modules, and arranges for a clean interpreter exit while the
// component's threads still run.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <optional>
#include <string>

#include "python/src/collaborators.h"
#include "python/src/failures.h"
#include "python/src/log_sink.h"
#include "python/src/manager_binding.h"
#include "python/src/process_exit.h"
#include "python/src/python_gate.h"
#include "python/src/records_binding.h"
#include "sync/collaborators/deployment.h"
#include "sync/engine/curl_session.h"

namespace py = pybind11;
using namespace pybind11::literals;
namespace qs = quillmarsh::sync;
namespace qp = quillmarsh::sync::python;

PYBIND11_MODULE(_core, m) {
  m.doc() = "The compiled part of quillmarsh_sync; import quillmarsh_sync instead.";
  qp::install_failure_translation();
  qp::bind_records(m);
  qp::bind_manager(m);
  m.def(
      "set_extra_ca_file",
      [](py::handle pem_path) {
        std::optional<std::string> path;
        if (!pem_path.is_none()) path = py::module_::import("os").attr("fspath")(pem_path).cast<std::string>();
        qp::ReleasedGil nogil;
        qs::set_extra_ca_file(path);
      },
      "pem_path"_a,
      "Trust the CA certificates of a PEM bundle beside the system's own, process-wide; None turns it off. "
      "OSError or ValueError when the file cannot be read or holds no certificate.");
  m.attr("__version__") = qs::library_version();
  qp::install_collaborator_adapters();
  qp::install_python_log_sink();
  qp::install_process_exit_handler();
  m.def("_interpreter_exiting", &qp::close_python_gate);
  py::module_::import("atexit").attr("register")(m.attr("_interpreter_exiting"));
}
