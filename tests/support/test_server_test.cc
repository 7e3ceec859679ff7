// The text `qmsync serve --fault` takes. What each fault does to an answer
// the download suites check by the exact ranges and bytes the client gets;
// that the reference server applies a table of them by path is left to
// whoever drives it by hand, which is all that option is for.
#include "tests/support/test_server.h"

#include <gtest/gtest.h>

#include <tuple>
#include <string>

#include "tests/support/outcome.h"

namespace quillmarsh::sync::testing {
namespace {

TEST(FaultText, ReadsWhatServeTakesAndNamesWhatItRefuses) {
  const auto fields = [](const server::Fault& f) {
    return std::tie(f.status, f.body, f.cut_after_bytes, f.wrong_bytes, f.delay_before_head_s, f.stall_after_bytes,
                    f.stall_s, f.ignore_range, f.half_range, f.empty_206, f.redirect_to, f.times, f.skip);
  };
  // The body is the rest, commas and all.
  EXPECT_EQ(fields(server::parse_fault("status=503,cut=10,wrong-bytes,delay=0.5,stall=7@2.5,ignore-range,half-range,"
                                       "empty-206,times=2,skip=1,body=a,b")),
            fields({.status = 503, .body = "a,b", .cut_after_bytes = 10, .wrong_bytes = true, .delay_before_head_s = 0.5,
                    .stall_after_bytes = 7, .stall_s = 2.5, .ignore_range = true, .half_range = true, .empty_206 = true,
                    .times = 2, .skip = 1}));
  EXPECT_EQ(server::parse_fault("redirect=https://h/x?a=1,b=2").redirect_to, "https://h/x?a=1,b=2");
  const std::pair<const char*, std::string> refused[] = {
      {"cut=-1", "ValueError: fault cut needs a number that is not negative, not '-1'"},
      {"cut=1k", "ValueError: fault cut needs a number that is not negative, not '1k'"},
      {"delay=soon", "ValueError: fault delay needs a number that is not negative, not 'soon'"},
      {"stall=5", "ValueError: fault stall needs BYTES@SECONDS, not '5'"},
      {"teapot", "ValueError: unknown fault 'teapot': status=N, body=TEXT, cut=BYTES, wrong-bytes, delay=SECONDS, "
                 "stall=BYTES@SECONDS, ignore-range, half-range, empty-206, redirect=URL, times=N, skip=N"},
  };
  for (const auto& [text, failure] : refused) EXPECT_EQ(outcome([&] { server::parse_fault(text); }), failure);
}

}  // namespace
}  // namespace quillmarsh::sync::testing
