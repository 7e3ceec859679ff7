#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "sync/errors.h"
#include "sync/support/event.h"
#include "sync/support/posix_file.h"
#include "tests/support/sync_fixture.h"

namespace quillmarsh::sync {
namespace {

using testing::Fault;
using testing::outcome;
using testing::outcome_and_cause;

std::string thread_name() {
  char name[32] = {};
  pthread_getname_np(pthread_self(), name, sizeof name);
  return name;
}

// Threads of this process whose name starts with the pool's prefix.
bool pool_threads_alive() {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream comm(task.path() / "comm");
    std::string name;
    std::getline(comm, name);
    if (name.rfind("qm-sync_", 0) == 0) return true;
  }
  return false;
}

// Retry waits can be held, so that downloads stay running as long as a test
// needs; every wait notes the name of the thread it ran on.
class ParallelDownload : public testing::SyncFixture {
 protected:
  void SetUp() override {
    SyncFixture::SetUp();
    fixture_sleep_ = replace_sleep([this](double) { on_wait(); });
    manager_ = make_manager();
  }
  void TearDown() override {
    release_.set();
    drain();
    replace_sleep(fixture_sleep_);
    SyncFixture::TearDown();
  }

  Json entry(const std::string& path, const std::string& bytes, const std::string& kind = "") {
    Json e = store_file(path, bytes, kind);
    e["base_url"] = base_url();
    return e;
  }

  // Waits until workers left behind by a timed-out batch have ended, so
  // that none outlives the servers and directory of the test.
  void drain() {
    manager_.reset();
    while (pool_threads_alive()) std::this_thread::yield();
  }

  std::shared_ptr<SyncManager> manager_;
  std::atomic<bool> hold_{false};
  Event release_;
  std::atomic<bool> gave_up_{false};

 private:
  void on_wait() {
    waits_.add(thread_name());
    // Bounded, so that a batch that wrongly waits for its workers fails
    // rather than hangs.
    if (hold_ && !release_.wait(10.0)) gave_up_ = true;
  }

  SleepFunction fixture_sleep_;
};

TEST_F(ParallelDownload, AFailedFileIsRaisedAfterTheOthersAreSummed) {
  env_.set("QUILLMARSH_SYNC_MAX_CONCURRENCY", "3");
  Json files = Json::object();
  files["a.bin"] = entry("a.bin", std::string(1500, 'a'), "feature");
  // Fails at once, long before the others can finish.
  files["b.bin"] = entry("b.bin", "bbb");
  files["b.bin"]["base_url"] = "http://127.0.0.1:1/bucket";
  files["c.bin"] = entry("c.bin", std::string(2500, 'c'));
  // The others need a retry each.
  store_.fault("/bucket/a.bin", {.status = 503, .times = 1});
  store_.fault("/bucket/c.bin", {.status = 503, .times = 1});

  SyncResult result;
  EXPECT_EQ(outcome([&] { manager_->_download_files_parallel(files, result); }),
            "ManifestError: Manifest base_url must be an absolute HTTPS R2 URL");
  EXPECT_EQ(result.bytes_downloaded, 4000);
  EXPECT_EQ(result.features_downloaded, 1);
  EXPECT_EQ(read_file(path("a.bin")), std::string(1500, 'a'));
  EXPECT_EQ(read_file(path("c.bin")), std::string(2500, 'c'));
  EXPECT_FALSE(path_exists(path("b.bin")));
  // The retries ran on the pool's workers.
  ASSERT_EQ(waits_.events().size(), 2u);
  for (const std::string& name : waits_.events()) EXPECT_TRUE(name.starts_with("qm-sync_")) << name;
}

TEST_F(ParallelDownload, ATimedOutBatchNamesWhatIsPendingAndLeavesRunningDownloads) {
  env_.set("QUILLMARSH_SYNC_PARALLEL_TIMEOUT_SECONDS", "0.2");
  // Every file fails its first attempt, and its retry wait is held.
  auto run = [this](const std::vector<std::string>& names) {
    Json files = Json::object();
    for (const std::string& name : names) {
      files[name] = entry(name, std::string(100, name[0]));
      store_.fault("/bucket/" + name, {.empty_206 = true, .times = 1});
    }
    hold_ = true;
    release_.clear();
    SyncResult result;
    const auto [message, cause] = outcome_and_cause([&] { manager_->_download_files_parallel(files, result); });
    EXPECT_TRUE(cause.starts_with("FuturesTimeoutError: ")) << cause;
    // Returned while its workers were still held.
    EXPECT_FALSE(gave_up_);
    EXPECT_EQ(result, SyncResult{});
    release_.set();
    drain();
    manager_ = make_manager();
    return message;
  };

  env_.set("QUILLMARSH_SYNC_MAX_CONCURRENCY", "2");
  EXPECT_EQ(run({"a.bin", "b.bin", "c.bin", "d.bin"}),
            "SyncError: Timed out after 0.2s in parallel download with 4 file(s) pending: a.bin, b.bin, c.bin, ...");
  // What was running finished by itself; what was queued never began.
  for (const std::string name : {"a.bin", "b.bin"}) {
    EXPECT_EQ(path_exists(path(name)), store_.request_count("/bucket/" + name) > 0) << name;
  }
  EXPECT_EQ(store_.request_count("/bucket/c.bin"), 0u);
  EXPECT_EQ(store_.request_count("/bucket/d.bin"), 0u);

  env_.set("QUILLMARSH_SYNC_MAX_CONCURRENCY", "3");
  EXPECT_EQ(run({"x.bin", "y.bin", "z.bin"}),
            "SyncError: Timed out after 0.2s in parallel download with 3 file(s) pending: x.bin, y.bin, z.bin");
}

TEST_F(ParallelDownload, OneWorkerMeansAPlainLoopOnTheCallingThread) {
  SyncResult result;
  // A batch timeout would end the batch with its own failure, not the file's.
  env_.set("QUILLMARSH_SYNC_MAX_CONCURRENCY", "1");
  env_.set("QUILLMARSH_SYNC_PARALLEL_TIMEOUT_SECONDS", "0.001");
  Json files = Json::object();
  files["a.bin"] = entry("a.bin", "aaa");
  store_.fault("/bucket/a.bin", {.status = 500});
  files["b.bin"] = entry("b.bin", "bbb");
  EXPECT_THROW(manager_->_download_files_parallel(files, result), IntegrityError);
  EXPECT_EQ(store_.request_count("/bucket/b.bin"), 0u);  // not tried after the failure
  ASSERT_EQ(waits_.events().size(), 2u);
  for (const std::string& name : waits_.events()) EXPECT_EQ(name, thread_name());
}

}  // namespace
}  // namespace quillmarsh::sync
