// Construction of a manager: the argument checks, and what it takes from the
// state files an earlier run left in the data directory.
#include <fcntl.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <filesystem>

#include "sync/collaborators/transport_security.h"
#include "sync/support/posix_file.h"
#include "tests/support/sync_fixture.h"

namespace quillmarsh::sync {
namespace {

using testing::outcome;
using testing::SyncFixture;

// Installs a transport policy for one test and puts the previous one back.
class PolicyGuard {
 public:
  explicit PolicyGuard(std::shared_ptr<TransportSecurity> policy)
      : previous_(transport_security_slot().set(std::move(policy))) {}
  ~PolicyGuard() { transport_security_slot().set(previous_); }

 private:
  std::shared_ptr<TransportSecurity> previous_;
};

class RefusingPolicy : public TransportSecurity {
 public:
  void validate_bearer_transport_url(const std::string& url) override {
    seen.push_back(url);
    throw AuthError("refused " + url);
  }
  std::vector<std::string> seen;
};

class Manager : public SyncFixture {
 protected:
  std::shared_ptr<SyncManager> build(const std::string& dir) {
    return SyncManager::create(dir, api_.base_url(), [] { return std::string("t"); });
  }
};

TEST_F(Manager, ArgumentChecksFailInTheirOrder) {
  auto policy = std::make_shared<RefusingPolicy>();
  PolicyGuard guard(policy);
  const std::string missing = path("missing");
  const SyncManager::TokenSource token = [] { return std::string("t"); };
  // Each call also breaks every later check, so only the first check can answer.
  const std::string no_token = outcome([&] { SyncManager::create(missing, "", nullptr); });
  EXPECT_TRUE(no_token.starts_with("TypeError: get_token must be callable, got ")) << no_token;
  EXPECT_EQ(outcome([&] { SyncManager::create(missing, "", token); }), "ValueError: server_url must not be empty");
  EXPECT_TRUE(policy->seen.empty());
  // The transport policy sees the URL as given, and its failure passes unchanged.
  EXPECT_EQ(outcome([&] { SyncManager::create(missing, " https://h/x ", token); }),
            "AuthError: refused  https://h/x ");
  EXPECT_EQ(policy->seen, std::vector<std::string>{" https://h/x "});

  transport_security_slot().set(std::make_shared<DefaultTransportSecurity>());
  EXPECT_EQ(outcome([&] { SyncManager::create(missing, "https://127.0.0.1:1", token); }),
            "FileNotFoundError: data_dir does not exist: " + missing);
  write_file(path("plain"), "x");
  EXPECT_EQ(outcome([&] { SyncManager::create(path("plain"), "https://h", token); }),
            "FileNotFoundError: data_dir does not exist: " + path("plain"));
}

TEST_F(Manager, ConsumerCountIsReadAsItStands) {
  struct Case {
    const char* text;
    std::int64_t count;
    bool warned;
  };
  const Case cases[] = {{"2", 2, false}, {" 3\n", 3, false}, {"-1", -1, false},
                        {"", 0, true},   {"abc", 0, true},   {"3.5", 0, true}};
  int n = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string("text '") + c.text + "'");
    const std::string dir = path("d" + std::to_string(n++));
    make_dirs(dir);
    write_file(dir + "/.consumer_count", c.text);
    log_.clear();
    EXPECT_EQ(build(dir)->_consumer_count, c.count);
    EXPECT_EQ(logged_starting("Failed to read consumer count: "), c.warned ? 1u : 0u);
  }
  log_.clear();
  EXPECT_EQ(build(dir_.path())->_consumer_count, 0);  // no file at all
  EXPECT_TRUE(log_.records().empty());
}

TEST_F(Manager, UnreadableStateIsLoggedOnceAndTheManagerStillWorks) {
  const std::string broken = "{\"era_id\": 1, \"files\": ";
  write_file(path("manifest.json"), broken);
  write_file(path(".consumer_count"), "many");
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

TEST_F(Manager, RetiredEntriesLeaveTheManifestFileAtLoad) {
  Json files = Json::object();
  files["features/u/a.bin"] = {{"sha256", "aa"}, {"kind", "feature"}};
  files["agents/bundle.pxd"] = {{"sha256", "bb"}};
  files["found_signals/a/b/c/pnl_long.arrow"] = {{"sha256", "cc"}};
  files["found_signals/a/b/c/pnl.arrow"] = {{"sha256", "dd"}, {"kind", "found_signal_is_pnl"}};
  files["vault/v.bin"] = {{"kind", "vault_declaration"}};
  write_local_artefacts(files, 1);  // valid vocabularies load without a word
  Json on_disk = manifest(1, 7, files);
  on_disk["extra"] = "kept";
  write_file(path("manifest.json"), json_text(on_disk));

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

TEST_F(Manager, ManifestWithNothingToDropIsNotRewritten) {
  Json files = Json::object();
  files["found_signals/a/b/c/pnl.arrow"] = {{"sha256", "dd"}, {"kind", "found_signal_is_pnl"}};
  // Not the canonical text form, so any rewrite would change the bytes.
  const std::string text = manifest(1, 7, files).dump(2);
  write_file(path("manifest.json"), text);
  const timespec old_times[2] = {{1000000000, 0}, {1000000000, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path("manifest.json").c_str(), old_times, 0), 0);
  const FileStat before = stat_path(path("manifest.json"));

  auto m = build(dir_.path());
  ASSERT_NE(m->get_manifest(), nullptr);
  EXPECT_EQ(m->get_manifest()->version, 7);
  const FileStat after = stat_path(path("manifest.json"));
  EXPECT_EQ(read_file(path("manifest.json")), text);
  EXPECT_EQ(after.mtime_ns, before.mtime_ns);
  EXPECT_EQ(after.inode, before.inode);
}

TEST_F(Manager, RelativeDataDirStaysAsGiven) {
  write_file(path("manifest.json"), json_text(manifest(2, 9)));
  write_file(path(".consumer_count"), "4");
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
