// The poll thread: start and stop, the sweep on stop, the cheap check that
// decides whether a pass is due, and a failing pass inside the loop.
#include <gtest/gtest.h>

#include <thread>

#include "sync/support/posix_file.h"
#include "tests/support/sync_fixture.h"
#include "tests/support/wait_until.h"

namespace quillmarsh::sync {
namespace {

using testing::Fault;
using testing::outcome;
using testing::SyncFixture;
using testing::TempDir;
using testing::wait_until;

class PollLoop : public SyncFixture {
 protected:
  bool manifest_on_disk() const { return path_exists(path("manifest.json")); }
};

TEST_F(PollLoop, PollsAtOnceOnStartSweepsTmpFilesOnStopAndStartsAgain) {
  write_file(path("left.tmp"), "x");
  publish(with_artefacts(manifest(1, 5)));
  auto m = make_manager(600.0);  // a poll that waited one interval would never come here
  m->stop();  // an idle manager: silent, and sweeps nothing
  EXPECT_TRUE(log_.records().empty());
  EXPECT_TRUE(path_exists(path("left.tmp")));

  m->start();
  const auto thread = m->_sync_thread.load();
  ASSERT_NE(thread, nullptr);
  EXPECT_EQ(outcome([&] { m->start(); }), "StateError: SyncManager already running");
  EXPECT_EQ(m->_sync_thread.load(), thread);
  // Once manifest.json is written, the pass's own sweep lies behind it.
  ASSERT_TRUE(wait_until([&] { return manifest_on_disk(); }));
  make_dirs(path("features/u"));
  for (const char* name : {"a.tmp", "features/u/b.tmp", "features/c.tmp", "a.tmpx", "tmp", "d.tmp.bak"}) {
    write_file(path(name), "x");
  }
  m->stop();
  EXPECT_FALSE(thread->is_alive());
  EXPECT_EQ(m->get_manifest()->version, 5);
  for (const char* gone : {"a.tmp", "features/u/b.tmp", "features/c.tmp"}) {
    EXPECT_FALSE(path_exists(path(gone))) << gone;
  }
  for (const char* kept : {"a.tmpx", "tmp", "d.tmp.bak", "manifest.json"}) EXPECT_TRUE(path_exists(path(kept))) << kept;

  publish(with_artefacts(manifest(1, 6)));
  m->start();
  EXPECT_TRUE(wait_until([&] { return m->get_manifest()->version == 6; }));
  m->stop();
}

TEST_F(PollLoop, StopWaitsForAPassRunOnAnotherThread) {
  publish(with_artefacts(manifest(1, 2)));
  api_.fault("/data/manifest", Fault{.delay_before_head_s = 0.5});
  auto m = make_manager();
  std::string foreground;
  std::jthread pass([&] { foreground = outcome([&] { m->sync(); }); });
  ASSERT_TRUE(wait_until([&] { return api_.request_count("/data/manifest") == 1; }));
  m->start();  // its first poll finds the pass lock taken and skips
  m->stop();
  EXPECT_TRUE(manifest_on_disk());  // the foreground pass had finished
  pass.join();
  EXPECT_EQ(foreground, "ok");
}

TEST_F(PollLoop, NeedsSyncIsFalseOnlyOnPositiveAgreement) {
  put_local("features/u/a.bin", "abc");
  Json files = Json::object();
  files["features/u/a.bin"] = {{"size_bytes", 3}, {"sha256", _sha256("abc")}, {"kind", "feature"}};
  write_local_artefacts(files, 1);
  _write_manifest_json(dir_.path(), manifest(1, 3, files));
  const std::string digest = _sha256(read_file(path("manifest.json")));
  const std::string wrong(64, '0');
  auto m = make_manager();
  auto check = [&](const Json& doc, bool expected) {
    SCOPED_TRACE(doc.dump());
    publish(manifest(1, 3), doc);
    EXPECT_EQ(m->needs_sync(), expected);
  };
  check({{"version", 3}}, false);
  check({{"version", 3}, {"manifest_sha256", digest}}, false);
  check({{"version", 3}, {"manifest_sha256", wrong}}, true);
  check({{"version", 3}, {"manifest_sha256", ""}, {"sha256", wrong}}, true);
  check({{"version", 3}, {"manifest_sha", wrong}}, true);
  check({{"version", 3}, {"manifest_sha256", digest}, {"sha256", wrong}}, false);  // the first one decides
  // A digest of another kind is given as well, and cannot agree; zero and
  // false are not given.
  check({{"version", 3}, {"manifest_sha256", 12}, {"sha256", digest}}, true);
  check({{"version", 3}, {"manifest_sha256", 0}, {"manifest_sha", false}, {"sha256", digest}}, false);
  check({{"version", 4}, {"manifest_sha256", digest}}, true);
  check(Json::object(), true);  // a missing version reads as 0

  publish(manifest(1, 3), Json{{"version", 3}});
  api_.fault("/data/manifest/version", Fault{.status = 503, .times = 1});
  EXPECT_TRUE(m->needs_sync());
  api_.put("/data/manifest/version", "{\"version\": ");
  EXPECT_THROW(m->needs_sync(), ValueError);  // a bad answer is a failure, not a reason to sync

  // The data files and manifest.json take part apart from each other.
  remove_file(path("features/u/a.bin"));
  check({{"version", 3}}, true);
  write_file(path("features/u/a.bin"), "abc");
  remove_file(path("manifest.json"));
  check({{"version", 3}}, false);
  check({{"version", 3}, {"manifest_sha256", digest}}, true);

  // No manifest: a pass is due.
  TempDir empty;
  api_.clear_requests();
  EXPECT_TRUE(SyncManager::create(empty.path(), api_.base_url(), [] { return std::string("t"); })->needs_sync());
  EXPECT_EQ(api_.request_count("/data/manifest/version"), 1u);
}

TEST_F(PollLoop, FailingPassIsLoggedReleasesItsLocksAndTheLoopGoesOn) {
  publish(with_artefacts(manifest(1, 1)));
  api_.fault("/data/manifest", Fault{.status = 500});
  auto m = make_manager(0.02);
  m->start();
  const std::string warning = "Poll once failed: Failed to fetch manifest: HTTP 500";
  ASSERT_TRUE(wait_until([&] { return log_.count(LogLevel::warning, warning) >= 2; }));
  for (const LogRecord& r : log_.records()) EXPECT_FALSE(r.message.starts_with("Poll loop iteration failed"));
  if (path_exists(path(".sync_flock"))) {
    m->_stop_event.set();  // stop() itself would wait for the kept lock
    FAIL() << "the failed pass kept the file lock";
  }
  api_.clear_fault("/data/manifest");
  m->sync();  // would block on a lock the failed pass kept
  EXPECT_EQ(m->get_manifest()->version, 1);
  m->stop();
}

}  // namespace
}  // namespace quillmarsh::sync
