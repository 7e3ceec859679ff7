#include <gtest/gtest.h>

#include <map>

#include "sync/errors.h"
#include "sync/support/posix_file.h"
#include "tests/support/sync_fixture.h"

namespace quillmarsh::sync {
namespace {

using testing::Fault;
using testing::outcome;

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
  void publish(const std::string& path, const std::string& bytes, const std::string& kind = "", Fault fault = {.times = 0}) {
    entries_[path] = store_file(path, bytes, kind);
    entries_[path]["base_url"] = base_url();
    store_.fault("/bucket/" + path, fault);
  }
  void download(const std::string& path, SyncResult& result, int max_retries = 3) {
    manager_->_download_file(path, entries_.at(path), result, max_retries,
                             [this](double s) { waits_.add("callback " + std::to_string(s).substr(0, 4)); });
  }
  // The Range header of every request for `path` ("" when none).
  std::vector<std::string> ranges(const std::string& path) const {
    std::vector<std::string> out;
    for (const auto& r : store_.requests()) {
      if (r.path == "/bucket/" + path) out.push_back(r.range.value_or(""));
    }
    return out;
  }
  // The callback-then-sleep pairs of these waits.
  static std::vector<std::string> waits(const std::vector<const char*>& seconds) {
    std::vector<std::string> out;
    for (const char* s : seconds) out.insert(out.end(), {std::string("callback ") + s, std::string("sleep ") + s});
    return out;
  }

  std::shared_ptr<SyncManager> manager_;
  std::map<std::string, Json> entries_;
};

TEST_F(Download, RequestsFollowTheChunkBoundariesOnOneConnectionWithoutTheToken) {
  const std::string exact = numbered_bytes(1000), above = numbered_bytes(1001), unsized = numbered_bytes(2500);
  publish("f/exact.bin", exact, "feature");
  publish("f/above.bin", above);
  publish("f/unsized.bin", unsized);
  entries_["f/unsized.bin"].erase("size_bytes");
  // The manifest in force names the store over the entry's own base URL:
  // repairs go that way.
  entries_["f/unsized.bin"]["base_url"] = "https://127.0.0.1:1/bucket";  // refused were it asked
  entries_["f/unsized.bin"]["_manifest_base_url"] = base_url();

  SyncResult result;
  for (const char* name : {"f/exact.bin", "f/above.bin", "f/unsized.bin"}) download(name, result);
  EXPECT_EQ(ranges("f/exact.bin"), (std::vector<std::string>{""}));
  EXPECT_EQ(ranges("f/above.bin"), (std::vector<std::string>{"bytes=0-999", "bytes=1000-1000"}));
  EXPECT_EQ(ranges("f/unsized.bin"), (std::vector<std::string>{""}));
  EXPECT_EQ(read_file(path("f/above.bin")), above);
  EXPECT_EQ(read_file(path("f/unsized.bin")), unsized);
  EXPECT_FALSE(path_exists(path("f/above.bin.tmp")));
  EXPECT_EQ(result.bytes_downloaded, 1000 + 1001 + 2500);
  EXPECT_EQ(result.features_downloaded, 1);
  EXPECT_TRUE(waits_.events().empty());
  EXPECT_EQ(store_.connection_count(), 1u);
  for (const auto& r : store_.requests()) EXPECT_EQ(r.header("Authorization"), std::nullopt);
}

// Each case misbehaves somewhere in a file, or finds bytes staged by an
// earlier run; the download goes on from the bytes staged, rebuilding their
// digest rather than fetching them again, and ends with the whole file. A
// body that stalls past the timeout ends the call (a silent body is not
// retried), with what came before the stall staged for the next call.
TEST_F(Download, EveryRecoverableFaultResumesWhereTheBytesStopped) {
  env_.set("QUILLMARSH_SYNC_HTTP_TIMEOUT_SECONDS", "1.0");
  struct Case {
    const char* name;
    std::size_t size;
    Fault fault;
    std::string staged;  // left by an earlier run
    std::vector<std::string> ranges;
    std::vector<const char*> waits = {};
    bool stalls = false;
  };
  const Case cases[] = {
      {"whole answer cut in the third chunk", 5000, {.cut_after_bytes = 2500, .ignore_range = true, .times = 1}, "",
       {"bytes=0-999", "bytes=2500-3499", "bytes=3500-4499", "bytes=4500-4999"}, {"0.25"}},
      {"ranged answer cut short", 5000, {.cut_after_bytes = 300, .times = 1}, "",
       {"bytes=0-999", "bytes=300-1299", "bytes=1300-2299", "bytes=2300-3299", "bytes=3300-4299", "bytes=4300-4999"}},
      {"third request fails", 5000, {.status = 503, .times = 1, .skip = 2}, "",
       {"bytes=0-999", "bytes=1000-1999", "bytes=2000-2999", "bytes=2000-2999", "bytes=3000-3999", "bytes=4000-4999"},
       {"0.25"}},
      {"empty range", 5000, {.empty_206 = true, .times = 1}, "",
       {"bytes=0-999", "bytes=0-999", "bytes=1000-1999", "bytes=2000-2999", "bytes=3000-3999", "bytes=4000-4999"},
       {"0.25"}},
      {"whole answer mid-file", 5000, {.ignore_range = true, .times = 1}, numbered_bytes(5000).substr(0, 2000),
       {"bytes=2000-2999", "bytes=2000-2999", "bytes=3000-3999", "bytes=4000-4999"}, {"0.25"}},
      // From the start a whole answer is as good as the ranges.
      {"whole answer from the start", 5000, {.ignore_range = true}, "", {"bytes=0-999"}},
      // Each asks a full chunk from where the last answer ended.
      {"half ranges", 1001, {.half_range = true}, "",
       {"bytes=0-999", "bytes=500-1000", "bytes=750-1000", "bytes=875-1000", "bytes=938-1000", "bytes=969-1000",
        "bytes=985-1000", "bytes=993-1000", "bytes=997-1000", "bytes=999-1000", "bytes=1000-1000"}},
      // Left whole by a process killed just before its rename: no request.
      {"staged whole", 900, {.times = 0}, numbered_bytes(900), {}},
      // Longer than the file, or the right length with wrong bytes: emptied,
      // then fetched afresh, where a range after the end would get 416 forever.
      {"staged longer", 800, {.times = 0}, std::string(950, 'x'), {""}, {"0.25"}},
      {"staged spoiled", 700, {.times = 0}, flipped(numbered_bytes(700)), {""}, {"0.25"}},
      {"stall inside a chunk", 5000, {.stall_after_bytes = 700, .stall_s = 2.5, .times = 1}, "",
       {"bytes=0-999", "bytes=700-1699", "bytes=1700-2699", "bytes=2700-3699", "bytes=3700-4699", "bytes=4700-4999"},
       {}, true},
      {"stall inside a whole answer", 900, {.stall_after_bytes = 700, .stall_s = 2.5, .times = 1}, "",
       {"", "bytes=700-"}, {}, true},
  };
  int n = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string name = "resume/" + std::to_string(n++) + ".bin", content = numbered_bytes(c.size);
    publish(name, content, "", c.fault);
    if (!c.staged.empty()) put_local(name + ".tmp", c.staged);
    waits_.clear();
    SyncResult result;
    if (c.stalls) {
      EXPECT_THROW(download(name, result), TimeoutError);
      EXPECT_EQ(read_file(path(name + ".tmp")), content.substr(0, 700));
    }
    download(name, result);
    EXPECT_EQ(ranges(name), c.ranges);
    EXPECT_EQ(waits_.events(), waits(c.waits));
    EXPECT_TRUE(read_file(path(name)) == content);
    EXPECT_FALSE(path_exists(path(name + ".tmp")));
    if (!c.stalls) {
      EXPECT_EQ(result.bytes_downloaded, c.size);  // a resumed part counts too
    }
  }
}

// Every failure ends as IntegrityError after all attempts; waits double up
// to one second and the last attempt never waits. Wrong bytes empty the
// staging file before each new attempt but stay for inspection at the end.
TEST_F(Download, EveryFailureEndsAsIntegrityErrorNamingItsLastCause) {
  const std::string wrong = numbered_bytes(3000), shorter = numbered_bytes(900);
  const std::vector<std::string> one_pass{"bytes=0-999", "bytes=1000-1999", "bytes=2000-2999"};
  struct Case {
    std::string path;
    std::size_t size;
    Fault fault;
    int retries;
    std::string message;
    std::vector<std::string> ranges;
    std::vector<const char*> waits;
    std::optional<std::string> staged = {};  // left in the staging file
  };
  const Case cases[] = {
      {"gone.bin", 10, {.status = 404}, 5,
       "Download failed for gone.bin after 5 attempts: Download failed for gone.bin: HTTP 404",
       {"", "", "", "", ""}, {"0.25", "0.50", "1.00", "1.00"}},
      // No retries asked for is still one attempt.
      {"gone1.bin", 10, {.status = 404}, -2,
       "Download failed for gone1.bin after 1 attempts: Download failed for gone1.bin: HTTP 404", {""}, {}},
      {"wrong.bin", 3000, {.wrong_bytes = true}, 3,
       "Checksum failure for wrong.bin after 3 attempts: expected " + _sha256(wrong) + ", got " + _sha256(flipped(wrong)),
       {one_pass[0], one_pass[1], one_pass[2], one_pass[0], one_pass[1], one_pass[2], one_pass[0], one_pass[1],
        one_pass[2]},
       {"0.25", "0.50"}, flipped(wrong)},
      // A short file is refused only when the last attempt resumed and grew...
      {"short.bin", 900, {.cut_after_bytes = 200}, 3,
       "Download failed for short.bin after 3 attempts: "
       "Incomplete download for short.bin after 3 attempts: got 600 bytes, expected 900",
       {"", "bytes=200-", "bytes=400-"}, {"0.25", "0.50"}, shorter.substr(0, 600)},
      // ...a single attempt from nothing leaves the verdict to the digest.
      {"short1.bin", 900, {.cut_after_bytes = 200}, 1,
       "Checksum failure for short1.bin after 1 attempts: expected " + _sha256(shorter) + ", got " +
           _sha256(shorter.substr(0, 200)),
       {""}, {}},
      {"empty.bin", 2000, {.empty_206 = true}, 1,
       "Download failed for empty.bin after 1 attempts: Download failed for empty.bin: empty range 0-999",
       {"bytes=0-999"}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    publish(c.path, numbered_bytes(c.size), "", c.fault);
    waits_.clear();
    SyncResult result;
    EXPECT_EQ(outcome([&] { download(c.path, result, c.retries); }), "IntegrityError: " + c.message);
    EXPECT_EQ(ranges(c.path), c.ranges);
    EXPECT_EQ(waits_.events(), waits(c.waits));
    EXPECT_FALSE(path_exists(path(c.path)));
    if (c.staged) {
      EXPECT_EQ(read_file(path(c.path + ".tmp")), *c.staged);
    }
    EXPECT_EQ(result, SyncResult{});
  }
  // ...and without a digest the short file is taken.
  remove_file(path("short1.bin.tmp"));
  entries_["short1.bin"]["sha256"] = "";
  SyncResult result;
  download("short1.bin", result, 1);
  EXPECT_EQ(read_file(path("short1.bin")), shorter.substr(0, 200));
  EXPECT_EQ(result.bytes_downloaded, 200);
}

}  // namespace
}  // namespace quillmarsh::sync
