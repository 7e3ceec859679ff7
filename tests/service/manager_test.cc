// Construction of a manager: the argument checks, and what it takes from the
// state files an earlier run left in the data directory.
#include <fcntl.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <filesystem>

#include "sync/support/posix_file.h"
#include "tests/support/sync_fixture.h"

namespace quillmarsh::sync {
namespace {

using testing::outcome;
using testing::SyncFixture;

class Manager : public SyncFixture {
 protected:
  std::shared_ptr<SyncManager> build(const std::string& dir) {
    return SyncManager::create(dir, api_.base_url(), [] { return std::string("t"); });
  }
};

TEST_F(Manager, ArgumentChecksFailInTheirOrder) {
  const std::string missing = path("missing");
  const SyncManager::TokenSource token = [] { return std::string("t"); };
  // Each call also breaks every later check, so only the first check can answer.
  const std::string no_token = outcome([&] { SyncManager::create(missing, "http://example.com", nullptr); });
  EXPECT_TRUE(no_token.starts_with("TypeError: get_token must be callable, got ")) << no_token;
  EXPECT_EQ(outcome([&] { SyncManager::create(missing, "", token); }), "ValueError: server_url must not be empty");
  EXPECT_TRUE(outcome([&] { SyncManager::create(missing, "http://example.com", token); })
                  .starts_with("ValueError: Refusing to send a bearer token"));
  write_file(path("plain"), "x");
  EXPECT_EQ(outcome([&] { SyncManager::create(path("plain"), "https://h", token); }),
            "FileNotFoundError: data_dir does not exist: " + path("plain"));
}

TEST_F(Manager, UnreadableStateIsLoggedOnceAndTheManagerStillWorks) {
  const std::string broken = "{\"era_id\": 1, \"files\": ";
  write_file(path("manifest.json"), broken);
  write_file(path(".consumer_count"), "3.5");
  auto m = build(dir_.path());
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
  EXPECT_EQ(build(other)->get_manifest(), nullptr);
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
  ASSERT_NE(build(dir_.path())->get_manifest(), nullptr);
  const FileStat after = stat_path(path("manifest.json"));
  EXPECT_EQ(read_file(path("manifest.json")), text);
  EXPECT_EQ(after.mtime_ns, before.mtime_ns);
  EXPECT_EQ(after.inode, before.inode);

  files["features/u/a.bin"] = {{"sha256", "aa"}, {"kind", "feature"}};
  files["agents/bundle.pxd"] = {{"sha256", "bb"}};
  files["found_signals/a/b/c/pnl_long.arrow"] = {{"sha256", "cc"}};
  files["vault/v.bin"] = {{"kind", "vault_declaration"}};
  write_local_artefacts(files, 1);  // valid vocabularies load without a word
  Json on_disk = manifest(1, 7, files);
  on_disk["extra"] = "kept";
  write_file(path("manifest.json"), json_text(on_disk));
  log_.clear();
  auto m = build(dir_.path());
  Json expected = on_disk;
  for (const char* gone : {"agents/bundle.pxd", "found_signals/a/b/c/pnl_long.arrow", "vault/v.bin"}) {
    expected["files"].erase(gone);
  }
  EXPECT_EQ(read_file(path("manifest.json")), json_text(expected));
  ASSERT_NE(m->get_manifest(), nullptr);
  EXPECT_EQ(m->get_manifest()->to_dict(), expected);
  EXPECT_TRUE(log_.records().empty());
}

TEST_F(Manager, RelativeDataDirStaysAsGiven) {
  write_file(path("manifest.json"), json_text(manifest(2, 9)));
  write_file(path(".consumer_count"), " 4\n");
  const std::string relative =
      std::filesystem::relative(dir_.path(), std::filesystem::current_path()).string() + "/.";
  ASSERT_FALSE(relative.starts_with("/"));
  auto m = build(relative);
  EXPECT_EQ(m->_data_dir, relative);
  EXPECT_EQ(m->_consumer_count, 4);
  ASSERT_NE(m->get_manifest(), nullptr);
  EXPECT_EQ(m->get_manifest()->era_id, 2);
}

}  // namespace
}  // namespace quillmarsh::sync
