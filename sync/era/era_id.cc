#include "sync/era/era_id.h"

#include <string>

#include "sync/errors.h"
#include "sync/support/integer.h"

namespace quillmarsh::sync {
namespace {

bool is_number(const Json& v) { return v.is_number() || v.is_boolean(); }

// Exact for every integer and float a JSON text can give; booleans are 0, 1.
long double number_of(const Json& v) {
  if (v.is_boolean()) return v.get<bool>() ? 1 : 0;
  if (v.is_number_unsigned()) return static_cast<long double>(v.get<std::uint64_t>());
  if (v.is_number_integer()) return static_cast<long double>(v.get<std::int64_t>());
  return static_cast<long double>(v.get<double>());
}

const char* kind_name(const Json& v) {
  switch (v.type()) {
    case Json::value_t::null: return "NoneType";
    case Json::value_t::boolean: return "bool";
    case Json::value_t::number_integer:
    case Json::value_t::number_unsigned: return "int";
    case Json::value_t::number_float: return "float";
    case Json::value_t::string: return "str";
    case Json::value_t::array: return "list";
    case Json::value_t::object: return "dict";
    default: return "object";
  }
}

}  // namespace

bool era_ids_equal(const Json& a, const Json& b) {
  if (is_number(a) && is_number(b)) return number_of(a) == number_of(b);
  return a == b;
}

bool era_id_greater(const Json& a, const Json& b) {
  if (is_number(a) && is_number(b)) return number_of(a) > number_of(b);
  // UTF-8 byte order is code point order.
  if (a.is_string() && b.is_string()) return a.get_ref<const std::string&>() > b.get_ref<const std::string&>();
  throw TypeError(std::string("'>' not supported between instances of '") + kind_name(a) + "' and '" +
                  kind_name(b) + "'");
}

std::optional<std::int64_t> era_integer(const Json& era_id) {
  try {
    return integer_of(era_id);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace quillmarsh::sync
