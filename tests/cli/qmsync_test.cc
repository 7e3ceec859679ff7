// qmsync driven as a user drives it: `publish` a generated source tree,
// `serve` it on loopback, and run the client commands against that server
// as separate processes.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "sync/engine/file_primitives.h"
#include "sync/support/json_text.h"
#include "sync/support/posix_file.h"
#include "tests/cli/process.h"
#include "tests/support/temp_dir.h"

#ifndef QMSYNC_BINARY
#error "QMSYNC_BINARY must name the built qmsync"
#endif

namespace quillmarsh::sync::testing {
namespace {

// Bytes that differ from file to file and do not compress to nothing.
std::string pseudo_random_bytes(std::size_t n, std::uint32_t seed) {
  std::string bytes(n, '\0');
  for (char& c : bytes) {
    seed = seed * 1664525u + 1013904223u;
    c = static_cast<char>(seed >> 24);
  }
  return bytes;
}

std::string vocabulary_text(std::int64_t era, const std::string& universe) {
  Json v = Json::object();
  v["era_id"] = era;
  v["named_universe"] = universe;
  v["rotations"] = Json::array();
  v["filtrations"] = Json::array();
  v["reductions"] = Json::object();
  v["features"] = Json::array({"close", "volume"});
  v["metadata"] = Json{{"named_universe", universe}, {"t_signal_is", 12}, {"n_instruments", 30}};
  return json_text(v);
}

class QmsyncTest : public ::testing::Test {
 protected:
  void SetUp() override {
    make_dirs(data_dir());
    // The data files; a chunk size below the larger one's size makes the
    // client fetch it by ranges.
    source_files_ = {
        {"features/equities/prices.bin", pseudo_random_bytes(40000, 1)},
        {"features/futures/rolls.bin", pseudo_random_bytes(3000, 2)},
        {"docs/readme.txt", "What this era holds.\n"},
        {"docs/empty.txt", ""},
    };
    for (const std::string universe : {"equities", "futures"}) {
      source_files_["features/" + universe + "/vocabulary.json"] = vocabulary_text(1, universe);
    }
    write_source();
    write_file(token_path(), "token-1\n");
  }

  void write_source() {
    for (const auto& [path, bytes] : source_files_) {
      make_dirs(dir_name(source_dir() + "/" + path));
      write_file(source_dir() + "/" + path, bytes);
    }
  }

  std::string source_dir() const { return tmp_ / "source"; }
  std::string root_dir() const { return tmp_ / "root"; }
  // The data directory's parent holds nothing else, so anything written
  // outside the data directory shows up there.
  std::string work_dir() const { return tmp_ / "work"; }
  std::string data_dir() const { return tmp_ / "work/data"; }
  std::string token_path() const { return tmp_ / "token"; }

  ProcessResult qmsync(std::vector<std::string> args, const std::vector<std::string>& env = {}) {
    args.insert(args.begin(), QMSYNC_BINARY);
    return run_process(args, tmp_.path(), env);
  }

  // Client options for the running server; `token_file` defaults to the good one.
  std::vector<std::string> client(std::vector<std::string> args, const std::string& token_file = "") {
    for (const std::string& option : {std::string("--data-dir"), data_dir(), std::string("--server"), api_url_,
                                      std::string("--ca-file"), ca_file_, std::string("--token-file"),
                                      token_file.empty() ? token_path() : token_file}) {
      args.push_back(option);
    }
    return args;
  }

  void publish(std::int64_t version) {
    const ProcessResult r = qmsync({"publish", "--source", source_dir(), "--out", root_dir(), "--era", "1",
                                    "--version", std::to_string(version)});
    ASSERT_EQ(r.exit_code, 0) << r.err;
  }

  void start_server() {
    publish(1);
    server_ = std::make_unique<BackgroundProcess>(
        std::vector<std::string>{QMSYNC_BINARY, "serve", "--root", root_dir(), "--token-file", token_path(), "--json"},
        tmp_ / "serve.err");
    const std::string line = server_->read_line();
    ASSERT_FALSE(line.empty()) << read_file(tmp_ / "serve.err");
    const Json started = parse_json_text(line);
    api_url_ = started["api_url"].get<std::string>();
    ca_file_ = started["ca_file"].get<std::string>();
  }

  void expect_mirrors_source() {
    for (const auto& [path, bytes] : source_files_) {
      ASSERT_TRUE(path_exists(data_dir() + "/" + path)) << path;
      // Compared as a whole: a byte dump of a mismatch helps no one.
      EXPECT_TRUE(read_file(data_dir() + "/" + path) == bytes) << path << " differs from the source";
    }
  }

  TempDir tmp_;
  std::map<std::string, std::string> source_files_;
  std::unique_ptr<BackgroundProcess> server_;
  std::string api_url_;
  std::string ca_file_;
};

TEST_F(QmsyncTest, FullMirrorThenAnIdleSecondSync) {
  start_server();
  const std::vector<std::string> small_chunks = {"QUILLMARSH_SYNC_HTTP_CHUNK_BYTES=8192"};
  const ProcessResult first = qmsync(client({"sync", "--json"}), small_chunks);
  ASSERT_EQ(first.exit_code, 0) << first.err;
  expect_mirrors_source();
  EXPECT_EQ(read_file(data_dir() + "/shuffle_seed.enc"), read_file(root_dir() + "/era_1/shuffle_seed.enc"));

  const Json result = parse_json_text(first.out);
  EXPECT_EQ(result["era_id"], 1);
  EXPECT_EQ(result["bytes_downloaded"], 40000 + 3000 + 21);
  EXPECT_EQ(result["features_downloaded"], 2);
  EXPECT_EQ(result["n_instruments"], 30);
  EXPECT_EQ(result["vocabulary_downloaded"], true);
  EXPECT_EQ(result["shuffle_seed_downloaded"], true);

  const ProcessResult second = qmsync(client({"sync", "--json"}), small_chunks);
  ASSERT_EQ(second.exit_code, 0) << second.err;
  const Json idle = parse_json_text(second.out);
  EXPECT_EQ(idle["bytes_downloaded"], 0);
  EXPECT_EQ(idle["vocabulary_downloaded"], false);
  EXPECT_EQ(idle["shuffle_seed_downloaded"], false);
  EXPECT_EQ(idle["era_id"], 1);

  const ProcessResult needs = qmsync(client({"needs-sync", "--json"}));
  ASSERT_EQ(needs.exit_code, 0) << needs.err;
  EXPECT_EQ(parse_json_text(needs.out), (Json{{"needs_sync", false}}));
}

TEST_F(QmsyncTest, ANewVersionBringsDownOnlyTheAddedFile) {
  start_server();
  ASSERT_EQ(qmsync(client({"sync"})).exit_code, 0);

  source_files_["features/futures/spreads.bin"] = pseudo_random_bytes(5000, 3);
  write_source();
  publish(2);
  const ProcessResult needs = qmsync(client({"needs-sync"}));
  EXPECT_EQ(needs.out, "true\n") << needs.err;

  const ProcessResult sync = qmsync(client({"sync", "--json"}));
  ASSERT_EQ(sync.exit_code, 0) << sync.err;
  EXPECT_EQ(parse_json_text(sync.out)["bytes_downloaded"], 5000);
  expect_mirrors_source();

  const ProcessResult status = qmsync(client({"status", "--json"}));
  ASSERT_EQ(status.exit_code, 0) << status.err;
  const Json s = parse_json_text(status.out);
  EXPECT_EQ(s["era_id"], 1);
  EXPECT_EQ(s["version"], 2);
  EXPECT_EQ(s["file_count"], source_files_.size());
  EXPECT_EQ(s["needs_sync"], false);
}

TEST_F(QmsyncTest, AWrongTokenExitsWithTheAuthCodeAndTheServerTakesARotatedTokenAtOnce) {
  start_server();
  write_file(tmp_ / "old-token", "token-1");
  write_file(token_path(), "token-2\n");  // the server's file, rotated while it runs

  const ProcessResult refused = qmsync(client({"sync"}, tmp_ / "old-token"));
  EXPECT_EQ(refused.exit_code, 8);
  EXPECT_EQ(refused.last_err_line(), "error: AuthError: Authentication failed: HTTP 401");
  EXPECT_FALSE(path_exists(data_dir() + "/manifest.json"));

  const ProcessResult accepted = qmsync(client({"sync"}));
  EXPECT_EQ(accepted.exit_code, 0) << accepted.err;
}

TEST_F(QmsyncTest, AHostileManifestPathExitsWithTheManifestCodeAndWritesNothingOutside) {
  start_server();
  // The server serves whatever manifest the root holds.
  const std::string manifest_path = root_dir() + "/era_1/manifest.json";
  Json manifest = parse_json_text(read_file(manifest_path));
  manifest["version"] = 2;
  manifest["files"]["../escape.txt"] = Json{{"size_bytes", 5}, {"sha256", _sha256("evil!")}};
  write_file(manifest_path, json_text(manifest));

  const ProcessResult r = qmsync(client({"sync"}));
  EXPECT_EQ(r.exit_code, 6) << r.err;
  EXPECT_EQ(r.last_err_line().rfind("error: ManifestError: ", 0), 0u) << r.last_err_line();
  EXPECT_NE(r.last_err_line().find("../escape.txt"), std::string::npos);

  const std::vector<std::string> outside = find_entries(work_dir(), [](std::string_view) { return true; });
  for (const std::string& entry : outside) {
    EXPECT_EQ(entry.rfind(data_dir(), 0), 0u) << "written outside the data directory: " << entry;
  }
  EXPECT_FALSE(path_exists(data_dir() + "/manifest.json"));
}

TEST_F(QmsyncTest, VerifyNamesCorruptAndMissingFilesAndRepairFixesThem) {
  start_server();
  ASSERT_EQ(qmsync(client({"sync"})).exit_code, 0);
  const ProcessResult clean = qmsync({"verify", "--data-dir", data_dir()});
  EXPECT_EQ(clean.exit_code, 0) << clean.err;

  std::string prices = read_file(data_dir() + "/features/equities/prices.bin");
  prices[1234] = static_cast<char>(prices[1234] ^ 0x01);
  write_file(data_dir() + "/features/equities/prices.bin", prices);
  ASSERT_TRUE(remove_file(data_dir() + "/docs/readme.txt"));

  const ProcessResult text = qmsync({"verify", "--data-dir", data_dir()});
  EXPECT_EQ(text.exit_code, 1);
  EXPECT_NE(text.out.find("corrupted  features/equities/prices.bin"), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("missing    docs/readme.txt"), std::string::npos) << text.out;
  const ProcessResult json = qmsync({"--json", "verify", "--data-dir", data_dir()});
  EXPECT_EQ(json.exit_code, 1);
  EXPECT_EQ(parse_json_text(json.out),
            (Json{{"valid", false},
                  {"corrupted_files", Json::array({"features/equities/prices.bin"})},
                  {"missing_files", Json::array({"docs/readme.txt"})}}));

  const ProcessResult repair =
      qmsync(client({"repair", "features/equities/prices.bin", "docs/readme.txt", "--json"}));
  ASSERT_EQ(repair.exit_code, 0) << repair.err;
  EXPECT_EQ(parse_json_text(repair.out)["bytes_downloaded"], 40000 + 21);
  EXPECT_EQ(qmsync({"verify", "--data-dir", data_dir()}).exit_code, 0);
  expect_mirrors_source();
}

TEST_F(QmsyncTest, BadInputExitsWithTheUsageCodeAndSaysWhy) {
  make_dirs(tmp_ / "a-directory");
  struct Case {
    std::vector<std::string> args;
    std::string says;
  };
  const std::vector<Case> cases = {
      {{"sync", "--server", "https://127.0.0.1:1"}, "needs --data-dir"},
      {{"verify", "--data-dir", tmp_ / "nowhere"}, "does not exist"},
      {{"synchronise", "--data-dir", data_dir()}, "unknown command 'synchronise'"},
      {{"sync", "--data-dir", data_dir(), "--server", "https://127.0.0.1:1", "--token-file", tmp_ / "a-directory"},
       "cannot read token file"},
      {{"sync", "--data-dir", data_dir(), "--server", "https://127.0.0.1:1", "--token-file", tmp_ / "no-token"},
       "cannot read token file"},
  };
  for (const Case& c : cases) {
    const ProcessResult r = qmsync(c.args);
    EXPECT_EQ(r.exit_code, 2) << c.says;
    EXPECT_EQ(r.last_err_line().rfind("error: UsageError: ", 0), 0u) << r.last_err_line();
    EXPECT_NE(r.last_err_line().find(c.says), std::string::npos) << r.last_err_line();
  }
}

TEST_F(QmsyncTest, PublishChecksVocabulariesWithTheClientsValidator) {
  source_files_["features/futures/vocabulary.json"] = vocabulary_text(2, "futures");
  write_source();
  const ProcessResult wrong_era = qmsync({"publish", "--source", source_dir(), "--out", root_dir(), "--era", "1",
                                          "--version", "1"});
  EXPECT_EQ(wrong_era.exit_code, 5);
  EXPECT_EQ(wrong_era.last_err_line(),
            "error: EraError: vocabulary.json era_id=2 does not match manifest era_id=1");
  // Checked before anything is written.
  EXPECT_FALSE(path_exists(root_dir()));
}

}  // namespace
}  // namespace quillmarsh::sync::testing
