// JSON values as Python objects and back: objects are dicts in member order,
// arrays lists, null None.
#ifndef QUILLMARSH_SYNC_PYTHON_SRC_JSON_OBJECTS_H_
#define QUILLMARSH_SYNC_PYTHON_SRC_JSON_OBJECTS_H_

#include <pybind11/pybind11.h>

#include "sync/support/json_text.h"

namespace quillmarsh::sync::python {

namespace py = pybind11;

// Needs the GIL. Text that is not UTF-8 keeps its bytes as surrogate escapes.
py::object python_of(const Json& value);
// Needs the GIL. TypeError (Python's) for what JSON cannot hold, such as a
// dict key that is no str.
Json json_of(py::handle value);

}  // namespace quillmarsh::sync::python

#endif  // QUILLMARSH_SYNC_PYTHON_SRC_JSON_OBJECTS_H_
