// The lock that serialises writing passes: across real processes through
// flock(2), and between threads of one process through the owner-aware lock.
#include <fcntl.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "sync/support/posix_file.h"
#include "tests/support/sync_fixture.h"
#include "tests/support/wait_until.h"

extern char** environ;

namespace quillmarsh::sync {
namespace {

using testing::SyncFixture;
using testing::TempDir;

// The helper process that holds the lock; killed if a test leaves it running.
class Holder {
 public:
  Holder(const std::string& data_dir, const std::string& server_url, const std::string& signals) {
    std::vector<std::string> args = {QMSYNC_FLOCK_HOLDER, data_dir, server_url, signals};
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    spawn_error_ = ::posix_spawn(&pid_, QMSYNC_FLOCK_HOLDER, nullptr, nullptr, argv.data(), environ);
  }
  ~Holder() {
    if (running()) ::kill(pid_, SIGKILL);
    wait_exit();
  }
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;

  int spawn_error() const { return spawn_error_; }
  // Waits for `file` to appear while the helper lives.
  bool wait_for(const std::string& file) {
    return testing::wait_until([&] { return path_exists(file) || !running(); }) && path_exists(file);
  }
  // The exit status, or -1 when the helper did not exit normally.
  int wait_exit() {
    if (!reaped_ && spawn_error_ == 0) ::waitpid(pid_, &status_, 0);
    reaped_ = true;
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
  }

 private:
  bool running() {
    if (reaped_ || spawn_error_ != 0) return false;
    if (::waitpid(pid_, &status_, WNOHANG) == pid_) reaped_ = true;
    return !reaped_;
  }
  pid_t pid_ = -1;
  int spawn_error_ = 0;
  int status_ = 0;
  bool reaped_ = false;
};

// Whether a descriptor of our own can take the lock on `path` right now.
bool lockable(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY);
  if (fd < 0) return true;
  const bool taken = ::flock(fd, LOCK_EX | LOCK_NB) == 0;
  const int error = errno;
  ::close(fd);
  EXPECT_TRUE(taken || error == EWOULDBLOCK) << error;
  return taken;
}

class FileLock : public SyncFixture {};

TEST_F(FileLock, APassWaitsForAnotherProcessToRelease) {
  publish(with_artefacts(manifest(1, 1)));
  TempDir signals;
  Holder holder(dir_.path(), api_.base_url(), signals.path());
  ASSERT_EQ(holder.spawn_error(), 0);
  ASSERT_TRUE(holder.wait_for(signals / "held"));
  EXPECT_FALSE(lockable(path(".sync_flock")));

  auto m = make_manager();
  std::atomic<bool> done{false};
  bool holder_had_let_go = false;
  std::string failure;
  std::jthread pass([&] {
    failure = testing::outcome([&] { m->sync(); });
    holder_had_let_go = path_exists(signals / "released");
    done = true;
  });
  // Time for a lock that excludes nothing to let the pass through early.
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_FALSE(done.load());
  write_file(signals / "release", "");
  pass.join();
  EXPECT_EQ(failure, "ok");
  EXPECT_TRUE(holder_had_let_go);
  EXPECT_EQ(holder.wait_exit(), 0);
  EXPECT_TRUE(path_exists(path("manifest.json")));
  EXPECT_FALSE(path_exists(path(".sync_flock")));
}

// Between threads of one process the lock needs no server.
class ThreadLock : public ::testing::Test {
 protected:
  std::string path(const std::string& rel) const { return dir_ / rel; }
  TempDir dir_;
};

TEST_F(ThreadLock, NestedAcquireGivesTheFileLockUpAtTheFirstReleaseAndStrayOrFailedCallsHoldNothing) {
  auto m = SyncManager::create(dir_.path(), "https://127.0.0.1:1", [] { return std::string("t"); });
  EXPECT_NO_THROW(m->_release_flock());  // nobody holds anything
  m->_acquire_flock();
  m->_acquire_flock();
  // A release by a thread that never acquired changes nothing.
  std::jthread([&] { EXPECT_NO_THROW(m->_release_flock()); }).join();
  EXPECT_TRUE(m->_flock_fd.has_value());
  EXPECT_FALSE(lockable(path(".sync_flock")));
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
