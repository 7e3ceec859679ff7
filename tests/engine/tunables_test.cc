#include "sync/engine/tunables.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>

#include "sync/support/log.h"
#include "tests/support/scoped_env.h"

namespace quillmarsh::sync {
namespace {

std::string shown(double v) { return std::to_string(v); }
std::string shown(std::int64_t v) { return std::to_string(v); }
std::string shown(std::optional<double> v) { return v ? shown(*v) : "absent"; }

// The other suites set these variables to shape their runs; here, how each
// reader takes a value it cannot use: clamped silently, or the default with
// a warning.
TEST(Tunables, EachReaderClampsSilentlyOrFallsBackLoudly) {
  const std::string kMax = std::to_string(std::numeric_limits<std::int64_t>::max());
  const std::function<std::string()> timeout = [] { return shown(_sync_http_timeout_seconds()); };
  const std::function<std::string()> retries = [] { return shown(_sync_http_retries()); };
  const std::function<std::string()> chunk = [] { return shown(_sync_http_chunk_bytes()); };
  const std::function<std::string()> workers = [] { return shown(_sync_max_concurrency()); };
  const std::function<std::string()> batch = [] { return shown(_sync_parallel_timeout_seconds(10, 8)); };
  // The variables set (without their prefix), the reader, what it reads and whether it warns.
  using Variables = std::vector<std::pair<const char*, const char*>>;
  const std::tuple<Variables, std::function<std::string()>, std::string, bool> cases[] = {
      {{{"HTTP_TIMEOUT", "5"}}, timeout, shown(5.0), false},
      // Set but empty: the default, and the old name shadowed.
      {{{"HTTP_TIMEOUT", "5"}, {"HTTP_TIMEOUT_SECONDS", ""}}, timeout, shown(30.0), false},
      {{{"HTTP_TIMEOUT", "soon"}}, timeout, shown(30.0), true},
      {{{"HTTP_RETRIES", "-3"}}, retries, "0", false},
      {{{"MAX_CONCURRENCY", "0"}}, workers, "1", false},
      {{{"HTTP_CHUNK_BYTES", " 4096 "}}, chunk, "4096", false},
      {{{"PARALLEL_TIMEOUT_SECONDS", ""}}, batch, "absent", false},  // absent, not a computed bound
      // No upper bound: digits beyond 64 bits saturate (every integer
      // reader parses alike).
      {{{"HTTP_RETRIES", "123456789012345678901234567890"}}, retries, kMax, false},
      {{{"HTTP_CHUNK_BYTES", "0"}}, chunk, "8388608", true},
      {{{"HTTP_RETRIES", "2.0"}}, retries, "2", true},
      {{{"MAX_CONCURRENCY", "many"}}, workers, "8", true},
      {{{"PARALLEL_TIMEOUT_SECONDS", "nan"}}, batch, "absent", true},
  };
  for (const auto& [variables, read, expected, warns] : cases) {
    SCOPED_TRACE(std::string(variables.back().first) + "=" + variables.back().second);
    testing::ScopedEnv env;
    for (const char* name : {"HTTP_TIMEOUT_SECONDS", "HTTP_TIMEOUT", "HTTP_RETRIES", "HTTP_CHUNK_BYTES",
                             "MAX_CONCURRENCY", "PARALLEL_TIMEOUT_SECONDS"}) {
      env.unset(std::string("QUILLMARSH_SYNC_") + name);
    }
    for (const auto& [name, value] : variables) env.set(std::string("QUILLMARSH_SYNC_") + name, value);
    LogCapture log;
    EXPECT_EQ(read(), expected);
    EXPECT_EQ(log.count_at(LogLevel::warning), warns ? 1u : 0u);
  }
}

}  // namespace
}  // namespace quillmarsh::sync
