// Manifest as a Python class, and the plain records as the dataclasses of
// quillmarsh_sync._records.
#ifndef QUILLMARSH_SYNC_PYTHON_SRC_RECORDS_BINDING_H_
#define QUILLMARSH_SYNC_PYTHON_SRC_RECORDS_BINDING_H_

#include <pybind11/pybind11.h>

#include "sync/engine/download_progress.h"
#include "sync/records.h"

namespace quillmarsh::sync::python {

namespace py = pybind11;

// Adds Manifest to `m` and loads the record classes. Called once, at import.
void bind_records(py::module_& m);

// Each needs the GIL.
py::object python_sync_result(const SyncResult& result);
py::object python_verify_result(const VerifyResult& result);
py::object python_progress(const DownloadProgress& progress);

}  // namespace quillmarsh::sync::python

#endif  // QUILLMARSH_SYNC_PYTHON_SRC_RECORDS_BINDING_H_
