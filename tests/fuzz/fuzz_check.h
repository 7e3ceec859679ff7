// The one way a fuzz target reports a broken property: print what broke and
// abort, which libFuzzer records as a crash with the input that caused it.
// And the two shapes the targets call the code under test in: for its
// answer, absent when it refuses with `Refusal`, or only to see whether it
// refuses.
#ifndef QUILLMARSH_SYNC_TESTS_FUZZ_FUZZ_CHECK_H_
#define QUILLMARSH_SYNC_TESTS_FUZZ_FUZZ_CHECK_H_

#include <cstdio>
#include <cstdlib>
#include <optional>

#define FUZZ_CHECK(condition, what)                                                      \
  do {                                                                                   \
    if (!(condition)) {                                                                  \
      std::fprintf(stderr, "%s:%d: property broken: %s (%s)\n", __FILE__, __LINE__, what, \
                   #condition);                                                          \
      std::abort();                                                                      \
    }                                                                                    \
  } while (0)

template <typename Refusal, typename Call>
auto unless_refused(Call call) -> std::optional<decltype(call())> {
  try {
    return call();
  } catch (const Refusal&) {
    return std::nullopt;
  }
}

template <typename Refusal, typename Call>
bool refuses(Call call) {
  try {
    call();
  } catch (const Refusal&) {
    return true;
  }
  return false;
}

#endif  // QUILLMARSH_SYNC_TESTS_FUZZ_FUZZ_CHECK_H_
