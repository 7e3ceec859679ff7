#include "sync/support/real_path.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "sync/errors.h"
#include "tests/support/scoped_env.h"

namespace quillmarsh::sync {
namespace {

namespace fs = std::filesystem;

// A fresh directory under the system's temporary area, named by its
// canonical path so expected values need no resolution of their own.
class RealPathTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "qm-realpath-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    root_ = fs::canonical(pattern).string();
  }
  void TearDown() override { fs::remove_all(root_); }

  void link(const std::string& target, const std::string& at) {
    ASSERT_EQ(symlink(target.c_str(), (root_ + "/" + at).c_str()), 0) << at;
  }
  void mkdirs(const std::string& rel) { fs::create_directories(root_ + "/" + rel); }

  std::string root_;
};

TEST_F(RealPathTest, NormalisesMissingPathsLexically) {
  EXPECT_EQ(resolve_path(root_ + "/a/./b//../c/"), root_ + "/a/c");
  EXPECT_EQ(resolve_path(root_ + "/missing/../../x"),
            fs::path(root_).parent_path().string() + "/x");
  EXPECT_EQ(resolve_path("/../.."), "/");
  EXPECT_EQ(resolve_path("//"), "/");
}

TEST_F(RealPathTest, RelativePathsStartAtWorkingDirectory) {
  const fs::path before = fs::current_path();
  mkdirs("work");
  fs::current_path(root_ + "/work");
  EXPECT_EQ(resolve_path(""), root_ + "/work");
  EXPECT_EQ(resolve_path("x/y"), root_ + "/work/x/y");
  EXPECT_EQ(resolve_path("../x"), root_ + "/x");
  fs::current_path(before);
}

TEST_F(RealPathTest, FollowsLinksAsFarAsThePathExists) {
  mkdirs("real/sub");
  mkdirs("d");
  link(root_ + "/real", "abs");    // absolute target
  link("../real/sub", "d/rel");    // relative to the link's own directory
  link("abs", "chain");            // link to a link
  EXPECT_EQ(resolve_path(root_ + "/abs/missing/file"), root_ + "/real/missing/file");
  EXPECT_EQ(resolve_path(root_ + "/d/rel"), root_ + "/real/sub");
  EXPECT_EQ(resolve_path(root_ + "/chain/sub/"), root_ + "/real/sub");
  // ".." after a link climbs from the link's target, not from the link.
  EXPECT_EQ(resolve_path(root_ + "/d/rel/.."), root_ + "/real");
  EXPECT_EQ(resolve_path(root_ + "/d/rel/../../d"), root_ + "/d");
}

TEST_F(RealPathTest, AgreesWithRealpathOnExistingPaths) {
  mkdirs("a/b/c");
  link("b/c", "a/lc");
  link("../lc/..", "a/b/up");  // back to a/b, through another link
  link(root_ + "/a/b/up/c", "top");
  for (const char* rel : {"a/lc", "a/b/up", "top", "top/..", "a/b/up/up/c", "a/lc/../c",
                          "a/b/up/../lc/.."}) {
    const std::string path = root_ + "/" + rel;
    char expected[PATH_MAX];
    ASSERT_NE(realpath(path.c_str(), expected), nullptr) << rel;
    EXPECT_EQ(resolve_path(path), expected) << rel;
  }
}

TEST_F(RealPathTest, LinkLoopsStopResolvingInsteadOfHanging) {
  link("b", "a");
  link("a", "b");
  link("self", "self");
  mkdirs("real");
  link("real/../loop/x", "loop");
  EXPECT_EQ(resolve_path(root_ + "/a/x"), root_ + "/a/x");
  EXPECT_EQ(resolve_path(root_ + "/self/y/.."), root_ + "/self");
  EXPECT_EQ(resolve_path(root_ + "/loop"), root_ + "/loop/x");
}

TEST_F(RealPathTest, RefusesNulByte) {
  EXPECT_THROW(resolve_path(std::string("/tmp\0/x", 7)), ValueError);
}

TEST_F(RealPathTest, ExpandUserUsesHomeThenPasswordEntry) {
  const passwd* me = getpwuid(getuid());
  ASSERT_NE(me, nullptr);
  std::string pw_home = me->pw_dir;
  while (!pw_home.empty() && pw_home.back() == '/') pw_home.pop_back();
  const std::string pw_name = me->pw_name;
  testing::ScopedEnv env;

  env.set("HOME", root_ + "/home/");
  EXPECT_EQ(expand_user("~"), root_ + "/home");
  EXPECT_EQ(expand_user("~/data/x"), root_ + "/home/data/x");
  EXPECT_EQ(expand_user("a/~/b"), "a/~/b");
  EXPECT_EQ(expand_user("~" + pw_name + "/x"), pw_home + "/x");
  EXPECT_EQ(expand_user("~qm-no-such-user-42/x"), "~qm-no-such-user-42/x");
  env.set("HOME", "/");
  EXPECT_EQ(expand_user("~"), "/");
  env.unset("HOME");
  EXPECT_EQ(expand_user("~/x"), pw_home + "/x");
}

}  // namespace
}  // namespace quillmarsh::sync
