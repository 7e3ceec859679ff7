// SyncManager as a Python class.
#ifndef QUILLMARSH_SYNC_PYTHON_SRC_MANAGER_BINDING_H_
#define QUILLMARSH_SYNC_PYTHON_SRC_MANAGER_BINDING_H_

#include <pybind11/pybind11.h>

namespace quillmarsh::sync::python {

// Adds SyncManager to `m`. Every operation that can block or take one of the
// manager's locks runs with the GIL released, since the manager's own
// threads take the GIL, possibly under those locks, to call Python.
void bind_manager(pybind11::module_& m);

}  // namespace quillmarsh::sync::python

#endif  // QUILLMARSH_SYNC_PYTHON_SRC_MANAGER_BINDING_H_
