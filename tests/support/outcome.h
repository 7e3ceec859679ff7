// What a call raised, as one comparable text.
#ifndef QUILLMARSH_SYNC_TESTS_SUPPORT_OUTCOME_H_
#define QUILLMARSH_SYNC_TESTS_SUPPORT_OUTCOME_H_

#include <exception>
#include <functional>
#include <string>

#include "sync/errors.h"

namespace quillmarsh::sync::testing {

// "Type: message" of what `f` raised, "ok" when it returned.
inline std::string outcome(const std::function<void()>& f) {
  try {
    f();
  } catch (const std::exception& e) {
    return describe_failure(e);
  }
  return "ok";
}

// What `f` returned, or "Type: message" of what it raised.
inline std::string result_or_failure(const std::function<std::string()>& f) {
  std::string got;
  const std::string failure = outcome([&] { got = f(); });
  return failure == "ok" ? got : failure;
}

struct Outcome {
  std::string failure;  // as outcome() tells it
  std::string cause;    // "Type: message" of the failure's cause, "" when none
};

// What one call of `f` raised, and that failure's cause.
inline Outcome outcome_and_cause(const std::function<void()>& f) {
  try {
    f();
  } catch (const Error& e) {
    return {describe_failure(e), e.cause() ? outcome([&] { std::rethrow_exception(e.cause()); }) : ""};
  } catch (const std::exception& e) {
    return {describe_failure(e), ""};
  }
  return {"ok", ""};
}

}  // namespace quillmarsh::sync::testing

#endif  // QUILLMARSH_SYNC_TESTS_SUPPORT_OUTCOME_H_
