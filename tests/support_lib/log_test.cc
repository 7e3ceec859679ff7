#include "sync/support/log.h"

#include <gtest/gtest.h>

#include "sync/errors.h"

namespace quillmarsh::sync {
namespace {

TEST(LogFormat, RendersEachPlaceholder) {
  EXPECT_EQ(format_log_message("%s|%r|%d|%.1fs|100%%", {"it's", "it's", 7, 30.0}), "it's|'it\\'s'|7|30.0s|100%");
  EXPECT_EQ(format_log_message("%r %s %s", {std::nullopt, 2.5, true}), "None 2.5 True");
  EXPECT_EQ(format_log_message("%r", {std::vector<std::string>{"a", "b"}}), "['a', 'b']");
  EXPECT_EQ(format_log_message("%s", {ValueError("bad value")}), "bad value");
  // Too few arguments leave the placeholder in sight rather than crash.
  EXPECT_EQ(format_log_message("%s and %s", {"one"}), "one and %s");
}

// A failure is logged with the chain of its causes, as `qmsync watch` shows
// it. A capture that kept the sink when it went would leave the suites after
// it logging into freed memory, which the address sanitizer leg reports.
TEST(LogCapture, KeepsAFailureWithItsCauses) {
  LogCapture capture;
  log_message(LogLevel::warning, "failed: %s", {"x"},
              std::make_exception_ptr(
                  ConnectionError("Timed out fetching x", std::make_exception_ptr(TimeoutError("read timed out")))));
  EXPECT_EQ(capture.records().back().failure,
            "ConnectionError: Timed out fetching x\nCaused by TimeoutError: read timed out");
}

}  // namespace
}  // namespace quillmarsh::sync
