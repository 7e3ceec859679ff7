// qmsync moving a data directory between eras and clearing old ones, as
// processes against `qmsync serve`. Transitions killed midway are the crash
// trials' business.
#include <gtest/gtest.h>

#include <signal.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "sync/support/posix_file.h"
#include "tests/cli/qmsync_fixture.h"

namespace quillmarsh::sync::testing {
namespace {

class QmsyncEraTest : public QmsyncTest {
 protected:
  // Era 1 published, served and mirrored into the data directory.
  void SetUp() override {
    QmsyncTest::SetUp();
    start_server();
    const ProcessResult r = qmsync(client({"sync"}));
    ASSERT_EQ(r.exit_code, 0) << r.err;
  }

  // Publishes era 2 from the source as it stands after `change`, without
  // serving it yet: one file changed, one gone, one new, vocabularies of
  // era 2.
  void publish_era_2() {
    source_files_["features/equities/prices.bin"] = pseudo_random_bytes(50000, 7);
    source_files_.erase("features/futures/rolls.bin");
    remove_file(source_dir() + "/features/futures/rolls.bin");
    source_files_["features/futures/curves.bin"] = pseudo_random_bytes(2000, 8);
    for (const std::string universe : {"equities", "futures"}) {
      source_files_["features/" + universe + "/vocabulary.json"] = vocabulary_text(2, universe);
    }
    write_source();
    publish(1, 2);
  }

  std::map<std::string, std::string> live_files() const {
    std::map<std::string, std::string> files;
    for (const char* path : {"features/equities/prices.bin", "features/futures/rolls.bin",
                                    "docs/readme.txt", "manifest.json", "shuffle_seed.enc"}) {
      files[path] = read_file(data_dir() + "/" + std::string(path));
    }
    return files;
  }
};

TEST_F(QmsyncEraTest, TransitionRefusesAnEraTheServerDoesNotServeAndThenMovesWhenItDoes) {
  publish_era_2();
  const auto before = live_files();

  const ProcessResult refused = qmsync(client({"transition", "2"}));
  EXPECT_EQ(refused.exit_code, 5) << refused.err;
  EXPECT_NE(refused.err.find("error: EraError: Active era_id=1 does not match requested transition era_id=2"),
            std::string::npos)
      << refused.err;
  EXPECT_EQ(live_files(), before);
  EXPECT_FALSE(path_exists(data_dir() + "/.transition_lock"));

  set_era_state(R"({"era": {"era_id": 2, "min_library_version": "999.0"}, "state": "active"})");
  const ProcessResult too_old = qmsync(client({"transition", "2"}));
  EXPECT_EQ(too_old.exit_code, 11) << too_old.err;
  EXPECT_NE(too_old.err.find("error: LibraryUpdateRequired: quillmarsh >= 999.0 required for era 2."),
            std::string::npos)
      << too_old.err;
  EXPECT_EQ(live_files(), before);

  set_era_state(R"({"era": {"era_id": 2, "min_library_version": "0.0.1"}, "state": "active"})");
  // Until the move, sync and status both point to it.
  const ProcessResult behind = qmsync(client({"sync"}));
  EXPECT_EQ(behind.exit_code, 5);
  EXPECT_NE(behind.last_err_line().find("run `qmsync transition 2`"), std::string::npos) << behind.err;
  EXPECT_NE(qmsync(client({"status"})).out.find("run `qmsync transition 2`"), std::string::npos);
  const ProcessResult moved = qmsync(client({"transition", "2", "--json"}));
  ASSERT_EQ(moved.exit_code, 0) << moved.err;
  // A person's transition asks nothing of host modules it does not have.
  EXPECT_EQ(moved.err, "");
  const Json result = parse_json_text(moved.out);
  EXPECT_EQ(result["era_id"], 2);
  expect_mirrors_source();
  EXPECT_FALSE(path_exists(data_dir() + "/features/futures/rolls.bin"));
  EXPECT_EQ(read_file(data_dir() + "/shuffle_seed.enc"), read_file(root_dir() + "/era_2/shuffle_seed.enc"));
  // The server's manifest as it was served, which adds the object store's URL.
  Json served = parse_json_text(read_file(data_dir() + "/manifest.json"));
  EXPECT_TRUE(served["base_url"].is_string());
  served.erase("base_url");
  EXPECT_EQ(json_text(served), read_file(root_dir() + "/era_2/manifest.json"));

  const ProcessResult verify = qmsync({"verify", "--data-dir", data_dir()});
  EXPECT_EQ(verify.exit_code, 0) << verify.out;
  const ProcessResult idle = qmsync(client({"sync", "--json"}));
  ASSERT_EQ(idle.exit_code, 0) << idle.err;
  EXPECT_EQ(parse_json_text(idle.out)["bytes_downloaded"], 0);
}

TEST_F(QmsyncEraTest, CleanupCountsTheBytesOfOldErasAndAllTakesTheCurrentDataButKeepsState) {
  const std::string old_era = data_dir() + "/era_0";
  make_dirs(old_era + "/deep");
  write_file(old_era + "/a.bin", std::string(1000, 'a'));
  write_file(old_era + "/deep/b.bin", std::string(234, 'b'));

  const ProcessResult cleanup = qmsync({"cleanup", "--data-dir", data_dir(), "--json"});
  ASSERT_EQ(cleanup.exit_code, 0) << cleanup.err;
  EXPECT_EQ(parse_json_text(cleanup.out)["bytes_freed"], 1234);
  EXPECT_FALSE(path_exists(old_era));
  expect_mirrors_source();

  std::int64_t current_bytes = 0;
  for (const auto& [path, bytes] : source_files_) current_bytes += static_cast<std::int64_t>(bytes.size());
  current_bytes += stat_path(data_dir() + "/manifest.json").size + stat_path(data_dir() + "/shuffle_seed.enc").size;
  // Off a terminal --all needs --yes; a dry run counts what the real one frees.
  EXPECT_EQ(qmsync({"cleanup", "--all", "--data-dir", data_dir()}).exit_code, 2);
  const ProcessResult dry = qmsync({"cleanup", "--all", "--dry-run", "--data-dir", data_dir(), "--json"});
  EXPECT_EQ(parse_json_text(dry.out)["bytes"], current_bytes) << dry.err;
  expect_mirrors_source();
  const ProcessResult all = qmsync({"cleanup", "--all", "--yes", "--data-dir", data_dir(), "--json"});
  ASSERT_EQ(all.exit_code, 0) << all.err;
  EXPECT_EQ(parse_json_text(all.out)["bytes_freed"], current_bytes);
  EXPECT_FALSE(path_exists(data_dir() + "/features"));
  EXPECT_FALSE(path_exists(data_dir() + "/manifest.json"));
  EXPECT_TRUE(path_exists(data_dir() + "/shuffle_seed.enc.meta.json"));
  EXPECT_TRUE(path_exists(data_dir() + "/.sync_hash_cache.json"));
}

TEST_F(QmsyncEraTest, WatchFollowsANewVersionAndThenAnEraChangeAndStopsCleanlyOnSigterm) {
  std::vector<std::string> argv = client({"watch", "--poll-interval", "1", "--json"});
  argv.insert(argv.begin(), QMSYNC_BINARY);
  Child watch(argv, "", tmp_ / "watch.err");
  // Waits until event lines of each (kind, text in its message) have come,
  // in any order: the era monitor's lines and the main loop's race.
  const auto wait_for_all = [&](std::vector<std::pair<std::string, std::string>> wanted) {
    while (!wanted.empty()) {
      const std::optional<std::string> line = watch.read_line_for(20.0);
      if (!line) return false;
      const Json event = parse_json_text(*line);
      std::erase_if(wanted, [&](const auto& w) {
        return event["event"] == w.first && event["message"].get<std::string>().find(w.second) != std::string::npos;
      });
    }
    return true;
  };
  const auto wait_for = [&](const std::string& kind, const std::string& text) { return wait_for_all({{kind, text}}); };
  ASSERT_TRUE(wait_for("start", "era 1, version 1")) << read_file(tmp_ / "watch.err");

  source_files_["docs/added.txt"] = "A file of version 2.\n";
  write_source();
  publish(2);
  ASSERT_TRUE(wait_for("manifest", "era 1, version 2")) << read_file(tmp_ / "watch.err");
  expect_mirrors_source();

  publish_era_2();
  set_era_state(R"({"era_id": 2, "state": "active"})");
  ASSERT_TRUE(wait_for_all({{"era_changed", "from era 1 to era 2"}, {"manifest", "era 2, version 1"}}))
      << read_file(tmp_ / "watch.err");
  expect_mirrors_source();
  EXPECT_FALSE(path_exists(data_dir() + "/features/futures/rolls.bin"));

  EXPECT_EQ(watch.stop_with(SIGTERM), 0) << read_file(tmp_ / "watch.err");
  for (const char* leftover : {".sync_flock", ".transition_lock", ".transition_era2.tmp"}) {
    EXPECT_FALSE(path_exists(data_dir() + "/" + leftover)) << leftover;
  }
  EXPECT_EQ(read_file(data_dir() + "/.consumer_count"), "0");
}

}  // namespace
}  // namespace quillmarsh::sync::testing
