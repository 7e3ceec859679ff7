#include "sync/paths/manifest_paths.h"

#include <unistd.h>

#include <filesystem>
#include <functional>
#include <limits>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "sync/errors.h"
#include "tests/support/outcome.h"
#include "tests/support/temp_dir.h"

namespace quillmarsh::sync {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;
using testing::outcome;

const std::string kNotAPath = "ManifestError: Manifest file path must be a non-empty relative path";

// Whatever a call returned, or "Type: message" of what it raised.
std::string result_or_failure(const std::function<std::string()>& f) {
  std::string got;
  const std::string failure = outcome([&] { got = f(); });
  return failure == "ok" ? got : failure;
}

// That whatever passes is safe, that the JSON and text forms agree and that
// the local path never leaves the data directory are the path fuzz target's
// properties; the exact forms and messages are pinned here.
TEST(ManifestPathsRelative, NormalisesSafePathsAndRefusesHostileOnesQuotingThemAsReceived) {
  const std::pair<Json, std::string> cases[] = {
      {".\\a//b/./", "a/b"},
      {"\u00a0a/b\u3000", "a/b"},          // Unicode blanks at the ends go too
      {"my dir/ file .bin", "my dir/ file .bin"},
      {"..a/b../ ..", "..a/b../ .."},      // only a bare ".." is a parent step
      {"\u2003", kNotAPath},
      {nullptr, kNotAPath},  // not text
      // The NUL test comes before the ".." and absolute ones.
      {std::string("/x/\0/../y", 9), "ManifestError: Manifest file path contains NUL byte: '/x/\\x00/../y'"},
      {"  /a", "ManifestError: Manifest file path must be relative: '  /a'"},
      {"a\\..\\..\\b", "ManifestError: Manifest file path contains unsafe segments: 'a\\\\..\\\\..\\\\b'"},
  };
  for (const auto& [input, expected] : cases) {
    EXPECT_EQ(result_or_failure([&] { return _safe_manifest_relative_path(input); }), expected) << input;
    if (input.is_string()) {
      EXPECT_EQ(result_or_failure([&] { return _safe_manifest_relative_path(input.get<std::string>()); }), expected);
    }
  }
}

// A data directory, not yet made, inside a fresh temporary root.
class ManifestPathsLocal : public ::testing::Test {
 protected:

  void link(const std::string& target, const std::string& at) {
    ASSERT_EQ(symlink(target.c_str(), at.c_str()), 0) << at;
  }
  std::set<std::string> tree() const {
    std::set<std::string> out;
    for (const auto& e : fs::recursive_directory_iterator(root_)) out.insert(e.path().string());
    return out;
  }

  testing::TempDir dir_;
  const std::string root_ = fs::canonical(dir_.path()).string();
  const std::string data_ = root_ + "/data";
};

TEST_F(ManifestPathsLocal, WorksBeforeAnythingExistsAndFollowsOnlyLinksThatStayInside) {
  EXPECT_EQ(_manifest_local_path(data_, "a\\b/c.bin"), data_ + "/a/b/c.bin");
  EXPECT_EQ(_manifest_local_path(root_ + "/./data//", "./x"), data_ + "/x");
  EXPECT_EQ(_manifest_local_path(data_ + "/../data", Json("x")), data_ + "/x");
  EXPECT_TRUE(tree().empty());  // nothing made

  fs::create_directories(data_ + "/real/sub");
  fs::create_directories(root_ + "/data-sibling");
  link("../data-sibling", data_ + "/sib");  // shares the data dir's name as a prefix
  link("real", data_ + "/alias");
  link("../..", data_ + "/real/sub/up");  // back to the data dir itself
  link(data_, root_ + "/data-link");
  const std::set<std::string> before = tree();

  EXPECT_EQ(outcome([&] { _manifest_local_path(data_, "sib/x"); }),
            "ManifestError: Manifest file path escapes data directory: 'sib/x'");
  // Blanks around the path are dropped from the file name but kept in the message.
  EXPECT_EQ(outcome([&] { _manifest_local_path(data_, " sib "); }),
            "ManifestError: Manifest file path escapes data directory: ' sib '");
  EXPECT_EQ(_manifest_local_path(data_, "alias/new/file"), data_ + "/real/new/file");
  EXPECT_EQ(_manifest_local_path(data_, "real/sub/up"), data_);
  // A linked data directory is resolved first, so paths under it are inside.
  EXPECT_EQ(_manifest_local_path(root_ + "/data-link", "alias/x"), data_ + "/real/x");
  // A root data directory contains everything.
  EXPECT_EQ(_manifest_local_path("/", "tmp"), fs::canonical("/tmp").string());
  EXPECT_EQ(tree(), before);
}

// The base and the safe path are joined after the path is checked, and the
// base is refused for the API server's exact network location or endpoint.
TEST(ManifestPathsUrl, JoinsBaseAndSafePathAndComparesNetworkLocationsExactly) {
  const char kServer[] = "https://api.example.com:8443";
  const std::tuple<std::string, Json, std::string> cases[] = {
      {".\\d//f.bin", " https://r2.example.com/bucket/ \n", "https://r2.example.com/bucket/d/f.bin"},
      {"f", "HTTPS://r2.example.com///", "HTTPS://r2.example.com/f"},
      {"a b/c", "https://r2.example.com", "https://r2.example.com/a b/c"},
      // Same host, other port, other case or no port: a different network
      // location; and paths that only look like the API endpoint.
      {"f", "https://api.example.com:9443/b", "https://api.example.com:9443/b/f"},
      {"f", "https://API.example.com:8443/b", "https://API.example.com:8443/b/f"},
      {"f", "https://r2.example.com/data/filesystem", "https://r2.example.com/data/filesystem/f"},
      {"f", "https://r2.example.com/x/data/files", "https://r2.example.com/x/data/files/f"},
      {"f", " \t\n", "ManifestError: Manifest base_url is required for R2 artifact downloads"},
      {"f", "https:///b", "ManifestError: Manifest base_url must be an absolute HTTPS R2 URL"},
      {"f", "https://api.example.com:8443/bucket", "ManifestError: Manifest base_url must not point at the API server"},
      {"f", "https://r2.example.com/data/files//",
       "ManifestError: Manifest base_url must not use the API /data/files endpoint"},
      {"/x", "http://api.example.com", "ManifestError: Manifest file path must be relative: '/x'"},
  };
  for (const auto& [path, base, expected] : cases) {
    EXPECT_EQ(result_or_failure([&] { return _manifest_file_url(kServer, path, base); }), expected) << path << base;
    EXPECT_EQ(result_or_failure([&] { return _manifest_file_url(kServer, Json(path), base); }), expected) << path;
  }
  // No network location in the server URL: nothing to compare against.
  EXPECT_EQ(_manifest_file_url("", "f", "https://api.example.com:8443/b"), "https://api.example.com:8443/b/f");
}

TEST(ManifestPathsGroupKey, KeysFilesUnderTheirRootsEpochAndNothingElse) {
  struct Case {
    Json path;
    const char* prefix;
    std::optional<std::string> key;
  };
  const Case cases[] = {
      {"useful_signals/a/b/signal_os/deep/er.bin", "useful_signals", "useful_signals/a/b"},
      {"found_signals/x/y/signal_is/f", "found_signals/", "found_signals/x/y"},
      {"found_strategies/x/y/strategy_is/f", "found_strategies/", "found_strategies/x/y"},
      {"useful_signals/a/b/signal_is/f.bin", "useful_signals/", std::nullopt},  // another root's epoch
      {"useful_signals/a/b/signal_os", "useful_signals/", std::nullopt},        // four segments
      {"found_signals/a/b/signal_is/f", "useful_signals/", std::nullopt},       // prefix not matched
      {"other/a/b/signal_os/f", "other/", std::nullopt},                        // root not in the table
      {"useful_signalsX/a/b/signal_os/f", "useful_signals", std::nullopt},
      {7, "useful_signals/", std::nullopt},
  };
  for (const Case& c : cases) EXPECT_EQ(_agent_signal_group_key(c.path, c.prefix), c.key) << c.path << " " << c.prefix;
}

// The common names are the clean-up suite's; the edges are here.
TEST(ManifestPathsEraId, ParsesUpToTheLargestIdAndNothingOdd) {
  EXPECT_EQ(_parse_era_directory_id("era_9223372036854775807"), std::numeric_limits<std::int64_t>::max());
  for (const char* name : {"era_", "era_-1", "era__1", "era_ 1", "Era_1", "era_9223372036854775808"}) {
    EXPECT_EQ(_parse_era_directory_id(name), std::nullopt) << name;
  }
}

}  // namespace
}  // namespace quillmarsh::sync
