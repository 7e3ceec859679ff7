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

  // Publishes era 2, not served yet: one file changed, one gone, one new.
  void publish_era_2() {
    source_files_["features/equities/prices.bin"] = pseudo_random_bytes(50000, 7);
    source_files_.erase("features/futures/rolls.bin");
    remove_file(source_dir() + "/features/futures/rolls.bin");
    source_files_["features/futures/curves.bin"] = pseudo_random_bytes(2000, 8);
    write_source(2);
    publish(1, 2);
  }
};

// What a refused transition or a cleanup leaves on disk is the service and
// transition suites' business; here, what the commands ask and print.
TEST_F(QmsyncEraTest, TransitionMovesOnlyToAServedEraAndCleanupFreesTheOldOne) {
  publish_era_2();
  const struct {
    const char* era_state;  // what /era/current answers, or nothing to leave it at era 1
    int exit_code;
    std::string says;
  } refusals[] = {
      {nullptr, 5, "error: EraError: Active era_id=1 does not match requested transition era_id=2"},
      {R"({"era": {"era_id": 2, "min_library_version": "999.0"}, "state": "active"})", 11,
       "error: LibraryUpdateRequired: quillmarsh >= 999.0 required for era 2."},
  };
  for (const auto& c : refusals) {
    if (c.era_state) set_era_state(c.era_state);
    const ProcessResult refused = qmsync(client({"transition", "2"}));
    EXPECT_EQ(refused.exit_code, c.exit_code) << refused.err;
    EXPECT_NE(refused.err.find(c.says), std::string::npos) << refused.err;
  }
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
  EXPECT_EQ(parse_json_text(moved.out)["era_id"], 2);
  expect_mirrors_source();

  make_dirs(data_dir() + "/era_0");
  write_file(data_dir() + "/era_0/a.bin", std::string(1234, 'a'));
  const ProcessResult cleanup = qmsync({"cleanup", "--data-dir", data_dir(), "--json"});
  ASSERT_EQ(cleanup.exit_code, 0) << cleanup.err;
  EXPECT_EQ(parse_json_text(cleanup.out)["bytes_freed"], 1234);
  // --all wants --yes off a terminal, and a dry run counts what the real one frees.
  EXPECT_EQ(qmsync({"cleanup", "--all", "--data-dir", data_dir()}).exit_code, 2);
  const ProcessResult dry = qmsync({"cleanup", "--all", "--dry-run", "--data-dir", data_dir(), "--json"});
  expect_mirrors_source();
  const ProcessResult all = qmsync({"cleanup", "--all", "--yes", "--data-dir", data_dir(), "--json"});
  ASSERT_EQ(all.exit_code, 0) << all.err;
  EXPECT_EQ(parse_json_text(all.out)["bytes_freed"], parse_json_text(dry.out)["bytes"]) << dry.out;
  EXPECT_FALSE(path_exists(data_dir() + "/features"));
}

TEST_F(QmsyncEraTest, WatchFollowsAnEraChangeAndStopsCleanlyOnSigterm) {
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

  publish_era_2();
  set_era_state(R"({"era_id": 2, "state": "active"})");
  ASSERT_TRUE(wait_for_all({{"era_changed", "from era 1 to era 2"}, {"manifest", "era 2, version 1"}}))
      << read_file(tmp_ / "watch.err");
  expect_mirrors_source();

  EXPECT_EQ(watch.stop_with(SIGTERM), 0) << read_file(tmp_ / "watch.err");
  for (const char* leftover : {".sync_flock", ".transition_lock", ".transition_era2.tmp"}) {
    EXPECT_FALSE(path_exists(data_dir() + "/" + leftover)) << leftover;
  }
  EXPECT_EQ(read_file(data_dir() + "/.consumer_count"), "0");
}

}  // namespace
}  // namespace quillmarsh::sync::testing
