// The one way a fuzz target reports a broken property: print what broke and
// abort, which libFuzzer records as a crash with the input that caused it.
#ifndef QUILLMARSH_SYNC_TESTS_FUZZ_FUZZ_CHECK_H_
#define QUILLMARSH_SYNC_TESTS_FUZZ_FUZZ_CHECK_H_

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(condition, what)                                                      \
  do {                                                                                   \
    if (!(condition)) {                                                                  \
      std::fprintf(stderr, "%s:%d: property broken: %s (%s)\n", __FILE__, __LINE__, what, \
                   #condition);                                                          \
      std::abort();                                                                      \
    }                                                                                    \
  } while (0)

#endif  // QUILLMARSH_SYNC_TESTS_FUZZ_FUZZ_CHECK_H_
