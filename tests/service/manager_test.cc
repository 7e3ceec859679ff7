// Construction of a manager: what it takes from the state files an earlier
// run left in the data directory.
#include <fcntl.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "sync/support/posix_file.h"
#include "tests/support/sync_fixture.h"

namespace quillmarsh::sync {
namespace {

using testing::SyncFixture;

class Manager : public SyncFixture {};

TEST_F(Manager, UnreadableStateIsLoggedOnceAndTheManagerStillWorks) {
  const std::string broken = "{\"era_id\": 1, \"files\": ";
  write_file(path("manifest.json"), broken);
  write_file(path(".consumer_count"), "3.5");
  auto m = make_manager();
  EXPECT_EQ(m->get_manifest(), nullptr);
  EXPECT_EQ(m->_vocabulary.load(), nullptr);
  EXPECT_EQ(m->_consumer_count, 0);
  EXPECT_EQ(read_file(path("manifest.json")), broken);
  EXPECT_EQ(logged_starting("Failed to load manifest from disk: "), 1u);
  EXPECT_EQ(logged_starting("Failed to read consumer count: "), 1u);
  EXPECT_EQ(log_.count_at(LogLevel::warning), 2u);

  // It behaves as a manager with no local state: a pass replaces the file.
  publish(with_artefacts(manifest(1, 3)));
  m->sync();
  ASSERT_NE(m->get_manifest(), nullptr);
  EXPECT_EQ(m->get_manifest()->version, 3);
  EXPECT_EQ(parse_json_text(read_file(path("manifest.json")))["version"], 3);

  // A manifest.json that cannot even be opened as a file counts as absent too.
  const std::string other = path("other");
  make_dirs(other + "/manifest.json");
  log_.clear();
  EXPECT_EQ(SyncManager::create(other, api_.base_url(), [] { return std::string("t"); })->get_manifest(), nullptr);
  EXPECT_EQ(logged_starting("Failed to load manifest from disk: "), 1u);
}

TEST_F(Manager, OnlyRetiredEntriesMakeTheLoadRewriteTheManifestFile) {
  Json files = Json::object();
  files["found_signals/a/b/c/pnl.arrow"] = {{"sha256", "dd"}, {"kind", "found_signal_is_pnl"}};
  // Not the canonical text form, so any rewrite would change the bytes.
  const std::string text = manifest(1, 7, files).dump(2);
  write_file(path("manifest.json"), text);
  const timespec old_times[2] = {{1000000000, 0}, {1000000000, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path("manifest.json").c_str(), old_times, 0), 0);
  const FileStat before = stat_path(path("manifest.json"));
  ASSERT_NE(make_manager()->get_manifest(), nullptr);
  const FileStat after = stat_path(path("manifest.json"));
  EXPECT_EQ(read_file(path("manifest.json")), text);
  EXPECT_EQ(after.mtime_ns, before.mtime_ns);
  EXPECT_EQ(after.inode, before.inode);

  // Which entries are retired is the manifest suite's business.
  files["features/u/a.bin"] = {{"sha256", "aa"}, {"kind", "feature"}};
  files["found_signals/a/b/c/pnl_long.arrow"] = {{"sha256", "cc"}};
  write_local_artefacts(files, 1);  // valid vocabularies load without a word
  Json on_disk = manifest(1, 7, files);
  on_disk["extra"] = "kept";
  write_file(path("manifest.json"), json_text(on_disk));
  log_.clear();
  auto m = make_manager();
  Json expected = on_disk;
  expected["files"].erase("found_signals/a/b/c/pnl_long.arrow");
  EXPECT_EQ(read_file(path("manifest.json")), json_text(expected));
  ASSERT_NE(m->get_manifest(), nullptr);
  EXPECT_EQ(m->get_manifest()->to_dict(), expected);
  EXPECT_TRUE(log_.records().empty());
}

}  // namespace
}  // namespace quillmarsh::sync
