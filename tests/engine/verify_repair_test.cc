// verify, repair and report_corruption against a manifest in force that an
// earlier run left on disk, with the object store serving the good bytes.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <optional>
#include <thread>

#include "sync/engine/platform.h"
#include "sync/errors.h"
#include "sync/support/posix_file.h"
#include "tests/support/sync_fixture.h"
#include "tests/support/wait_until.h"

namespace quillmarsh::sync {
namespace {

using testing::outcome;
using testing::SyncFixture;
using testing::wait_until;

class VerifyRepair : public SyncFixture {
 protected:
  // Serves `bytes` for `rel` and lists it in `files`; puts `local` on disk
  // unless it is absent.
  void add(Json& files, const std::string& rel, const std::string& bytes, std::optional<std::string> local,
           const std::string& kind = "") {
    files[rel] = store_file(rel, bytes, kind);
    if (local) put_local(rel, *local);
  }
  // A manager that finds `files`, as the manifest of era 3, on disk.
  std::shared_ptr<SyncManager> manager_over(const Json& files) {
    _write_manifest_json(dir_.path(), manifest(3, 7, files));
    return make_manager();
  }
  std::string local(const std::string& rel) const {
    return path_exists(path(rel)) ? read_file(path(rel)) : std::string("<missing>");
  }
  bool queue_empty(SyncManager& m) {
    std::lock_guard<std::mutex> lock(m._repair_lock);
    return m._repair_queue.empty();
  }
  // Whether the flock and its in-process lock are free again.
  bool flock_free(SyncManager& m) const {
    return !m._flock_lock.held_by_this_thread() && !m._flock_fd && !path_exists(path(".sync_flock"));
  }
};

TEST_F(VerifyRepair, VerifyListsMissingAndCorruptedFilesHashingAfresh) {
  EXPECT_EQ(make_manager()->verify(), VerifyResult{});  // no manifest: valid, nothing listed

  Json files = Json::object();
  add(files, "features/a.bin", "aaaa", "aaaa");
  add(files, "features/b.bin", "bbbb", "BBBB");  // same size, other bytes
  add(files, "features/c.bin", "cccc", "cc");
  add(files, "features/d.bin", "dddd", std::nullopt);
  files["features/e.bin"] = Json{{"size_bytes", 4}};  // no digest: the size decides
  put_local("features/e.bin", "eeee");
  files["features/f.bin"] = Json{{"sha256", _sha256("ffff")}};  // no size: counts as 0
  put_local("features/f.bin", "ffff");
  files["features/g.bin"] = Json{{"size_bytes", "4"}, {"sha256", _sha256("gggg")}};  // size as text
  put_local("features/g.bin", "gggg");
  files["modules/other.so"] = Json{{"size_bytes", 1}, {"kind", "vault_module"}, {"platform", "plan9_mips"}};
  files["modules/here.so"] = Json{{"size_bytes", 1}, {"kind", "backtester_module"}, {"platform", CURRENT_PLATFORM}};
  // No platform: needed everywhere.
  files["modules/any.so"] = Json{{"size_bytes", 1}, {"kind", "vault_module"}, {"platform", ""}};
  auto m = manager_over(files);

  // The cache claims b is fine; verify does not ask it. Whether it writes
  // what it hashed there costs writes only: the cache is left unchecked.
  m->_remember_local_sha("features/b.bin", path("features/b.bin"), _sha256("bbbb"));
  const VerifyResult result = m->verify();
  EXPECT_FALSE(result.valid);
  EXPECT_EQ(result.corrupted_files, (std::vector<std::string>{"features/b.bin", "features/c.bin", "features/f.bin",
                                                              "features/g.bin"}));
  EXPECT_EQ(result.missing_files, (std::vector<std::string>{"features/d.bin", "modules/here.so", "modules/any.so"}));
}

// A batch that fails ends at its first failure; a batch of what verify found
// restores the era and flushes the digest cache (resuming staged bytes is the
// Download table's). When a failed batch flushes the cache costs writes only.
TEST_F(VerifyRepair, RepairStopsAtTheFirstFailureAndRestoresWhatVerifyFound) {
  auto bare = make_manager();
  EXPECT_EQ(bare->repair({}), SyncResult{});
  EXPECT_THROW(bare->repair({"features/a.bin"}), StateError);  // no manifest: only an empty batch passes
  EXPECT_TRUE(flock_free(*bare));

  Json files = Json::object();
  add(files, "features/a.bin", "aaaa", "aaaa", "feature");
  add(files, "features/b.bin", "bbbb", "BBBB", "feature");
  add(files, "features/d.bin", "dddd", std::nullopt);
  add(files, "features/e.bin", "eeee", std::nullopt);
  store_.remove("/bucket/features/e.bin");
  auto m = manager_over(files);
  m->_remember_local_sha("features/b.bin", path("features/b.bin"), _sha256("BBBB"));
  EXPECT_THROW(m->repair({"features/e.bin", "features/b.bin"}), IntegrityError);
  EXPECT_EQ(store_.request_count("/bucket/features/b.bin"), 0u);
  EXPECT_EQ(local("features/b.bin"), "BBBB");
  EXPECT_TRUE(flock_free(*m));

  store_.put("/bucket/features/e.bin", "eeee");
  store_.clear_requests();
  const VerifyResult found = m->verify();
  std::vector<std::string> batch = found.corrupted_files;
  batch.insert(batch.end(), found.missing_files.begin(), found.missing_files.end());
  batch.push_back("features/unknown.bin");
  ASSERT_EQ(batch.size(), 4u);
  EXPECT_EQ(m->repair(batch), (SyncResult{.features_downloaded = 1, .bytes_downloaded = 12, .era_id = 3}));
  EXPECT_TRUE(m->verify().valid);  // hashes the bytes on disk afresh
  EXPECT_EQ(store_.request_count("/bucket/features/a.bin"), 0u);
  EXPECT_EQ(store_.request_count("/bucket/features/unknown.bin"), 0u);
  EXPECT_TRUE(flock_free(*m));
  const Json cache = parse_json_text(read_file(path(".sync_hash_cache.json")));
  EXPECT_EQ(cache["files"]["features/b.bin"]["sha256"], _sha256("bbbb"));
  EXPECT_EQ(cache["files"]["features/d.bin"]["sha256"], _sha256("dddd"));
  EXPECT_FALSE(m->_hash_cache_dirty);
}

TEST_F(VerifyRepair, ReportedFilesAreRepairedInTheBackgroundOfARunningService) {
  Json files = Json::object();
  add(files, "features/a.bin", "aaaa", "AAAA");
  add(files, "features/c.bin", "cccc", "CCCC");
  store_.remove("/bucket/features/c.bin");
  auto m = manager_over(files);
  EXPECT_EQ(outcome([&] { m->report_corruption("features/a.bin"); }),
            "StateError: Sync thread is not running. Call start() or acquire() first.");
  // Nothing is published, so the poll loop's own pass fails and repairs
  // nothing. An unknown path is the Python suite's case.
  m->start();
  ASSERT_TRUE(wait_until([&] { return logged_starting("Poll once failed: ") == 1; }));
  EXPECT_EQ(local("features/a.bin"), "AAAA");

  m->report_corruption("features/a.bin");
  EXPECT_TRUE(wait_until([&] { return local("features/a.bin") == "aaaa"; }));

  // A batch that fails is logged and dropped, not queued again.
  m->report_corruption("features/c.bin");
  const std::string repair_failed = "Background repair failed: Download failed for features/c.bin";
  EXPECT_TRUE(wait_until([&] { return logged_starting(repair_failed) == 1; }));
  EXPECT_TRUE(queue_empty(*m));
  EXPECT_EQ(local("features/c.bin"), "CCCC");

  m->stop();
  // Every repair thread lets go of the manager when it ends.
  EXPECT_TRUE(wait_until([&] { return m.use_count() == 1; }));
}

}  // namespace
}  // namespace quillmarsh::sync
