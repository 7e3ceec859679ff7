#include "sync/engine/tunables.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>

#include "sync/support/log.h"
#include "tests/support/scoped_env.h"

namespace quillmarsh::sync {
namespace {

using testing::ScopedEnv;

class Tunables : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : {"QUILLMARSH_SYNC_HTTP_TIMEOUT_SECONDS", "QUILLMARSH_SYNC_HTTP_TIMEOUT",
                             "QUILLMARSH_SYNC_HTTP_RETRIES", "QUILLMARSH_SYNC_HTTP_CHUNK_BYTES",
                             "QUILLMARSH_SYNC_MAX_CONCURRENCY", "QUILLMARSH_SYNC_PARALLEL_TIMEOUT_SECONDS"}) {
      env_.unset(name);
    }
  }
  ScopedEnv env_;
  LogCapture log_;
};

// The other suites set these variables to shape their runs; the defaults
// themselves are plain constants.
TEST_F(Tunables, TheTimeoutPrefersTheNewNameByPresenceAndWarnsUnderItsName) {
  env_.set("QUILLMARSH_SYNC_HTTP_TIMEOUT", "5");
  EXPECT_EQ(_sync_http_timeout_seconds(), 5.0);
  env_.set("QUILLMARSH_SYNC_HTTP_TIMEOUT_SECONDS", "");  // set but empty: the default, the old name shadowed
  EXPECT_EQ(_sync_http_timeout_seconds(), 30.0);
  EXPECT_TRUE(log_.records().empty());
  env_.unset("QUILLMARSH_SYNC_HTTP_TIMEOUT_SECONDS").set("QUILLMARSH_SYNC_HTTP_TIMEOUT", "soon");
  EXPECT_EQ(_sync_http_timeout_seconds(), 30.0);
  EXPECT_EQ(log_.count(LogLevel::warning, "Invalid QUILLMARSH_SYNC_HTTP_TIMEOUT_SECONDS='soon'; using 30.0s"), 1u);
  for (const char* value : {"  ", "-1"}) {  // blanks are not empty
    env_.set("QUILLMARSH_SYNC_HTTP_TIMEOUT_SECONDS", value);
    EXPECT_EQ(_sync_http_timeout_seconds(), 30.0) << value;
  }
  EXPECT_EQ(log_.count_at(LogLevel::warning), 3u);
  // Only the batch timeout refuses NaN.
  env_.set("QUILLMARSH_SYNC_HTTP_TIMEOUT_SECONDS", "nan");
  EXPECT_TRUE(std::isnan(_sync_http_timeout_seconds()));
}

TEST_F(Tunables, IntegerReadersClampSilentlyAndUnusableValuesFallBackLoudly) {
  env_.set("QUILLMARSH_SYNC_HTTP_RETRIES", "-3").set("QUILLMARSH_SYNC_MAX_CONCURRENCY", "0");
  env_.set("QUILLMARSH_SYNC_HTTP_CHUNK_BYTES", " 4096 ").set("QUILLMARSH_SYNC_PARALLEL_TIMEOUT_SECONDS", "");
  EXPECT_EQ(_sync_http_retries(), 0);
  EXPECT_EQ(_sync_max_concurrency(), 1);
  EXPECT_EQ(_sync_http_chunk_bytes(), 4096);
  EXPECT_EQ(_sync_parallel_timeout_seconds(10, 8), std::nullopt);  // absent, not a computed bound
  // No upper bound: digits beyond 64 bits saturate, and below the clamp still applies.
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  env_.set("QUILLMARSH_SYNC_HTTP_RETRIES", "123456789012345678901234567890");
  env_.set("QUILLMARSH_SYNC_HTTP_CHUNK_BYTES", "99999999999999999999");
  EXPECT_EQ(_sync_http_retries(), kMax);
  EXPECT_EQ(_sync_http_chunk_bytes(), kMax);
  env_.set("QUILLMARSH_SYNC_HTTP_RETRIES", "-99999999999999999999");
  env_.set("QUILLMARSH_SYNC_MAX_CONCURRENCY", "-99999999999999999999");
  EXPECT_EQ(_sync_http_retries(), 0);
  EXPECT_EQ(_sync_max_concurrency(), 1);
  EXPECT_TRUE(log_.records().empty());

  env_.set("QUILLMARSH_SYNC_HTTP_CHUNK_BYTES", "0").set("QUILLMARSH_SYNC_HTTP_RETRIES", "2.0");
  env_.set("QUILLMARSH_SYNC_MAX_CONCURRENCY", "many").set("QUILLMARSH_SYNC_PARALLEL_TIMEOUT_SECONDS", "nan");
  EXPECT_EQ(_sync_http_chunk_bytes(), 8388608);
  EXPECT_EQ(_sync_http_retries(), 2);
  EXPECT_EQ(_sync_max_concurrency(), 8);
  EXPECT_EQ(_sync_parallel_timeout_seconds(1, 1), std::nullopt);
  EXPECT_EQ(log_.count_at(LogLevel::warning), 4u);
}

}  // namespace
}  // namespace quillmarsh::sync
