#include <gtest/gtest.h>

#include <map>

#include "sync/errors.h"
#include "sync/support/posix_file.h"
#include "tests/support/sync_fixture.h"

namespace quillmarsh::sync {
namespace {

using testing::Fault;
using testing::outcome;
using testing::outcome_and_cause;

std::string numbered_bytes(std::size_t n) { return testing::pseudo_random_bytes(n, static_cast<std::uint32_t>(n)); }

std::string flipped(std::string bytes) {
  for (char& c : bytes) c = static_cast<char>(c ^ 0xFF);
  return bytes;
}

// Files span several chunks of 1000 bytes. Waits and retry callbacks are
// recorded in one sequence, so their order shows.
class Download : public testing::SyncFixture {
 protected:
  void SetUp() override {
    SyncFixture::SetUp();
    env_.set("QUILLMARSH_SYNC_HTTP_CHUNK_BYTES", "1000");
    fixture_sleep_ = replace_sleep([this](double s) { note("sleep", s); });
    manager_ = make_manager();
  }
  void TearDown() override {
    replace_sleep(fixture_sleep_);
    SyncFixture::TearDown();
  }

  // Serves `bytes` on the store and returns its entry, which names the store.
  Json publish(const std::string& path, const std::string& bytes, const std::string& kind = "") {
    Json entry = store_file(path, bytes, kind);
    entry["base_url"] = base_url();
    entries_[path] = entry;
    return entry;
  }

  void download(const std::string& path, SyncResult& result, int max_retries = 3) {
    manager_->_download_file(path, entries_.at(path), result, max_retries, [this](double s) { note("callback", s); });
  }

  // The Range header of every request for `path` ("" when none).
  std::vector<std::string> ranges(const std::string& path) const {
    std::vector<std::string> out;
    for (const auto& r : store_.requests()) {
      if (r.path == "/bucket/" + path) out.push_back(r.range.value_or(""));
    }
    return out;
  }
  std::vector<std::string> events() const { return events_.events(); }

  std::shared_ptr<SyncManager> manager_;
  std::map<std::string, Json> entries_;
  testing::EventLog events_;

 private:
  void note(const char* what, double s) { events_.add(std::string(what) + " " + std::to_string(s).substr(0, 4)); }
  SleepFunction fixture_sleep_;
};

TEST_F(Download, RequestsFollowTheChunkBoundaries) {
  const std::string exact = numbered_bytes(1000), above = numbered_bytes(1001), unsized = numbered_bytes(2500);
  publish("f/exact.bin", exact, "feature");
  publish("f/above.bin", above);
  publish("f/unsized.bin", unsized);
  entries_["f/unsized.bin"].erase("size_bytes");

  SyncResult result;
  download("f/exact.bin", result);
  download("f/above.bin", result);
  download("f/unsized.bin", result);

  EXPECT_EQ(ranges("f/exact.bin"), (std::vector<std::string>{""}));
  EXPECT_EQ(ranges("f/above.bin"), (std::vector<std::string>{"bytes=0-999", "bytes=1000-1000"}));
  EXPECT_EQ(ranges("f/unsized.bin"), (std::vector<std::string>{""}));
  EXPECT_EQ(read_file(path("f/above.bin")), above);
  EXPECT_EQ(read_file(path("f/unsized.bin")), unsized);
  EXPECT_FALSE(path_exists(path("f/above.bin.tmp")));
  EXPECT_EQ(result.bytes_downloaded, 1000 + 1001 + 2500);
  EXPECT_EQ(result.features_downloaded, 1);
  EXPECT_TRUE(events().empty());
  // Kept alive across files, and the store never sees the token.
  EXPECT_EQ(store_.connection_count(), 1u);
  for (const auto& r : store_.requests()) EXPECT_EQ(r.header("Authorization"), std::nullopt);
}

// A body that stalls past the timeout ends the call (a silent body is not
// retried), but every byte that arrived before the stall is already staged:
// the next call asks only for what is missing.
TEST_F(Download, BytesThatArrivedBeforeAStallAreStagedAndNeverFetchedAgain) {
  env_.set("QUILLMARSH_SYNC_HTTP_TIMEOUT_SECONDS", "1.0");
  const std::string content = numbered_bytes(5000);
  struct Case {
    const char* name;
    std::string path;
    std::size_t size;
    std::vector<std::string> ranges;
  };
  const Case cases[] = {
      {"inside a chunk", "stall/chunked.bin", 5000,
       {"bytes=0-999", "bytes=700-1699", "bytes=1700-2699", "bytes=2700-3699", "bytes=3700-4699", "bytes=4700-4999"}},
      {"inside a whole answer", "stall/whole.bin", 900, {"", "bytes=700-"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    publish(c.path, content.substr(0, c.size));
    store_.fault("/bucket/" + c.path, Fault{.stall_after_bytes = 700, .stall_s = 2.5, .times = 1});
    SyncResult result;
    EXPECT_THROW(download(c.path, result), TimeoutError);
    EXPECT_EQ(read_file(path(c.path + ".tmp")), content.substr(0, 700));
    download(c.path, result);
    EXPECT_EQ(ranges(c.path), c.ranges);
    EXPECT_TRUE(read_file(path(c.path)) == content.substr(0, c.size));
    EXPECT_FALSE(path_exists(path(c.path + ".tmp")));
  }
}

// Each case fails once somewhere in a file of five chunks; the next attempt
// (or the same one, for a short ranged answer) goes on from the bytes staged,
// rebuilding their digest rather than fetching them again.
TEST_F(Download, AFailureResumesWhereTheBytesStopped) {
  const std::string content = numbered_bytes(5000);
  struct Case {
    const char* name;
    Fault fault;
    std::size_t staged;  // bytes left by an earlier run
    std::vector<std::string> ranges;
    bool waited;
  };
  const Case cases[] = {
      {"whole answer cut in the third chunk", {.cut_after_bytes = 2500, .ignore_range = true, .times = 1}, 0,
       {"bytes=0-999", "bytes=2500-3499", "bytes=3500-4499", "bytes=4500-4999"}, true},
      {"ranged answer cut short", {.cut_after_bytes = 300, .times = 1}, 0,
       {"bytes=0-999", "bytes=300-1299", "bytes=1300-2299", "bytes=2300-3299", "bytes=3300-4299", "bytes=4300-4999"},
       false},
      {"third request fails", {.status = 503, .times = 1, .skip = 2}, 0,
       {"bytes=0-999", "bytes=1000-1999", "bytes=2000-2999", "bytes=2000-2999", "bytes=3000-3999", "bytes=4000-4999"},
       true},
      {"empty range", {.empty_206 = true, .times = 1}, 0,
       {"bytes=0-999", "bytes=0-999", "bytes=1000-1999", "bytes=2000-2999", "bytes=3000-3999", "bytes=4000-4999"},
       true},
      {"whole answer mid-file", {.ignore_range = true, .times = 1}, 2000,
       {"bytes=2000-2999", "bytes=2000-2999", "bytes=3000-3999", "bytes=4000-4999"}, true},
      // From the start a whole answer is as good as the ranges.
      {"whole answer from the start", {.ignore_range = true}, 0, {"bytes=0-999"}, false},
  };
  int n = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string name = "resume/" + std::to_string(n++) + ".bin";
    publish(name, content);
    store_.fault("/bucket/" + name, c.fault);
    if (c.staged) put_local(name + ".tmp", content.substr(0, c.staged));
    events_.clear();
    SyncResult result;
    download(name, result);
    EXPECT_EQ(ranges(name), c.ranges);
    const std::vector<std::string> waits = {"callback 0.25", "sleep 0.25"};
    EXPECT_EQ(events(), c.waited ? waits : std::vector<std::string>{});
    EXPECT_TRUE(read_file(path(name)) == content);
    EXPECT_EQ(result.bytes_downloaded, 5000);  // a resumed part counts too
  }
}

TEST_F(Download, HalfRangesMoveOnByWhatCame) {
  const std::string content = numbered_bytes(5000);
  publish("half.bin", content);
  store_.fault("/bucket/half.bin", {.half_range = true});

  SyncResult result;
  download("half.bin", result);
  // Each request asks for a full chunk from where the last answer ended.
  std::int64_t offset = 0;
  for (const std::string& asked : ranges("half.bin")) {
    const std::int64_t end = std::min<std::int64_t>(offset + 999, 4999);
    EXPECT_EQ(asked, "bytes=" + std::to_string(offset) + "-" + std::to_string(end));
    offset += std::max<std::int64_t>(1, (end - offset + 1) / 2);
  }
  EXPECT_EQ(offset, 5000);
  EXPECT_EQ(read_file(path("half.bin")), content);
  EXPECT_TRUE(events().empty());
}

TEST_F(Download, AStagingFileThatHoldsAllItsBytesIsJudgedByItsDigestNotAskedFor) {
  // Left whole by a process killed just before its rename: no request.
  const std::string whole = numbered_bytes(900);
  publish("whole.bin", whole);
  write_file(path("whole.bin.tmp"), whole);
  // Longer than the file, or the right length with wrong bytes: emptied,
  // then fetched afresh, where a range after the end would get 416 forever.
  const std::string longer = numbered_bytes(800), spoiled = numbered_bytes(700);
  publish("longer.bin", longer);
  write_file(path("longer.bin.tmp"), std::string(950, 'x'));
  publish("spoiled.bin", spoiled);
  write_file(path("spoiled.bin.tmp"), flipped(spoiled));

  SyncResult result;
  for (const char* name : {"whole.bin", "longer.bin", "spoiled.bin"}) download(name, result);
  EXPECT_TRUE(ranges("whole.bin").empty());
  EXPECT_EQ(ranges("longer.bin"), (std::vector<std::string>{""}));
  EXPECT_EQ(ranges("spoiled.bin"), (std::vector<std::string>{""}));
  EXPECT_EQ(read_file(path("whole.bin")), whole);
  EXPECT_EQ(read_file(path("longer.bin")), longer);
  EXPECT_EQ(read_file(path("spoiled.bin")), spoiled);
  EXPECT_EQ(events(), (std::vector<std::string>{"callback 0.25", "sleep 0.25", "callback 0.25", "sleep 0.25"}));
}

TEST_F(Download, WrongBytesEmptyTheStagingFileBeforeEachNewAttempt) {
  const std::string content = numbered_bytes(3000);
  publish("wrong.bin", content);
  store_.fault("/bucket/wrong.bin", {.wrong_bytes = true});
  SyncResult result;
  EXPECT_EQ(outcome([&] { download("wrong.bin", result); }),
            "IntegrityError: Checksum failure for wrong.bin after 3 attempts: expected " + _sha256(content) +
                ", got " + _sha256(flipped(content)));
  const std::vector<std::string> one_pass{"bytes=0-999", "bytes=1000-1999", "bytes=2000-2999"};
  std::vector<std::string> three_passes;
  for (int i = 0; i < 3; ++i) three_passes.insert(three_passes.end(), one_pass.begin(), one_pass.end());
  EXPECT_EQ(ranges("wrong.bin"), three_passes);
  // The last attempt never waits.
  EXPECT_EQ(events(), (std::vector<std::string>{"callback 0.25", "sleep 0.25", "callback 0.50", "sleep 0.50"}));
  EXPECT_FALSE(path_exists(path("wrong.bin")));
  EXPECT_EQ(read_file(path("wrong.bin.tmp")), flipped(content));  // kept for inspection
  EXPECT_EQ(result, SyncResult{});
}

TEST_F(Download, EveryFailureEndsAsIntegrityErrorAfterAllAttempts) {
  publish("gone.bin", numbered_bytes(10));
  store_.fault("/bucket/gone.bin", {.status = 404});
  SyncResult result;
  EXPECT_EQ(outcome([&] { download("gone.bin", result, 5); }),
            "IntegrityError: Download failed for gone.bin after 5 attempts: Download failed for gone.bin: HTTP 404");
  EXPECT_EQ(ranges("gone.bin").size(), 5u);
  // Waits double up to one second.
  EXPECT_EQ(events(), (std::vector<std::string>{"callback 0.25", "sleep 0.25", "callback 0.50", "sleep 0.50",
                                                "callback 1.00", "sleep 1.00", "callback 1.00", "sleep 1.00"}));

  // No retries asked for is still one attempt.
  store_.clear_requests();
  EXPECT_EQ(outcome([&] { download("gone.bin", result, -2); }),
            "IntegrityError: Download failed for gone.bin after 1 attempts: Download failed for gone.bin: HTTP 404");
  EXPECT_EQ(ranges("gone.bin").size(), 1u);
  EXPECT_EQ(events().size(), 8u);

  // An empty range on the last attempt is the failure the message carries.
  publish("empty.bin", numbered_bytes(2000));
  store_.fault("/bucket/empty.bin", {.empty_206 = true});
  EXPECT_EQ(outcome_and_cause([&] { download("empty.bin", result, 1); }).cause,
            "SyncError: Download failed for empty.bin: empty range 0-999");
  EXPECT_EQ(result, SyncResult{});
}

TEST_F(Download, AShortFileIsRefusedOnlyWhenTheLastAttemptResumedAndGrew) {
  const std::string content = numbered_bytes(900);
  // Every answer ends after 200 bytes.
  publish("short.bin", content);
  store_.fault("/bucket/short.bin", {.cut_after_bytes = 200});
  SyncResult result;
  EXPECT_EQ(outcome([&] { download("short.bin", result); }),
            "IntegrityError: Download failed for short.bin after 3 attempts: "
            "Incomplete download for short.bin after 3 attempts: got 600 bytes, expected 900");
  EXPECT_EQ(ranges("short.bin"), (std::vector<std::string>{"", "bytes=200-", "bytes=400-"}));
  EXPECT_EQ(read_file(path("short.bin.tmp")), content.substr(0, 600));

  // A single attempt from nothing leaves the verdict to the digest...
  remove_file(path("short.bin.tmp"));
  EXPECT_EQ(outcome([&] { download("short.bin", result, 1); }),
            "IntegrityError: Checksum failure for short.bin after 1 attempts: expected " + _sha256(content) +
                ", got " + _sha256(content.substr(0, 200)));
  EXPECT_EQ(result, SyncResult{});

  // ...and without a digest the short file is taken.
  remove_file(path("short.bin.tmp"));
  entries_["short.bin"]["sha256"] = "";
  download("short.bin", result, 1);
  EXPECT_EQ(read_file(path("short.bin")), content.substr(0, 200));
  EXPECT_EQ(result.bytes_downloaded, 200);
}

// Without either, the manifest in force names the store: VerifyRepair's
// repairs go that way.
TEST_F(Download, TheManifestsBaseUrlWinsOverTheEntrysOwn) {
  const std::string content = numbered_bytes(50);
  publish("where.bin", content);
  entries_["where.bin"]["base_url"] = "https://127.0.0.1:1/bucket";  // refused were it asked
  entries_["where.bin"]["_manifest_base_url"] = base_url();
  SyncResult result;
  download("where.bin", result);
  EXPECT_EQ(read_file(path("where.bin")), content);
  EXPECT_TRUE(events().empty());
}

}  // namespace
}  // namespace quillmarsh::sync
