// Old-era cleanup: which directories go and what they count, the links it
// must never follow, and the one background thread with its log lines.
#include <fcntl.h>
#include <linux/fs.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "sync/support/json_text.h"
#include "sync/support/log.h"
#include "sync/support/posix_file.h"
#include "sync/sync_manager.h"
#include "tests/support/outcome.h"
#include "tests/support/temp_dir.h"

namespace quillmarsh::sync {
namespace {

using testing::outcome;
using testing::TempDir;

// Present at all, a dangling link included.
bool present(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

class Cleanup : public ::testing::Test {
 protected:
  void SetUp() override {
    make_dirs(data_dir_);
    make_dirs(outside_dir_);
  }

  // A manager over the data directory; it reads whatever manifest.json holds.
  std::shared_ptr<SyncManager> manager() const {
    return SyncManager::create(data_dir_, "https://127.0.0.1:1", [] { return std::string("t"); });
  }
  static void set_manifest_era(SyncManager& m, Json era_id) {
    m._manifest.store(std::make_shared<Manifest>(Json{{"era_id", std::move(era_id)}, {"files", Json::object()}}));
  }

  std::string data(const std::string& relative) const { return join_path(data_dir_, relative); }
  std::string outside(const std::string& relative) const { return join_path(outside_dir_, relative); }

  // Writes `size` bytes at `path`, making its parents.
  static void put(const std::string& path, std::size_t size) {
    make_dirs(dir_name(path));
    write_file(path, std::string(size, 'q'));
  }
  static void link(const std::string& target, const std::string& path) {
    make_dirs(dir_name(path));
    ASSERT_EQ(::symlink(target.c_str(), path.c_str()), 0) << path;
  }

  // The only records taken while the test runs.
  std::vector<LogRecord> records() const { return log_.records(); }

  TempDir root_;
  const std::string data_dir_ = root_ / "data";
  const std::string outside_dir_ = root_ / "outside";
  LogCapture log_;
};

TEST_F(Cleanup, KeepCurrentSparesTheManifestsEraAndCountsTheRest) {
  const std::string manifest_text = "{\"era_id\": 2, \"version\": 1, \"files\": {}}";
  write_file(data("manifest.json"), manifest_text);
  put(data("era_1/a.bin"), 10);
  put(data("era_1/sub/deeper/b.bin"), 25);
  make_dirs(data("era_1/empty"));
  put(data("era3/c.bin"), 7);
  put(data("era_2/d.bin"), 100);
  // Other spellings of the current era are the current era too.
  put(data("era_02/e.bin"), 1);
  put(data("era2/f.bin"), 1);
  put(data("features/u/vocabulary.json"), 9);
  auto m = manager();
  ASSERT_NE(m->get_manifest(), nullptr);

  EXPECT_EQ(m->cleanup_old_eras(), 42);
  EXPECT_FALSE(present(data("era_1")));
  EXPECT_FALSE(present(data("era3")));
  for (const char* kept : {"era_2/d.bin", "era_02/e.bin", "era2/f.bin", "features/u/vocabulary.json"}) {
    EXPECT_TRUE(present(data(kept))) << kept;
  }
  EXPECT_EQ(read_file(data("manifest.json")), manifest_text);
  // A second run finds nothing left to free.
  EXPECT_EQ(m->cleanup_old_eras(true), 0);

  // The era id converts as an integer wherever it came from.
  set_manifest_era(*m, "2");
  put(data("era_4/g.bin"), 3);
  EXPECT_EQ(m->cleanup_old_eras(true), 3);
  EXPECT_TRUE(present(data("era_2/d.bin")));
}

TEST_F(Cleanup, WithoutAUsableCurrentEraEveryEraDirectoryGoes) {
  auto m = manager();
  ASSERT_EQ(m->get_manifest(), nullptr);
  const std::vector<std::pair<std::string, Json>> cases = {
      {"no manifest", nullptr}, {"null", Json(nullptr)}, {"text", Json("two")},
      {"list", Json::array({2})}, {"too large", Json(1e30)}};
  for (const auto& [label, era_id] : cases) {
    if (label == "no manifest") m->_manifest.store(nullptr);
    else set_manifest_era(*m, era_id);
    put(data("era_1/x"), 1);
    put(data("era_2/x"), 20);
    put(data("era_3/y/x"), 300);
    EXPECT_EQ(m->cleanup_old_eras(true), 321) << label;
    for (const char* gone : {"era_1", "era_2", "era_3"}) EXPECT_FALSE(present(data(gone))) << label << " " << gone;
  }

  // A manifest.json that cannot be read leaves the manager without one.
  write_file(data("manifest.json"), "{not json");
  put(data("era_2/x"), 20);
  auto unreadable = manager();
  ASSERT_EQ(unreadable->get_manifest(), nullptr);
  EXPECT_EQ(unreadable->cleanup_old_eras(true), 20);
  EXPECT_FALSE(present(data("era_2")));
}

TEST_F(Cleanup, OnlyDirectChildDirectoriesWithAnEraNameAreEraDirectories) {
  const std::vector<std::string> refused = {"era_", "era", "era_1a", "era_-1", "era_+1", "eras", "Era_1",
                                            "old_era_1", "era_99999999999999999999"};
  for (const std::string& name : refused) put(data(name + "/keep.bin"), 4);
  put(data("era_4"), 6);                        // a plain file with an era name
  put(data("features/era_1/keep.bin"), 4);      // an era name deeper down
  put(data("era_5/goes.bin"), 8);
  auto m = manager();

  EXPECT_EQ(m->cleanup_old_eras(true), 8);
  EXPECT_FALSE(present(data("era_5")));
  for (const std::string& name : refused) EXPECT_TRUE(present(data(name + "/keep.bin"))) << name;
  EXPECT_TRUE(present(data("era_4")));
  EXPECT_TRUE(present(data("features/era_1/keep.bin")));
}

TEST_F(Cleanup, WithoutKeepCurrentTheCurrentDataGoesAndHiddenStateStays) {
  const std::string manifest_text = "{\"era_id\": 2, \"version\": 7, \"files\": {}}";
  write_file(data("manifest.json"), manifest_text);
  put(data("shuffle_seed.enc"), 60);
  put(data("shuffle_seed.enc.meta.json"), 13);
  put(data(".consumer_count"), 1);
  put(data(".sync_hash_cache.json"), 2);
  put(data(".transition_era3.tmp/x.bin"), 5);
  put(data("notes.txt"), 11);
  put(data("era_9"), 6);  // a file, not a directory
  put(data("era_1/a.bin"), 1);
  put(data("era_2/b.bin"), 20);
  put(data("features/u/vocabulary.json"), 300);
  put(data("found_signals/a/b/signal_is/s.bin"), 4000);
  make_dirs(data("empty"));
  auto m = manager();
  ASSERT_NE(m->get_manifest(), nullptr);

  const auto expected = static_cast<std::int64_t>(1 + 20 + manifest_text.size() + 60 + 300 + 4000);
  EXPECT_EQ(m->cleanup_old_eras(false), expected);
  for (const char* gone : {"manifest.json", "shuffle_seed.enc", "era_1", "era_2", "features", "found_signals",
                           "empty"}) {
    EXPECT_FALSE(present(data(gone))) << gone;
  }
  for (const char* kept : {"shuffle_seed.enc.meta.json", ".consumer_count", ".sync_hash_cache.json",
                           ".transition_era3.tmp/x.bin", "notes.txt", "era_9"}) {
    EXPECT_TRUE(present(data(kept))) << kept;
  }
  // The manifest in memory stays until a later check finds its files gone.
  ASSERT_NE(m->get_manifest(), nullptr);
  EXPECT_EQ(m->get_manifest()->era_id, 2);
  EXPECT_EQ(m->cleanup_old_eras(false), 0);
}

TEST_F(Cleanup, LinksAreRemovedAndWhatTheyPointAtSurvives) {
  put(outside("tree/big.bin"), 1000);
  put(outside("file.bin"), 33);
  put(outside("seed"), 60);
  put(outside("manifest"), 12);
  auto m = manager();
  set_manifest_era(*m, 2);

  // Inside an era directory: a link to a file counts by its target; a link
  // to a directory is not entered; a dangling link counts nothing.
  put(data("era_1/real.bin"), 5);
  link(outside("tree"), data("era_1/tree"));
  link(outside("file.bin"), data("era_1/deep/file.bin"));
  link(outside("missing"), data("era_1/dangling"));
  // A linked era directory: the link goes, its target is not entered.
  link(outside("tree"), data("era_7"));
  link(outside("tree"), data("era_2"));  // the current era, spared
  EXPECT_EQ(m->cleanup_old_eras(true), 5 + 33);
  EXPECT_FALSE(present(data("era_1")));
  EXPECT_FALSE(present(data("era_7")));
  EXPECT_TRUE(present(data("era_2")));

  // Without keep_current: top-level links go, never their targets.
  link(outside("tree"), data("linked"));
  link(outside("tree"), data("features/inner"));
  put(data("features/own.bin"), 4);
  link(outside("manifest"), data("manifest.json"));
  link(outside("seed"), data("shuffle_seed.enc"));
  link(outside("tree"), data(".hidden_link"));
  EXPECT_EQ(m->cleanup_old_eras(false), 12 + 60 + 4);
  for (const char* gone : {"linked", "features", "manifest.json", "shuffle_seed.enc", "era_2"}) {
    EXPECT_FALSE(present(data(gone))) << gone;
  }
  EXPECT_TRUE(present(data(".hidden_link")));

  EXPECT_EQ(stat_path(outside("tree/big.bin")).size, 1000);
  EXPECT_EQ(read_file(outside("file.bin")), std::string(33, 'q'));
  EXPECT_EQ(stat_path(outside("seed")).size, 60);
  EXPECT_EQ(stat_path(outside("manifest")).size, 12);
}

// A log sink that holds the thread logging "Old era cleanup completed" until
// opened, so that the test knows a cleanup thread is alive.
class GatedLog {
 public:
  GatedLog() {
    previous_ = set_log_sink([state = state_](const LogRecord& record) {
      std::unique_lock<std::mutex> lock(state->mu);
      state->records.push_back(record);
      if (!record.message.starts_with("Old era cleanup completed")) return;
      char name[32] = {};
      pthread_getname_np(pthread_self(), name, sizeof name);
      state->thread_name = name;
      ++state->held;
      state->cv.notify_all();
      state->cv.wait(lock, [&] { return state->open; });
    });
  }
  ~GatedLog() {
    open();
    set_log_sink(std::move(previous_));
  }
  // Waits until `n` threads reached the gate; false after 30 seconds.
  bool wait_held(int n) {
    std::unique_lock<std::mutex> lock(state_->mu);
    return state_->cv.wait_for(lock, std::chrono::seconds(30), [&] { return state_->held >= n; });
  }
  void open() {
    std::lock_guard<std::mutex> lock(state_->mu);
    state_->open = true;
    state_->cv.notify_all();
  }
  std::vector<std::string> messages() const {
    std::lock_guard<std::mutex> lock(state_->mu);
    std::vector<std::string> out;
    for (const LogRecord& r : state_->records) out.push_back(log_level_name(r.level) + (": " + r.message));
    return out;
  }
  std::string thread_name() const {
    std::lock_guard<std::mutex> lock(state_->mu);
    return state_->thread_name;
  }

 private:
  struct State {
    mutable std::mutex mu;
    std::condition_variable cv;
    std::vector<LogRecord> records;
    std::string thread_name;
    int held = 0;
    bool open = false;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
  LogSink previous_;
};

TEST_F(Cleanup, ScheduleRunsOneThreadAtATime) {
  GatedLog gate;
  put(data("era_1/a.bin"), 11);
  auto m = manager();
  m->_schedule_cleanup_old_eras(true);
  const std::shared_ptr<BackgroundThread> first = m->_cleanup_thread;
  ASSERT_NE(first, nullptr);
  ASSERT_TRUE(gate.wait_held(1));
  EXPECT_EQ(gate.thread_name(), std::string("quillmarsh-sync-cleanup").substr(0, 15));
  // The running thread keeps its manager alive.
  EXPECT_GE(m.use_count(), 2);

  // While it runs, a second schedule is a no-op, its keep_current included.
  put(data("era_3/b.bin"), 5);
  m->_schedule_cleanup_old_eras(false);
  EXPECT_EQ(m->_cleanup_thread, first);
  gate.open();
  ASSERT_TRUE(first->join_for(30.0));
  EXPECT_TRUE(present(data("era_3/b.bin")));
  EXPECT_EQ(gate.messages(), std::vector<std::string>{"INFO: Old era cleanup completed: freed 11 bytes"});

  // Once it has ended, the next schedule starts a new one.
  m->_schedule_cleanup_old_eras(true);
  const std::shared_ptr<BackgroundThread> second = m->_cleanup_thread;
  ASSERT_NE(second, first);
  ASSERT_TRUE(second->join_for(30.0));
  EXPECT_FALSE(present(data("era_3")));
  // A run that frees nothing says nothing.
  m->_schedule_cleanup_old_eras(true);
  ASSERT_TRUE(m->_cleanup_thread->join_for(30.0));
  EXPECT_EQ(gate.messages(), (std::vector<std::string>{"INFO: Old era cleanup completed: freed 11 bytes",
                                                       "INFO: Old era cleanup completed: freed 5 bytes"}));
}

// Makes the entries of a directory impossible to remove: by its mode for an
// ordinary user, by the immutable flag for root (where the file system has
// one). Undone when it goes.
class LockedDirectory {
 public:
  explicit LockedDirectory(std::string dir) : dir_(std::move(dir)), as_root_(::geteuid() == 0) {
    locked_ = as_root_ ? set_immutable(true) : ::chmod(dir_.c_str(), 0555) == 0;
  }
  ~LockedDirectory() { unlock(); }
  bool locked() const { return locked_; }
  void unlock() {
    if (!locked_) return;
    locked_ = false;
    if (as_root_) set_immutable(false);
    else ::chmod(dir_.c_str(), 0755);
  }

 private:
  bool set_immutable(bool on) {
    const int fd = ::open(dir_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    int flags = 0;  // the kernel reads an int, whatever the macro says
    bool done = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
    if (done) {
      flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
      done = ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
    }
    ::close(fd);
    return done;
  }

  std::string dir_;
  bool as_root_;
  bool locked_ = false;
};

TEST_F(Cleanup, ATreeThatCannotBeDeletedEndsTheRunAndLaterRunsFinish) {
  put(data("era_0/a.bin"), 2);
  put(data("era_1/locked/f.bin"), 30);
  put(data("era_3/b.bin"), 400);
  LockedDirectory locked(data("era_1/locked"));
  if (!locked.locked()) GTEST_SKIP() << "this file system cannot make a directory undeletable for this user";
  auto m = manager();

  // Sorted order: era_0 has gone, era_1 stops the run, era_3 is left.
  const std::string failure = outcome([&] { m->cleanup_old_eras(true); });
  EXPECT_TRUE(failure.starts_with("OSError: [Errno ")) << failure;
  EXPECT_NE(failure.find("era_1/locked/f.bin"), std::string::npos) << failure;
  EXPECT_FALSE(present(data("era_0")));
  EXPECT_TRUE(present(data("era_1/locked/f.bin")));
  EXPECT_TRUE(present(data("era_3/b.bin")));

  m->_schedule_cleanup_old_eras(true);
  ASSERT_TRUE(m->_cleanup_thread->join_for(30.0));
  ASSERT_EQ(records().size(), 1u);
  EXPECT_EQ(records()[0].level, LogLevel::warning);

  locked.unlock();
  m->_schedule_cleanup_old_eras(true);
  ASSERT_TRUE(m->_cleanup_thread->join_for(30.0));
  ASSERT_EQ(records().size(), 2u);
  EXPECT_EQ(records()[1].message, "Old era cleanup completed: freed 430 bytes");
  EXPECT_FALSE(present(data("era_1")));
  EXPECT_FALSE(present(data("era_3")));
}

TEST_F(Cleanup, ADataDirectoryThatCannotBeListedFailsAsItselfAndIsLoggedOnce) {
  auto m = manager();
  ASSERT_EQ(::rename(data_dir_.c_str(), (root_ / "moved").c_str()), 0);
  EXPECT_TRUE(outcome([&] { m->cleanup_old_eras(true); }).starts_with("FileNotFoundError: [Errno 2] "));

  m->_schedule_cleanup_old_eras(true);
  ASSERT_TRUE(m->_cleanup_thread->join_for(30.0));
  ASSERT_EQ(records().size(), 1u);
  EXPECT_EQ(records()[0].level, LogLevel::warning);
  EXPECT_EQ(records()[0].message,
            "Background old-era cleanup failed: [Errno 2] No such file or directory: '" + data_dir_ + "'");
  EXPECT_TRUE(records()[0].failure.starts_with("FileNotFoundError: ")) << records()[0].failure;

  // The directory comes back, and so does the cleanup.
  ASSERT_EQ(::rename((root_ / "moved").c_str(), data_dir_.c_str()), 0);
  put(data("era_8/x.bin"), 9);
  m->_schedule_cleanup_old_eras(true);
  ASSERT_TRUE(m->_cleanup_thread->join_for(30.0));
  ASSERT_EQ(records().size(), 2u);
  EXPECT_EQ(records()[1].message, "Old era cleanup completed: freed 9 bytes");
}

}  // namespace
}  // namespace quillmarsh::sync
