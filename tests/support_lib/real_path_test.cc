#include "sync/support/real_path.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "sync/errors.h"
#include "tests/support/scoped_env.h"
#include "tests/support/temp_dir.h"

namespace quillmarsh::sync {
namespace {

namespace fs = std::filesystem;

// A fresh directory named by its canonical path, so expected values need no
// resolution of their own.
class RealPathTest : public ::testing::Test {
 protected:

  void link(const std::string& target, const std::string& at) {
    ASSERT_EQ(symlink(target.c_str(), (root_ + "/" + at).c_str()), 0) << at;
  }
  void mkdirs(const std::string& rel) { fs::create_directories(root_ + "/" + rel); }

  testing::TempDir dir_;
  const std::string root_ = fs::canonical(dir_.path()).string();
};

// Whether existing paths resolve as realpath(3) does is the path fuzz
// target's property, and links with missing tails are the path gate's
// suite's; missing paths, loops and relative paths are checked here.
TEST_F(RealPathTest, NormalisesMissingPathsLexicallyFromTheWorkingDirectory) {
  EXPECT_EQ(resolve_path(root_ + "/a/./b//../c/"), root_ + "/a/c");
  EXPECT_EQ(resolve_path(root_ + "/missing/../../x"), fs::path(root_).parent_path().string() + "/x");
  EXPECT_EQ(resolve_path("/../.."), "/");
  EXPECT_EQ(resolve_path("//"), "/");
  EXPECT_THROW(resolve_path(std::string("/tmp\0/x", 7)), ValueError);

  const fs::path before = fs::current_path();
  mkdirs("work");
  fs::current_path(root_ + "/work");
  EXPECT_EQ(resolve_path(""), root_ + "/work");
  EXPECT_EQ(resolve_path("x/y"), root_ + "/work/x/y");
  EXPECT_EQ(resolve_path("../x"), root_ + "/x");
  fs::current_path(before);
}

// Below a missing name nothing is looked up, until ".." climbs back to where
// links are; resolving below a resolved base is resolving the joined path;
// link loops stop resolving instead of hanging.
TEST_F(RealPathTest, MissingNamesLoopsAndResolvedBasesChangeNothingOfTheResult) {
  link("b", "a");
  link("a", "b");
  link("self", "self");
  link("real/../loop/x", "loop");
  mkdirs("real/sub");
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
  EXPECT_EQ(resolve_path(root_ + "/a/x"), root_ + "/a/x");
  EXPECT_EQ(resolve_path(root_ + "/self/y/.."), root_ + "/self");
  EXPECT_EQ(resolve_path(root_ + "/loop"), root_ + "/loop/x");
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
