#include "sync/paths/manifest_paths.h"
#include "sync/support/real_path.h"

#include <pwd.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "sync/errors.h"
#include "tests/support/outcome.h"
#include "tests/support/scoped_env.h"
#include "tests/support/temp_dir.h"

namespace quillmarsh::sync {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;
using testing::outcome;
using testing::result_or_failure;

const std::string kNotAPath = "ManifestError: Manifest file path must be a non-empty relative path";

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
  }
}

// A fresh temporary root named by its canonical path, so expected values
// need no resolution of their own; for the path gate, a data directory not
// yet made inside it.
class LinkedTree : public ::testing::Test {
 protected:
  void link(const std::string& target, const std::string& at) {
    ASSERT_EQ(symlink(target.c_str(), (root_ + "/" + at).c_str()), 0) << at;
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
using ManifestPathsLocal = LinkedTree;
using RealPath = LinkedTree;

TEST_F(ManifestPathsLocal, WorksBeforeAnythingExistsAndFollowsOnlyLinksThatStayInside) {
  EXPECT_EQ(_manifest_local_path(data_, "a\\b/c.bin"), data_ + "/a/b/c.bin");
  EXPECT_EQ(_manifest_local_path(root_ + "/./data//", "./x"), data_ + "/x");
  EXPECT_EQ(_manifest_local_path(data_ + "/../data", Json("x")), data_ + "/x");
  EXPECT_TRUE(tree().empty());  // nothing made

  fs::create_directories(data_ + "/real/sub");
  fs::create_directories(root_ + "/data-sibling");
  link("../data-sibling", "data/sib");  // shares the data dir's name as a prefix
  link("real", "data/alias");
  link("../..", "data/real/sub/up");  // back to the data dir itself
  link(data_, "data-link");

  // That a path through sib is refused, and that the tree stays as it was,
  // is the path fuzz target's property over a tree like this one. Blanks
  // around the path are dropped from the file name but kept in the message.
  EXPECT_EQ(outcome([&] { _manifest_local_path(data_, " sib "); }),
            "ManifestError: Manifest file path escapes data directory: ' sib '");
  EXPECT_EQ(_manifest_local_path(data_, "alias/new/file"), data_ + "/real/new/file");
  EXPECT_EQ(_manifest_local_path(data_, "real/sub/up"), data_);
  // A linked data directory is resolved first, so paths under it are inside.
  EXPECT_EQ(_manifest_local_path(root_ + "/data-link", "alias/x"), data_ + "/real/x");
  // A root data directory contains everything.
  EXPECT_EQ(_manifest_local_path("/", "tmp"), fs::canonical("/tmp").string());
}

// The base and the safe path are joined after the path is checked, and the
// base is refused for the API server's exact network location or endpoint.
TEST(ManifestPathsUrl, JoinsBaseAndSafePathAndComparesNetworkLocationsExactly) {
  const char kServer[] = "https://api.example.com:8443";
  const std::tuple<std::string, Json, std::string> cases[] = {
      {".\\d//f.bin", " https://r2.example.com/bucket/ \n", "https://r2.example.com/bucket/d/f.bin"},
      {"f", "HTTPS://r2.example.com///", "HTTPS://r2.example.com/f"},
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
  }
  // No network location in the server URL: nothing to compare against.
  EXPECT_EQ(_manifest_file_url("", "f", "https://api.example.com:8443/b"), "https://api.example.com:8443/b/f");
}

TEST(ManifestPathsGroupKey, KeysFilesUnderTheirRootsEpochAndNothingElse) {
  const std::tuple<Json, const char*, std::optional<std::string>> cases[] = {
      {"useful_signals/a/b/signal_os/deep/er.bin", "useful_signals", "useful_signals/a/b"},
      {"found_signals/x/y/signal_is/f", "found_signals/", "found_signals/x/y"},
      {"useful_signals/a/b/signal_is/f.bin", "useful_signals/", std::nullopt},  // another root's epoch
      {"useful_signals/a/b/signal_os", "useful_signals/", std::nullopt},        // four segments
      {"found_signals/a/b/signal_is/f", "useful_signals/", std::nullopt},       // prefix not matched
      {"useful_signalsX/a/b/signal_os/f", "useful_signals", std::nullopt},
      {7, "useful_signals/", std::nullopt},
  };
  for (const auto& [path, prefix, key] : cases) EXPECT_EQ(_agent_signal_group_key(path, prefix), key) << path << prefix;
}

// The common names are the clean-up suite's; the edges are here.
TEST(ManifestPathsEraId, ParsesUpToTheLargestIdAndNothingOdd) {
  EXPECT_EQ(_parse_era_directory_id("era_9223372036854775807"), std::numeric_limits<std::int64_t>::max());
  for (const char* name : {"era_", "era_-1", "era__1", "era_ 1", "Era_1", "era_9223372036854775808"}) {
    EXPECT_EQ(_parse_era_directory_id(name), std::nullopt) << name;
  }
}

// Whether existing paths resolve as realpath(3) does is the path fuzz
// target's property, and links with missing tails are the path gate's
// suite's; missing and relative paths are checked here.
TEST_F(RealPath, NormalisesMissingPathsLexicallyFromTheWorkingDirectory) {
  EXPECT_EQ(resolve_path(root_ + "/a/./b//../c/"), root_ + "/a/c");
  EXPECT_EQ(resolve_path(root_ + "/missing/../../x"), fs::path(root_).parent_path().string() + "/x");
  EXPECT_EQ(resolve_path("/../.."), "/");
  EXPECT_THROW(resolve_path(std::string("/tmp\0/x", 7)), ValueError);

  const fs::path before = fs::current_path();
  fs::create_directories(root_ + "/work");
  fs::current_path(root_ + "/work");
  EXPECT_EQ(resolve_path(""), root_ + "/work");
  EXPECT_EQ(resolve_path("x/y"), root_ + "/work/x/y");
  EXPECT_EQ(resolve_path("../x"), root_ + "/x");
  fs::current_path(before);
}

// Below a missing name nothing is looked up, until ".." climbs back to where
// links are; resolving below a resolved base is resolving the joined path.
// That link loops stop resolving instead of hanging shows in the path fuzz
// target, whose tree has them.
TEST_F(RealPath, MissingNamesAndResolvedBasesChangeNothingOfTheResult) {
  fs::create_directories(root_ + "/real/sub");
  link("real", "to_real");
  link("nowhere", "dangling");
  link("real/file", "to_file");
  std::ofstream(root_ + "/real/file") << "x";
  for (const char* rel : {"to_real/sub", "missing/../to_real/sub", "missing/deeper/../../to_real", "dangling/x",
                          "to_file/x", "to_file/../to_real", "real/missing/../sub/../../to_real/sub", ".", ""}) {
    SCOPED_TRACE(rel);
    const std::string joined = resolve_path(root_ + "/" + rel);
    EXPECT_EQ(resolve_path_below(root_, rel), joined);
  }
  EXPECT_EQ(resolve_path(root_ + "/missing/../to_real/sub"), root_ + "/real/sub");
  EXPECT_EQ(resolve_path(root_ + "/dangling/x"), root_ + "/nowhere/x");
  EXPECT_EQ(resolve_path_below(root_, "/abs/../x"), "/x");
}

TEST_F(RealPath, ExpandUserUsesHomeThenPasswordEntry) {
  const passwd* me = getpwuid(getuid());
  ASSERT_NE(me, nullptr);
  std::string pw_home = me->pw_dir;
  while (!pw_home.empty() && pw_home.back() == '/') pw_home.pop_back();
  testing::ScopedEnv env;

  env.set("HOME", root_ + "/home/");
  EXPECT_EQ(expand_user("~"), root_ + "/home");
  EXPECT_EQ(expand_user("~/data/x"), root_ + "/home/data/x");
  EXPECT_EQ(expand_user("a/~/b"), "a/~/b");
  EXPECT_EQ(expand_user("~qm-no-such-user-42/x"), "~qm-no-such-user-42/x");
  env.unset("HOME");
  EXPECT_EQ(expand_user("~/x"), pw_home + "/x");
}

}  // namespace
}  // namespace quillmarsh::sync
