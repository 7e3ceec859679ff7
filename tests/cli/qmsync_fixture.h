// qmsync as a user drives it: a generated source tree that `publish` turns
// into an era, `serve` on loopback, and the client commands run as
// separate processes against it.
#ifndef QUILLMARSH_SYNC_TESTS_CLI_QMSYNC_FIXTURE_H_
#define QUILLMARSH_SYNC_TESTS_CLI_QMSYNC_FIXTURE_H_

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sync/support/json_text.h"
#include "sync/support/posix_file.h"
#include "tests/cli/process.h"
#include "tests/support/sample_data.h"
#include "tests/support/temp_dir.h"

#ifndef QMSYNC_BINARY
#error "QMSYNC_BINARY must name the built qmsync"
#endif

namespace quillmarsh::sync::testing {

class QmsyncTest : public ::testing::Test {
 protected:
  void SetUp() override {
    make_dirs(data_dir());
    // A chunk size below the larger file's size makes the client fetch it by ranges.
    source_files_ = {{"features/equities/prices.bin", pseudo_random_bytes(40000, 1)},
                     {"features/futures/rolls.bin", pseudo_random_bytes(3000, 2)},
                     {"docs/readme.txt", "What this era holds.\n"},
                     {"docs/empty.txt", ""}};
    write_source(1);
    write_file(token_path(), "token-1\n");
  }

  // Writes the source files, with vocabularies of `era`.
  void write_source(std::int64_t era) {
    for (const std::string universe : {"equities", "futures"}) {
      source_files_["features/" + universe + "/vocabulary.json"] = vocabulary_text(era, universe);
    }
    for (const auto& [path, bytes] : source_files_) {
      make_dirs(dir_name(source_dir() + "/" + path));
      write_file(source_dir() + "/" + path, bytes);
    }
  }

  std::string source_dir() const { return tmp_ / "source"; }
  std::string root_dir() const { return tmp_ / "root"; }
  std::string data_dir() const { return tmp_ / "work/data"; }
  std::string token_path() const { return tmp_ / "token"; }

  ProcessResult qmsync(std::vector<std::string> args, const std::vector<std::string>& env = {}) {
    args.insert(args.begin(), QMSYNC_BINARY);
    return run_process(args, tmp_.path(), env);
  }

  // Client options for the running server.
  std::vector<std::string> client(std::vector<std::string> args) {
    args.insert(args.end(), {"--data-dir", data_dir(), "--server", api_url_, "--ca-file", ca_file_, "--token-file",
                             token_path()});
    return args;
  }

  void publish(std::int64_t version, std::int64_t era = 1) {
    const ProcessResult r = qmsync({"publish", "--source", source_dir(), "--out", root_dir(), "--era",
                                    std::to_string(era), "--version", std::to_string(version)});
    ASSERT_EQ(r.exit_code, 0) << r.err;
  }
  // Replaces the server's current.json: what /era/current answers.
  void set_era_state(const std::string& state_json) { write_file(root_dir() + "/current.json", state_json); }

  void start_server(const std::vector<std::string>& serve_options = {}) {
    publish(1);
    std::vector<std::string> argv = {QMSYNC_BINARY, "serve", "--root", root_dir(), "--token-file", token_path(), "--json"};
    argv.insert(argv.end(), serve_options.begin(), serve_options.end());
    server_ = std::make_unique<Child>(argv, "", tmp_ / "serve.err");
    const std::optional<std::string> line = server_->read_line_for(kProcessTimeoutS);
    ASSERT_TRUE(line) << read_file(tmp_ / "serve.err");
    const Json started = parse_json_text(*line);
    api_url_ = started["api_url"].get<std::string>();
    ca_file_ = started["ca_file"].get<std::string>();
  }

  void expect_mirrors_source() {
    for (const auto& [path, bytes] : source_files_) {
      // Compared as a whole: a byte dump of a mismatch helps no one.
      EXPECT_TRUE(path_exists(data_dir() + "/" + path) && read_file(data_dir() + "/" + path) == bytes)
          << path << " differs from the source";
    }
  }

  TempDir tmp_;
  std::map<std::string, std::string> source_files_;
  std::unique_ptr<Child> server_;
  std::string api_url_;
  std::string ca_file_;
};

}  // namespace quillmarsh::sync::testing

#endif  // QUILLMARSH_SYNC_TESTS_CLI_QMSYNC_FIXTURE_H_
