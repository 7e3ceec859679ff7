#include "python/src/json_objects.h"

#include <string>

namespace quillmarsh::sync::python {
namespace {

py::object text(const std::string& s) {
  PyObject* o = PyUnicode_DecodeUTF8(s.data(), static_cast<Py_ssize_t>(s.size()), "surrogateescape");
  if (!o) throw py::error_already_set();
  return py::reinterpret_steal<py::object>(o);
}

}  // namespace

py::object python_of(const Json& value) {
  switch (value.type()) {
    case Json::value_t::null:
    case Json::value_t::discarded:
      return py::none();
    case Json::value_t::boolean:
      return py::bool_(value.get<bool>());
    case Json::value_t::number_integer:
      return py::int_(value.get<std::int64_t>());
    case Json::value_t::number_unsigned:
      return py::int_(value.get<std::uint64_t>());
    case Json::value_t::number_float:
      return py::float_(value.get<double>());
    case Json::value_t::string:
      return text(value.get_ref<const std::string&>());
    case Json::value_t::binary: {
      const auto& bytes = value.get_binary();
      return py::bytes(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    }
    case Json::value_t::array: {
      py::list list(value.size());
      std::size_t i = 0;
      for (const Json& item : value) list[i++] = python_of(item);
      return list;
    }
    case Json::value_t::object: {
      py::dict dict;
      for (const auto& [key, item] : value.items()) dict[text(key)] = python_of(item);
      return dict;
    }
  }
  return py::none();
}

Json json_of(py::handle value) {
  if (value.is_none()) return nullptr;
  // bool before int: a Python bool is an int.
  if (py::isinstance<py::bool_>(value)) return value.cast<bool>();
  if (py::isinstance<py::int_>(value)) {
    int overflow = 0;
    const long long n = PyLong_AsLongLongAndOverflow(value.ptr(), &overflow);
    if (overflow == 0) return static_cast<std::int64_t>(n);
    if (overflow > 0) {
      const unsigned long long u = PyLong_AsUnsignedLongLong(value.ptr());
      if (!PyErr_Occurred()) return static_cast<std::uint64_t>(u);
      PyErr_Clear();
    }
    throw py::type_error("integer out of JSON range: " + py::repr(value).cast<std::string>());
  }
  if (py::isinstance<py::float_>(value)) return value.cast<double>();
  if (py::isinstance<py::str>(value)) return value.cast<std::string>();
  if (py::isinstance<py::dict>(value)) {
    Json object = Json::object();
    for (const auto& [key, item] : value.cast<py::dict>()) {
      if (!py::isinstance<py::str>(key)) {
        throw py::type_error("JSON object keys must be str, not " +
                             py::str(reinterpret_cast<PyObject*>(Py_TYPE(key.ptr()))).cast<std::string>());
      }
      object[key.cast<std::string>()] = json_of(item);
    }
    return object;
  }
  if (py::isinstance<py::list>(value) || py::isinstance<py::tuple>(value)) {
    Json array = Json::array();
    for (const py::handle item : value) array.push_back(json_of(item));
    return array;
  }
  throw py::type_error("Object of type " + py::str(value.get_type().attr("__name__")).cast<std::string>() +
                       " is not JSON serializable");
}

}  // namespace quillmarsh::sync::python
