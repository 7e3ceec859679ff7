#include "sync/engine/tunables.h"

#include <gtest/gtest.h>

#include <cmath>

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

TEST_F(Tunables, DefaultsWhenUnsetOrEmptyWithoutAWord) {
  EXPECT_EQ(_sync_http_timeout_seconds(), 30.0);
  EXPECT_EQ(_sync_http_retries(), 2);
  EXPECT_EQ(_sync_http_chunk_bytes(), 8388608);
  EXPECT_EQ(_sync_max_concurrency(), 8);
  EXPECT_EQ(_sync_parallel_timeout_seconds(10, 8), std::nullopt);  // absent, not 300
  env_.set("QUILLMARSH_SYNC_HTTP_RETRIES", "").set("QUILLMARSH_SYNC_PARALLEL_TIMEOUT_SECONDS", "");
  EXPECT_EQ(_sync_http_retries(), 2);
  EXPECT_EQ(_sync_parallel_timeout_seconds(0, 0), std::nullopt);
  EXPECT_TRUE(log_.records().empty());
}

TEST_F(Tunables, TimeoutPrefersTheNewNameByPresence) {
  env_.set("QUILLMARSH_SYNC_HTTP_TIMEOUT", "5");
  EXPECT_EQ(_sync_http_timeout_seconds(), 5.0);
  env_.set("QUILLMARSH_SYNC_HTTP_TIMEOUT_SECONDS", "2.5");
  EXPECT_EQ(_sync_http_timeout_seconds(), 2.5);
  // Set but empty still shadows the old name.
  env_.set("QUILLMARSH_SYNC_HTTP_TIMEOUT_SECONDS", "");
  EXPECT_EQ(_sync_http_timeout_seconds(), 30.0);
  EXPECT_TRUE(log_.records().empty());
}

TEST_F(Tunables, TimeoutWarningsNameTheNewVariableEvenForTheOldOne) {
  env_.set("QUILLMARSH_SYNC_HTTP_TIMEOUT", "soon");
  EXPECT_EQ(_sync_http_timeout_seconds(), 30.0);
  env_.set("QUILLMARSH_SYNC_HTTP_TIMEOUT_SECONDS", "  ");  // blanks are not empty
  EXPECT_EQ(_sync_http_timeout_seconds(), 30.0);
  env_.set("QUILLMARSH_SYNC_HTTP_TIMEOUT_SECONDS", "-1");
  EXPECT_EQ(_sync_http_timeout_seconds(), 30.0);
  EXPECT_EQ(log_.count(LogLevel::warning, "Invalid QUILLMARSH_SYNC_HTTP_TIMEOUT_SECONDS='soon'; using 30.0s"), 1u);
  EXPECT_EQ(log_.count(LogLevel::warning, "Invalid QUILLMARSH_SYNC_HTTP_TIMEOUT_SECONDS='  '; using 30.0s"), 1u);
  EXPECT_EQ(log_.count(LogLevel::warning, "Non-positive QUILLMARSH_SYNC_HTTP_TIMEOUT_SECONDS='-1'; using 30.0s"), 1u);
}

TEST_F(Tunables, IntegerReadersClampSilentlyOrRefuseLoudly) {
  env_.set("QUILLMARSH_SYNC_HTTP_RETRIES", "-3").set("QUILLMARSH_SYNC_MAX_CONCURRENCY", "0");
  EXPECT_EQ(_sync_http_retries(), 0);
  EXPECT_EQ(_sync_max_concurrency(), 1);
  EXPECT_TRUE(log_.records().empty());
  env_.set("QUILLMARSH_SYNC_HTTP_CHUNK_BYTES", "0");
  EXPECT_EQ(_sync_http_chunk_bytes(), 8388608);
  env_.set("QUILLMARSH_SYNC_HTTP_CHUNK_BYTES", " 4096 ");
  EXPECT_EQ(_sync_http_chunk_bytes(), 4096);
  env_.set("QUILLMARSH_SYNC_HTTP_RETRIES", "2.0").set("QUILLMARSH_SYNC_MAX_CONCURRENCY", "many");
  EXPECT_EQ(_sync_http_retries(), 2);
  EXPECT_EQ(_sync_max_concurrency(), 8);
  EXPECT_EQ(log_.count(LogLevel::warning, "Non-positive QUILLMARSH_SYNC_HTTP_CHUNK_BYTES='0'; using 8388608"), 1u);
  EXPECT_EQ(log_.count(LogLevel::warning, "Invalid QUILLMARSH_SYNC_HTTP_RETRIES='2.0'; using 2"), 1u);
  EXPECT_EQ(log_.count(LogLevel::warning, "Invalid QUILLMARSH_SYNC_MAX_CONCURRENCY='many'; using 8"), 1u);
}

TEST_F(Tunables, BatchTimeoutRefusesNanWhereTheRequestTimeoutTakesIt) {
  env_.set("QUILLMARSH_SYNC_PARALLEL_TIMEOUT_SECONDS", "12.5");
  EXPECT_EQ(_sync_parallel_timeout_seconds(1, 1), 12.5);
  env_.set("QUILLMARSH_SYNC_PARALLEL_TIMEOUT_SECONDS", "nan");
  EXPECT_EQ(_sync_parallel_timeout_seconds(1, 1), std::nullopt);
  env_.set("QUILLMARSH_SYNC_PARALLEL_TIMEOUT_SECONDS", "later");
  EXPECT_EQ(_sync_parallel_timeout_seconds(1, 1), std::nullopt);
  env_.set("QUILLMARSH_SYNC_HTTP_TIMEOUT_SECONDS", "nan");
  EXPECT_TRUE(std::isnan(_sync_http_timeout_seconds()));
  EXPECT_EQ(log_.count(LogLevel::warning,
                       "Non-positive QUILLMARSH_SYNC_PARALLEL_TIMEOUT_SECONDS='nan'; disabling batch timeout"),
            1u);
  EXPECT_EQ(log_.count(LogLevel::warning,
                       "Invalid QUILLMARSH_SYNC_PARALLEL_TIMEOUT_SECONDS='later'; disabling batch timeout"),
            1u);
}

}  // namespace
}  // namespace quillmarsh::sync
