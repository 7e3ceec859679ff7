// One manager over its data directory: what it takes from the state files
// an earlier run left; the lock that serialises writing passes, flock(2)
// between holders of their own open descriptions (other processes, or this
// test's) and the owner-aware lock between threads of one process; and the
// poll thread: start and stop, its sweeps, the cheap check that decides
// whether a pass is due, and a failing pass inside the loop.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "sync/support/posix_file.h"
#include "tests/support/sync_fixture.h"
#include "tests/support/wait_until.h"

namespace quillmarsh::sync {
namespace {

using testing::Fault;
using testing::SyncFixture;
using testing::TempDir;
using testing::outcome;
using testing::wait_until;

class Manager : public SyncFixture {
 protected:
  // Whether a description of our own can take the file lock right now.
  bool lockable() const {
    const int fd = ::open(path(".sync_flock").c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return true;
    const bool taken = ::flock(fd, LOCK_EX | LOCK_NB) == 0;
    EXPECT_TRUE(taken || errno == EWOULDBLOCK) << errno;
    ::close(fd);
    return taken;
  }
};

TEST_F(Manager, UnreadableStateIsLoggedOnceAndLeftAsItIs) {
  const std::string broken = "{\"era_id\": 1, \"files\": ";
  write_file(path("manifest.json"), broken);
  write_file(path(".consumer_count"), "3.5");
  auto m = make_manager();
  EXPECT_EQ(m->get_manifest(), nullptr);
  EXPECT_EQ(m->_consumer_count, 0);
  EXPECT_EQ(read_file(path("manifest.json")), broken);
  EXPECT_EQ(logged_starting("Failed to load manifest from disk: "), 1u);
  EXPECT_EQ(logged_starting("Failed to read consumer count: "), 1u);
}

// Only retired entries (the manifest suite's business) may make the load
// write the file again: its bytes are what the server's digest is compared
// with.
TEST_F(Manager, ALoadWithNothingRetiredLeavesTheManifestFileAsItIs) {
  Json files = Json::object();
  files["found_signals/a/b/c/pnl.arrow"] = {{"sha256", "dd"}, {"kind", "found_signal_is_pnl"}};
  // Not the canonical text form, so any rewrite would change the bytes.
  const std::string text = manifest(1, 7, files).dump(2);
  write_file(path("manifest.json"), text);
  ASSERT_NE(make_manager()->get_manifest(), nullptr);
  EXPECT_EQ(read_file(path("manifest.json")), text);
}

// flock(2) excludes open file descriptions, not processes: a description of
// this test's own stands for another process's, which lets go as a manager
// does, the path unlinked before the lock.
TEST_F(Manager, APassWaitsForAnotherHolderToRelease) {
  publish(with_artefacts(manifest(1, 1)));
  const int held = ::open(path(".sync_flock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  ASSERT_EQ(::flock(held, LOCK_EX), 0);
  auto m = make_manager();
  std::atomic<bool> let_go{false};
  bool waited = false;
  std::string failure;
  std::jthread pass([&] {
    failure = testing::outcome([&] { m->sync(); });
    waited = let_go.load();
  });
  // Time for a lock that excludes nothing to let the pass through early.
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  let_go = true;
  remove_file(path(".sync_flock"));
  ::close(held);
  pass.join();
  EXPECT_EQ(failure, "ok");
  EXPECT_TRUE(waited);
  EXPECT_TRUE(path_exists(path("manifest.json")));
  EXPECT_FALSE(path_exists(path(".sync_flock")));
}

TEST_F(Manager, NestedAcquireGivesTheFileLockUpAtTheFirstReleaseAndStrayOrFailedCallsHoldNothing) {
  auto m = make_manager();
  EXPECT_NO_THROW(m->_release_flock());  // nobody holds anything
  m->_acquire_flock();
  m->_acquire_flock();
  // A release by a thread that never acquired changes nothing.
  std::jthread([&] { EXPECT_NO_THROW(m->_release_flock()); }).join();
  EXPECT_FALSE(lockable());
  m->_release_flock();
  EXPECT_FALSE(path_exists(path(".sync_flock")));
  EXPECT_FALSE(m->_flock_fd.has_value());
  EXPECT_TRUE(m->_flock_lock.held_by_this_thread());

  // Other threads still wait until the second release balances the first acquire.
  std::atomic<bool> second_released{false};
  bool waited = false;
  std::jthread other([&] {
    m->_acquire_flock();
    waited = second_released.load();
    m->_release_flock();
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  second_released = true;
  m->_release_flock();
  other.join();
  EXPECT_TRUE(waited);
  EXPECT_FALSE(m->_flock_lock.held_by_this_thread());
  EXPECT_FALSE(path_exists(path(".sync_flock")));

  // A failed acquire leaves nothing held: another thread gets both locks.
  TempDir elsewhere;
  const std::string moved = elsewhere / "data";
  ASSERT_EQ(::rename(dir_.path().c_str(), moved.c_str()), 0);
  EXPECT_THROW(m->_acquire_flock(), FileNotFoundError);
  ASSERT_EQ(::rename(moved.c_str(), dir_.path().c_str()), 0);
  EXPECT_FALSE(m->_flock_fd.has_value());
  ASSERT_FALSE(m->_flock_lock.held_by_this_thread());
  std::jthread([&] {
    m->_acquire_flock();
    m->_release_flock();
  }).join();
  EXPECT_FALSE(path_exists(path(".sync_flock")));
}

// Neither the pass's sweep nor the stop's goes through a link planted in the
// data directory: what it points to lies outside and must stay whole.
TEST_F(Manager, PollsAtOnceOnStartSweepsTmpFilesOnStopAndStartsAgain) {
  write_file(path("left.tmp"), "x");
  TempDir outside;
  write_file(outside / "stale.tmp", "not ours");
  make_dirs(path("features"));
  ASSERT_EQ(::symlink(outside.path().c_str(), path("features/linked").c_str()), 0);
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
  // An acquire adds no monitor to a started manager; its release, the last,
  // stops as stop() does.
  m->acquire();
  EXPECT_EQ(m->_era_thread.load(), nullptr);
  // Once manifest.json is written, the pass's own sweep lies behind it.
  ASSERT_TRUE(wait_until([&] { return path_exists(path("manifest.json")); }));
  make_dirs(path("features/u"));
  for (const char* name : {"a.tmp", "features/u/b.tmp", "features/c.tmp", "a.tmpx", "tmp", "d.tmp.bak"}) {
    write_file(path(name), "x");
  }
  m->release();
  EXPECT_FALSE(thread->is_alive());
  EXPECT_EQ(m->get_manifest()->version, 5);
  for (const char* gone : {"a.tmp", "features/u/b.tmp", "features/c.tmp"}) {
    EXPECT_FALSE(path_exists(path(gone))) << gone;
  }
  for (const char* kept : {"a.tmpx", "tmp", "d.tmp.bak", "manifest.json"}) EXPECT_TRUE(path_exists(path(kept))) << kept;
  EXPECT_EQ(read_file(outside / "stale.tmp"), "not ours");

  publish(with_artefacts(manifest(1, 6)));
  m->start();
  EXPECT_TRUE(wait_until([&] { return m->get_manifest()->version == 6; }));
  m->stop();
}

TEST_F(Manager, StopWaitsForAPassRunOnAnotherThread) {
  publish(with_artefacts(manifest(1, 2)));
  api_.fault("/data/manifest", Fault{.delay_before_head_s = 0.5});
  auto m = make_manager();
  std::string foreground;
  std::jthread pass([&] { foreground = outcome([&] { m->sync(); }); });
  ASSERT_TRUE(wait_until([&] { return api_.request_count("/data/manifest") == 1; }));
  m->start();  // its first poll finds the pass lock taken and skips
  m->stop();
  EXPECT_TRUE(path_exists(path("manifest.json")));  // the foreground pass had finished
  pass.join();
  EXPECT_EQ(foreground, "ok");
}

TEST_F(Manager, NeedsSyncIsFalseOnlyOnPositiveAgreement) {
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

  api_.put("/data/manifest/version", "{\"version\": ");
  EXPECT_THROW(m->needs_sync(), ValueError);  // a bad answer is a failure, not a reason to sync

  // The data files and manifest.json take part apart from each other.
  remove_file(path("features/u/a.bin"));
  check({{"version", 3}}, true);
  write_file(path("features/u/a.bin"), "abc");
  remove_file(path("manifest.json"));
  check({{"version", 3}}, false);
  check({{"version", 3}, {"manifest_sha256", digest}}, true);
}

}  // namespace
}  // namespace quillmarsh::sync
