#include <gtest/gtest.h>

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

std::string numbered_bytes(std::size_t n) { return testing::pseudo_random_bytes(n, static_cast<std::uint32_t>(n)); }

std::string flipped(std::string bytes) {
  for (char& c : bytes) c = static_cast<char>(c ^ 0xFF);
  return bytes;
}

// Files span several chunks of 1000 bytes. Retry callbacks are recorded
// among the waits, so their order shows.
class Download : public testing::SyncFixture {
 protected:
  void SetUp() override {
    SyncFixture::SetUp();
    env_.set("QUILLMARSH_SYNC_HTTP_CHUNK_BYTES", "1000");
    manager_ = make_manager();
  }

  // Serves `bytes` on the store under `path`, with `fault`, and lists it.
  void publish(const std::string& path, const std::string& bytes, const std::string& kind = "",
               Fault fault = {.times = 0}) {
    entries_[path] = store_file(path, bytes, kind);
    entries_[path]["base_url"] = base_url();
    store_.fault("/bucket/" + path, fault);
  }
  void download(const std::string& path, SyncResult& result, int max_retries = 3) {
    manager_->_download_file(path, entries_.at(path), result, max_retries,
                             [this](double s) { waits_.add("callback " + std::to_string(s).substr(0, 4)); });
  }
  // `path` beside a good file of one byte, as a sync pass downloads them.
  void download_in_batch(const std::string& path, SyncResult& result) {
    const std::string companion = path + ".companion";
    publish(companion, "c");
    Json files = Json::object();
    files[path] = entries_.at(path);
    files[companion] = entries_.at(companion);
    manager_->_download_files_parallel(files, result);
  }
  // The Range header of every request for `path`, "bytes=" left out and
  // "whole" when none, separated by blanks.
  std::string ranges(const std::string& path) const {
    std::string out;
    for (const auto& r : store_.requests()) {
      std::string range = r.range.value_or("whole");
      if (range.starts_with("bytes=")) range.erase(0, 6);
      if (r.path == "/bucket/" + path) out += (out.empty() ? "" : " ") + range;
    }
    return out;
  }

  std::shared_ptr<SyncManager> manager_;
  Json entries_ = Json::object();
};

// Where the chunks end is the fault table's (exact.bin, above.bin).
TEST_F(Download, RequestsShareOneConnectionWithoutTheTokenAndAnUnsizedFileComesWhole) {
  const std::string above = numbered_bytes(1001), unsized = numbered_bytes(2500);
  publish("f/above.bin", above, "feature");
  publish("f/unsized.bin", unsized);
  entries_["f/unsized.bin"].erase("size_bytes");
  // The manifest in force names the store over the entry's own base URL:
  // repairs go that way.
  entries_["f/unsized.bin"]["base_url"] = "https://127.0.0.1:1/bucket";  // refused were it asked
  entries_["f/unsized.bin"]["_manifest_base_url"] = base_url();

  SyncResult result;
  for (const char* name : {"f/above.bin", "f/unsized.bin"}) download(name, result);
  EXPECT_EQ(ranges("f/unsized.bin"), "whole");
  EXPECT_EQ(read_file(path("f/unsized.bin")), unsized);
  EXPECT_EQ(result.bytes_downloaded, 1001 + 2500);
  EXPECT_EQ(result.features_downloaded, 1);
  EXPECT_EQ(store_.connection_count(), 1u);
  for (const auto& r : store_.requests()) EXPECT_EQ(r.header("Authorization"), std::nullopt);
}

// Each case misbehaves somewhere in a file, or finds bytes staged by an
// earlier run. Every case a sync pass can meet is tried again in a batch,
// where a small file's first attempt travels apart from the rest: it must
// make the same requests and waits and end the same way. What can be recovered from is: the download goes on from the
// bytes staged, rebuilding their digest rather than fetching them again,
// and ends with the whole file. A body that stalls past the timeout ends the
// call (a silent body is not retried), with what came before the stall
// staged for the next call. Anything else ends as IntegrityError after all
// attempts, naming its last cause; waits double up to one second and the
// last attempt never waits. Wrong bytes empty the staging file before each
// new attempt but stay for inspection at the end.
TEST_F(Download, EachFaultIsResumedFromTheStagedBytesOrEndsAsIntegrityError) {
  env_.set("QUILLMARSH_SYNC_HTTP_TIMEOUT_SECONDS", "1.0");
  const std::string wrong = numbered_bytes(3000), shorter = numbered_bytes(900);
  struct Case {
    std::string path;
    std::size_t size;
    Fault fault = {.times = 0};
    std::string staged = "";  // left by an earlier run
    int retries = 3;
    std::string ranges = "";  // as ranges() tells them
    std::vector<const char*> waits = {};
    bool stalls = false;
    std::string failure = "";  // after "IntegrityError: "
    std::optional<std::string> left = {};  // in the staging file after a failure
    bool late_head = false;  // the waits are the request's own, told to no callback
  };
  const Case cases[] = {
      // A file of one chunk is asked whole; one byte more takes a second range.
      {.path = "exact.bin", .size = 1000, .ranges = "whole"},
      {.path = "above.bin", .size = 1001, .ranges = "0-999 1000-1000"},
      {.path = "cut-whole.bin", .size = 5000, .fault = {.cut_after_bytes = 2500, .ignore_range = true, .times = 1},
       .ranges = "0-999 2500-3499 3500-4499 4500-4999", .waits = {"0.25"}},
      {.path = "cut-range.bin", .size = 5000, .fault = {.cut_after_bytes = 300, .times = 1},
       .ranges = "0-999 300-1299 1300-2299 2300-3299 3300-4299 4300-4999"},
      {.path = "third-fails.bin", .size = 5000, .fault = {.status = 503, .times = 1, .skip = 2},
       .ranges = "0-999 1000-1999 2000-2999 2000-2999 3000-3999 4000-4999", .waits = {"0.25"}},
      {.path = "whole-mid-file.bin", .size = 5000, .fault = {.ignore_range = true, .times = 1},
       .staged = numbered_bytes(5000).substr(0, 2000), .ranges = "2000-2999 2000-2999 3000-3999 4000-4999",
       .waits = {"0.25"}},
      // From the start a whole answer is as good as the ranges.
      {.path = "whole-from-start.bin", .size = 5000, .fault = {.ignore_range = true}, .ranges = "0-999"},
      // Each asks a full chunk from where the last answer ended.
      {.path = "half.bin", .size = 1001, .fault = {.half_range = true},
       .ranges = "0-999 500-1000 750-1000 875-1000 938-1000 969-1000 985-1000 993-1000 997-1000 999-1000 1000-1000"},
      // Left whole by a process killed just before its rename: no request.
      {.path = "staged-whole.bin", .size = 900, .staged = numbered_bytes(900)},
      // Longer than the file, or the right length with wrong bytes: emptied,
      // then fetched afresh, where a range after the end would get 416 forever.
      {.path = "staged-longer.bin", .size = 800, .staged = std::string(950, 'x'), .ranges = "whole", .waits = {"0.25"}},
      {.path = "staged-spoiled.bin", .size = 700, .staged = flipped(numbered_bytes(700)), .ranges = "whole",
       .waits = {"0.25"}},
      {.path = "stall-chunk.bin", .size = 5000, .fault = {.stall_after_bytes = 700, .stall_s = 2.5, .times = 1},
       .ranges = "0-999 700-1699 1700-2699 2700-3699 3700-4699 4700-4999", .stalls = true},
      {.path = "stall-whole.bin", .size = 900, .fault = {.stall_after_bytes = 700, .stall_s = 2.5, .times = 1},
       .ranges = "whole 700-", .stalls = true},
      // A head that does not come in time is asked for again at once, within
      // the attempt; any other failed answer waits for the next attempt.
      {.path = "late-head-twice.bin", .size = 900, .fault = {.delay_before_head_s = 1.5, .times = 2},
       .ranges = "whole whole whole", .waits = {"0.25", "0.50"}, .late_head = true},
      {.path = "gone.bin", .size = 10, .fault = {.status = 404}, .retries = 5,
       .ranges = "whole whole whole whole whole", .waits = {"0.25", "0.50", "1.00", "1.00"},
       .failure = "Download failed for gone.bin after 5 attempts: Download failed for gone.bin: HTTP 404"},
      {.path = "wrong.bin", .size = 3000, .fault = {.wrong_bytes = true},
       .ranges = "0-999 1000-1999 2000-2999 0-999 1000-1999 2000-2999 0-999 1000-1999 2000-2999",
       .waits = {"0.25", "0.50"},
       .failure = "Checksum failure for wrong.bin after 3 attempts: expected " + _sha256(wrong) + ", got " +
                  _sha256(flipped(wrong)),
       .left = flipped(wrong)},
      // A short file is refused only when the last attempt resumed and grew...
      {.path = "short.bin", .size = 900, .fault = {.cut_after_bytes = 200}, .ranges = "whole 200- 400-",
       .waits = {"0.25", "0.50"},
       .failure = "Download failed for short.bin after 3 attempts: "
                  "Incomplete download for short.bin after 3 attempts: got 600 bytes, expected 900",
       .left = shorter.substr(0, 600)},
      // ...a single attempt from nothing leaves the verdict to the digest.
      {.path = "short1.bin", .size = 900, .fault = {.cut_after_bytes = 200}, .retries = 1, .ranges = "whole",
       .failure = "Checksum failure for short1.bin after 1 attempts: expected " + _sha256(shorter) + ", got " +
                  _sha256(shorter.substr(0, 200))},
      {.path = "empty.bin", .size = 2000, .fault = {.empty_206 = true}, .retries = 1, .ranges = "0-999",
       .failure = "Download failed for empty.bin after 1 attempts: Download failed for empty.bin: empty range 0-999"},
  };
  for (const bool batch : {false, true}) {
    for (const Case& c : cases) {
      // A batch gives every file three attempts, and no callback.
      if (batch && c.retries != 3) continue;
      SCOPED_TRACE((batch ? "batch " : "") + c.path);
      // What the single download left goes, so that the batch starts as it did.
      remove_file(path(c.path));
      remove_file(path(c.path + ".tmp"));
      store_.clear_requests();
      const std::string content = numbered_bytes(c.size);
      publish(c.path, content, "", c.fault);
      if (!c.staged.empty()) put_local(c.path + ".tmp", c.staged);
      waits_.clear();
      SyncResult result;
      auto run = [&](int retries) { batch ? download_in_batch(c.path, result) : download(c.path, result, retries); };
      if (c.stalls) {
        EXPECT_THROW(run(3), TimeoutError);
        EXPECT_EQ(read_file(path(c.path + ".tmp")), content.substr(0, 700));
      }
      EXPECT_EQ(outcome([&] { run(c.retries); }), c.failure.empty() ? "ok" : "IntegrityError: " + c.failure);
      EXPECT_EQ(ranges(c.path), c.ranges);
      std::vector<std::string> expected_waits;
      for (const char* s : c.waits) {
        if (!batch && !c.late_head) expected_waits.push_back(std::string("callback ") + s);
        expected_waits.push_back(std::string("sleep ") + s);
      }
      EXPECT_EQ(waits_.events(), expected_waits);
      EXPECT_EQ(path_exists(path(c.path)) && read_file(path(c.path)) == content, c.failure.empty());
      if (c.failure.empty()) {
        EXPECT_FALSE(path_exists(path(c.path + ".tmp")));
      } else if (c.left) {
        EXPECT_EQ(read_file(path(c.path + ".tmp")), *c.left);
      }
      // A resumed part counts too; a failure counts nothing.
      const std::int64_t companion = batch ? (c.stalls ? 2 : 1) : 0;
      const SyncResult counted{.bytes_downloaded = static_cast<std::int64_t>(c.size) + companion};
      EXPECT_EQ(result, c.failure.empty() ? counted : SyncResult{.bytes_downloaded = companion});
    }
  }
  // ...and without a digest the short file is taken.
  remove_file(path("short1.bin.tmp"));
  entries_["short1.bin"]["sha256"] = "";
  SyncResult result;
  download("short1.bin", result, 1);
  EXPECT_EQ(read_file(path("short1.bin")), shorter.substr(0, 200));
  EXPECT_EQ(result.bytes_downloaded, 200);
}

// Retry waits can be held, so that downloads stay running as long as a test
// needs.
class ParallelDownload : public Download {
 protected:
  void SetUp() override {
    Download::SetUp();
    // Bounded, so that a batch that wrongly waits for its workers fails
    // rather than hangs.
    fixture_sleep_ = replace_sleep([this](double) {
      if (hold_ && !release_.wait(10.0)) gave_up_ = true;
    });
  }
  void TearDown() override {
    release_.set();
    drain();
    replace_sleep(fixture_sleep_);
    Download::TearDown();
  }

  // Waits until workers left behind by a timed-out batch have ended, so
  // that none outlives the servers and directory of the test.
  void drain() {
    manager_.reset();
    while (pool_threads_alive()) std::this_thread::yield();
  }

  std::atomic<bool> hold_{false};
  Event release_;
  std::atomic<bool> gave_up_{false};

  SleepFunction fixture_sleep_;
};

TEST_F(ParallelDownload, AFailedFileIsRaisedAfterTheOthersAreSummed) {
  env_.set("QUILLMARSH_SYNC_MAX_CONCURRENCY", "3");
  // b fails at once, long before the others can finish; they need a retry each.
  publish("a.bin", std::string(1500, 'a'), "feature", {.status = 503, .times = 1});
  publish("b.bin", "bbb");
  entries_["b.bin"]["base_url"] = "http://127.0.0.1:1/bucket";
  publish("c.bin", std::string(2500, 'c'), "", {.status = 503, .times = 1});

  SyncResult result;
  EXPECT_EQ(outcome([&] { manager_->_download_files_parallel(entries_, result); }),
            "ManifestError: Manifest base_url must be an absolute HTTPS R2 URL");
  EXPECT_EQ(result.bytes_downloaded, 4000);
  EXPECT_EQ(result.features_downloaded, 1);
  EXPECT_EQ(read_file(path("a.bin")), std::string(1500, 'a'));
  EXPECT_EQ(read_file(path("c.bin")), std::string(2500, 'c'));
  EXPECT_FALSE(path_exists(path("b.bin")));
}

TEST_F(ParallelDownload, ATimedOutBatchNamesWhatIsPendingAndLeavesRunningDownloads) {
  env_.set("QUILLMARSH_SYNC_PARALLEL_TIMEOUT_SECONDS", "0.2");
  env_.set("QUILLMARSH_SYNC_MAX_CONCURRENCY", "2");
  // Every file fails its first attempt, and its retry wait is held.
  for (const std::string name : {"a.bin", "b.bin", "c.bin", "d.bin"}) {
    publish(name, std::string(100, name[0]), "", {.empty_206 = true, .times = 1});
  }
  hold_ = true;
  SyncResult result;
  const auto [message, cause] = outcome_and_cause([&] { manager_->_download_files_parallel(entries_, result); });
  EXPECT_EQ(message,
            "SyncError: Timed out after 0.2s in parallel download with 4 file(s) pending: a.bin, b.bin, c.bin, ...");
  EXPECT_TRUE(cause.starts_with("FuturesTimeoutError: ")) << cause;
  // Returned while its workers were still held.
  EXPECT_FALSE(gave_up_);
  EXPECT_EQ(result, SyncResult{});
  release_.set();
  drain();
  // What was running finished by itself; what was queued never began.
  for (const std::string name : {"a.bin", "b.bin"}) {
    EXPECT_EQ(path_exists(path(name)), store_.request_count("/bucket/" + name) > 0) << name;
  }
  EXPECT_EQ(store_.request_count("/bucket/c.bin"), 0u);
  EXPECT_EQ(store_.request_count("/bucket/d.bin"), 0u);
}

}  // namespace
}  // namespace quillmarsh::sync
