#include "sync/errors.h"

namespace quillmarsh::sync {

std::string describe_failure(const std::exception& e) {
  if (const auto* ours = dynamic_cast<const Error*>(&e)) {
    return std::string(ours->type_name()) + ": " + e.what();
  }
  return std::string("exception: ") + e.what();
}

std::string describe_failure_chain(const std::exception_ptr& failure) {
  std::string out;
  std::exception_ptr current = failure;
  // A cycle cannot be built with exception_ptr, but stay bounded anyway.
  for (int depth = 0; current && depth < 32; ++depth) {
    if (depth > 0) out += "\nCaused by ";
    try {
      std::rethrow_exception(current);
    } catch (const Error& e) {
      out += describe_failure(e);
      current = e.cause();
    } catch (const std::exception& e) {
      out += describe_failure(e);
      current = nullptr;
    } catch (...) {
      out += "unknown failure";
      current = nullptr;
    }
  }
  return out;
}

}  // namespace quillmarsh::sync
