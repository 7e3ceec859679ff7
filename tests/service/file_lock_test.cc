// The lock that serialises writing passes: flock(2) between holders of their
// own open descriptions (other processes, or this test's), and the
// owner-aware lock between threads of one process.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "sync/support/posix_file.h"
#include "tests/support/sync_fixture.h"

namespace quillmarsh::sync {
namespace {

using testing::TempDir;

class FileLock : public testing::SyncFixture {
 protected:
  // Whether a description of our own can take the lock right now.
  bool lockable() const {
    const int fd = ::open(path(".sync_flock").c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return true;
    const bool taken = ::flock(fd, LOCK_EX | LOCK_NB) == 0;
    EXPECT_TRUE(taken || errno == EWOULDBLOCK) << errno;
    ::close(fd);
    return taken;
  }
};

// flock(2) excludes open file descriptions, not processes: a description of
// this test's own stands for another process's, which lets go as a manager
// does, the path unlinked before the lock.
TEST_F(FileLock, APassWaitsForAnotherHolderToRelease) {
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

TEST_F(FileLock, NestedAcquireGivesTheFileLockUpAtTheFirstReleaseAndStrayOrFailedCallsHoldNothing) {
  auto m = make_manager();
  EXPECT_NO_THROW(m->_release_flock());  // nobody holds anything
  m->_acquire_flock();
  m->_acquire_flock();
  // A release by a thread that never acquired changes nothing.
  std::jthread([&] { EXPECT_NO_THROW(m->_release_flock()); }).join();
  EXPECT_TRUE(m->_flock_fd.has_value());
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

}  // namespace
}  // namespace quillmarsh::sync
