// The one way a fuzz target reports a broken property: print what broke and
// abort, which libFuzzer records as a crash with the input that caused it.
// The shape the targets call the code under test in: for its answer, absent
// when it refuses with `Refusal`. And the entry libFuzzer calls, which hands
// each input to the target's own fuzz_one.
#ifndef QUILLMARSH_SYNC_TESTS_FUZZ_FUZZ_CHECK_H_
#define QUILLMARSH_SYNC_TESTS_FUZZ_FUZZ_CHECK_H_

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string_view>

[[noreturn]] inline void fuzz_broken(const char* file, int line, const char* what, const char* condition) {
  std::fprintf(stderr, "%s:%d: property broken: %s (%s)\n", file, line, what, condition);
  std::abort();
}
#define FUZZ_CHECK(condition, what) ((condition) ? void() : fuzz_broken(__FILE__, __LINE__, what, #condition))

template <typename Refusal, typename Call>
auto unless_refused(Call call) -> std::optional<decltype(call())> {
  try {
    return call();
  } catch (const Refusal&) {
    return std::nullopt;
  }
}

namespace quillmarsh::sync {
void fuzz_one(std::string_view input);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  quillmarsh::sync::fuzz_one(std::string_view(reinterpret_cast<const char*>(data), size));
  return 0;
}

#endif  // QUILLMARSH_SYNC_TESTS_FUZZ_FUZZ_CHECK_H_
