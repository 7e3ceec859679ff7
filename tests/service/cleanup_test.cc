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
#include "tests/support/sync_fixture.h"

namespace quillmarsh::sync {
namespace {

using testing::outcome;

class Cleanup : public testing::SyncFixture {
 protected:
  static void set_manifest_era(SyncManager& m, Json era_id) {
    m._manifest.store(std::make_shared<Manifest>(Json{{"era_id", std::move(era_id)}, {"files", Json::object()}}));
  }
  std::string outside(const std::string& relative) const { return outside_ / relative; }
  bool present(const std::string& relative) const { return path_exists(path(relative)); }
  // Writes `size` bytes at `full_path`, making its parents.
  void put(const std::string& full_path, std::size_t size) {
    make_dirs(dir_name(full_path));
    write_file(full_path, std::string(size, 'q'));
  }
  void link(const std::string& target, const std::string& relative) {
    make_dirs(dir_name(path(relative)));
    ASSERT_EQ(::symlink(target.c_str(), path(relative).c_str()), 0) << relative;
  }

  testing::TempDir outside_;
};

TEST_F(Cleanup, KeepCurrentSparesTheManifestsEraAndCountsTheRest) {
  const std::string manifest_text = "{\"era_id\": 2, \"version\": 1, \"files\": {}}";
  write_file(path("manifest.json"), manifest_text);
  // Other spellings of the current era are the current era too, and only
  // direct child directories with an era name are era directories.
  const struct {
    const char* rel;
    std::size_t size;
    bool kept;
  } files[] = {{"era_1/a.bin", 10, false},  {"era_1/sub/deeper/b.bin", 25, false}, {"era3/c.bin", 7, false},
               {"era_2/d.bin", 100, true},  {"era_02/e.bin", 1, true},            {"era2/f.bin", 1, true},
               {"eras/keep.bin", 4, true},  {"features/u/vocabulary.json", 9, true}, {"era_4", 6, true},
               {"features/era_1/keep.bin", 4, true}};
  for (const auto& f : files) put(path(f.rel), f.size);
  make_dirs(path("era_1/empty"));
  auto m = make_manager();
  ASSERT_NE(m->get_manifest(), nullptr);

  EXPECT_EQ(m->cleanup_old_eras(), 42);
  EXPECT_FALSE(present("era_1"));
  EXPECT_FALSE(present("era3"));
  for (const auto& f : files) EXPECT_EQ(present(f.rel), f.kept) << f.rel;
  EXPECT_EQ(read_file(path("manifest.json")), manifest_text);
  // A second run finds nothing left to free.
  EXPECT_EQ(m->cleanup_old_eras(true), 0);
}

TEST_F(Cleanup, WithoutAUsableCurrentEraEveryEraDirectoryGoes) {
  auto m = make_manager();
  ASSERT_EQ(m->get_manifest(), nullptr);
  for (const Json& era_id : {Json("no manifest"), Json(nullptr), Json("two"), Json::array({2}), Json(1e30)}) {
    if (era_id == "no manifest") m->_manifest.store(nullptr);
    else set_manifest_era(*m, era_id);
    for (const auto& [rel, size] : {std::pair{"era_1/x", 1}, {"era_2/x", 20}, {"era_3/y/x", 300}}) put(path(rel), size);
    EXPECT_EQ(m->cleanup_old_eras(true), 321) << era_id;
    for (const char* gone : {"era_1", "era_2", "era_3"}) EXPECT_FALSE(present(gone)) << era_id << " " << gone;
  }
}

TEST_F(Cleanup, LinksAndTheCurrentDataGoButLinkTargetsAndHiddenStateStay) {
  const std::pair<const char*, std::int64_t> targets[] = {{"tree/big.bin", 1000}, {"file.bin", 33}, {"seed", 60},
                                                          {"manifest", 12}};
  for (const auto& [rel, size] : targets) put(outside(rel), size);
  auto m = make_manager();
  set_manifest_era(*m, 2);

  // Inside an era directory: a link to a file counts by its target; a link
  // to a directory is not entered; a dangling link counts nothing.
  put(path("era_1/real.bin"), 5);
  // A linked era directory: the link goes, its target is not entered; the
  // current era's stays.
  for (const auto& [target, rel] : {std::pair{"tree", "era_1/tree"}, {"file.bin", "era_1/deep/file.bin"},
                                    {"missing", "era_1/dangling"}, {"tree", "era_7"}, {"tree", "era_2"}}) {
    link(outside(target), rel);
  }
  EXPECT_EQ(m->cleanup_old_eras(true), 5 + 33);
  EXPECT_FALSE(present("era_1"));
  EXPECT_FALSE(present("era_7"));
  EXPECT_TRUE(present("era_2"));

  // Without keep_current the current data goes, top-level links with it but
  // never their targets; hidden state and files of no data folder stay.
  for (const auto& [target, rel] : {std::pair{"tree", "linked"}, {"tree", "features/inner"}, {"tree", ".hidden_link"},
                                    {"manifest", "manifest.json"}, {"seed", "shuffle_seed.enc"}}) {
    link(outside(target), rel);
  }
  put(path("features/own.bin"), 4);
  put(path("found_signals/a/b/signal_is/s.bin"), 4000);
  make_dirs(path("empty"));
  const char* kept[] = {"shuffle_seed.enc.meta.json", ".consumer_count", ".transition_era3.tmp/x.bin", "notes.txt",
                        "era_9"};  // the last a file, not a directory
  for (const char* rel : kept) put(path(rel), 1);
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

  for (const auto& [rel, size] : targets) EXPECT_EQ(stat_path(outside(rel)).size, size) << rel;
}

TEST_F(Cleanup, ADataDirectoryThatCannotBeListedFailsAsItselfAndIsLoggedOnce) {
  auto m = make_manager();
  ASSERT_EQ(::rename(dir_.path().c_str(), outside("moved").c_str()), 0);
  EXPECT_TRUE(outcome([&] { m->cleanup_old_eras(true); }).starts_with("FileNotFoundError: [Errno 2] "));
  m->_schedule_cleanup_old_eras(true);
  ASSERT_TRUE(m->_cleanup_thread->join_for(30.0));
  ASSERT_EQ(log_.records().size(), 1u);
  EXPECT_EQ(log_.count(LogLevel::warning, "Background old-era cleanup failed: [Errno 2] No such file or directory: '" +
                                              dir_.path() + "'"),
            1u);
  EXPECT_TRUE(log_.records()[0].failure.starts_with("FileNotFoundError: ")) << log_.records()[0].failure;
}

}  // namespace
}  // namespace quillmarsh::sync
