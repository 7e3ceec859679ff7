// Old-era cleanup: which directories go and what they count, the links it
// must never follow, and the failure of its background run.
#include <unistd.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>

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
  bool present(const std::string& relative) const { return path_exists(data(relative)); }

  // Writes `size` bytes at `path`, making its parents.
  static void put(const std::string& path, std::size_t size) {
    make_dirs(dir_name(path));
    write_file(path, std::string(size, 'q'));
  }
  static void link(const std::string& target, const std::string& path) {
    make_dirs(dir_name(path));
    ASSERT_EQ(::symlink(target.c_str(), path.c_str()), 0) << path;
  }
  // Runs the background cleanup to its end.
  void run_in_background(SyncManager& m) {
    m._schedule_cleanup_old_eras(true);
    ASSERT_TRUE(m._cleanup_thread->join_for(30.0));
  }

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
  // Only direct child directories with an era name are era directories.
  put(data("eras/keep.bin"), 4);
  put(data("era_4"), 6);
  put(data("features/era_1/keep.bin"), 4);
  auto m = manager();
  ASSERT_NE(m->get_manifest(), nullptr);

  EXPECT_EQ(m->cleanup_old_eras(), 42);
  EXPECT_FALSE(present("era_1"));
  EXPECT_FALSE(present("era3"));
  for (const char* kept : {"era_2/d.bin", "era_02/e.bin", "era2/f.bin", "features/u/vocabulary.json", "eras/keep.bin",
                           "era_4", "features/era_1/keep.bin"}) {
    EXPECT_TRUE(present(kept)) << kept;
  }
  EXPECT_EQ(read_file(data("manifest.json")), manifest_text);
  // A second run finds nothing left to free.
  EXPECT_EQ(m->cleanup_old_eras(true), 0);
}

TEST_F(Cleanup, WithoutAUsableCurrentEraEveryEraDirectoryGoes) {
  auto m = manager();
  ASSERT_EQ(m->get_manifest(), nullptr);
  for (const Json& era_id : {Json("no manifest"), Json(nullptr), Json("two"), Json::array({2}), Json(1e30)}) {
    if (era_id == "no manifest") m->_manifest.store(nullptr);
    else set_manifest_era(*m, era_id);
    put(data("era_1/x"), 1);
    put(data("era_2/x"), 20);
    put(data("era_3/y/x"), 300);
    EXPECT_EQ(m->cleanup_old_eras(true), 321) << era_id;
    for (const char* gone : {"era_1", "era_2", "era_3"}) EXPECT_FALSE(present(gone)) << era_id << " " << gone;
  }
}

TEST_F(Cleanup, LinksAndTheCurrentDataGoButLinkTargetsAndHiddenStateStay) {
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
  EXPECT_FALSE(present("era_1"));
  EXPECT_FALSE(present("era_7"));
  EXPECT_TRUE(present("era_2"));

  // Without keep_current the current data goes, top-level links with it but
  // never their targets; hidden state and files of no data folder stay.
  link(outside("tree"), data("linked"));
  link(outside("tree"), data("features/inner"));
  put(data("features/own.bin"), 4);
  put(data("found_signals/a/b/signal_is/s.bin"), 4000);
  make_dirs(data("empty"));
  link(outside("manifest"), data("manifest.json"));
  link(outside("seed"), data("shuffle_seed.enc"));
  link(outside("tree"), data(".hidden_link"));
  const char* kept[] = {"shuffle_seed.enc.meta.json", ".consumer_count", ".transition_era3.tmp/x.bin", "notes.txt",
                        "era_9"};  // the last a file, not a directory
  for (const char* rel : kept) put(data(rel), 1);
  EXPECT_EQ(m->cleanup_old_eras(false), 12 + 60 + 4 + 4000);
  for (const char* gone :
       {"linked", "features", "found_signals", "empty", "manifest.json", "shuffle_seed.enc", "era_2"}) {
    EXPECT_FALSE(present(gone)) << gone;
  }
  for (const char* rel : kept) EXPECT_TRUE(present(rel)) << rel;
  EXPECT_TRUE(present(".hidden_link"));
  // The manifest in memory stays until a later check finds its files gone.
  EXPECT_NE(m->get_manifest(), nullptr);
  EXPECT_EQ(m->cleanup_old_eras(false), 0);

  EXPECT_EQ(stat_path(outside("tree/big.bin")).size, 1000);
  EXPECT_EQ(read_file(outside("file.bin")), std::string(33, 'q'));
  EXPECT_EQ(stat_path(outside("seed")).size, 60);
  EXPECT_EQ(stat_path(outside("manifest")).size, 12);
}

TEST_F(Cleanup, ADataDirectoryThatCannotBeListedFailsAsItselfAndIsLoggedOnce) {
  auto m = manager();
  ASSERT_EQ(::rename(data_dir_.c_str(), (root_ / "moved").c_str()), 0);
  EXPECT_TRUE(outcome([&] { m->cleanup_old_eras(true); }).starts_with("FileNotFoundError: [Errno 2] "));

  run_in_background(*m);
  ASSERT_EQ(log_.records().size(), 1u);
  EXPECT_EQ(log_.count(LogLevel::warning,
                       "Background old-era cleanup failed: [Errno 2] No such file or directory: '" + data_dir_ + "'"),
            1u);
  EXPECT_TRUE(log_.records()[0].failure.starts_with("FileNotFoundError: ")) << log_.records()[0].failure;
}

}  // namespace
}  // namespace quillmarsh::sync
