// Walks that delete (the ".tmp" sweeps of a sync pass and of a stop, the
// stray sweep of a transition) never go through a link planted in the data
// directory: what it points to lies outside and must stay whole.
#include <gtest/gtest.h>

#include <unistd.h>

#include "sync/support/posix_file.h"
#include "tests/support/era_fixture.h"
#include "tests/support/temp_dir.h"

namespace quillmarsh::sync {
namespace {

using TransitionLinkedDirectories = testing::EraFixture;

TEST_F(TransitionLinkedDirectories, SweepsOfSyncStopAndTransitionLeaveWhatALinkPointsTo) {
  testing::TempDir outside;
  const auto expect_outside_untouched = [&] {
    EXPECT_EQ(read_file(outside / "stale.tmp"), "not ours");
    EXPECT_EQ(read_file(outside / "stray.bin"), "not ours either");
  };
  publish_era_data(1, {{"features/a/one.bin", "era one"}});
  auto manager = make_manager(3600.0);
  // Outside: what each sweep would take if it followed "features/linked".
  write_file(outside / "stale.tmp", "not ours");
  write_file(outside / "stray.bin", "not ours either");
  make_dirs(path("features/a"));
  ASSERT_EQ(::symlink(outside.path().c_str(), path("features/linked").c_str()), 0);
  write_file(path("features/a/left.tmp"), "a real leftover");

  manager->sync();
  EXPECT_FALSE(path_exists(path("features/a/left.tmp")));
  expect_outside_untouched();

  manager->start();
  write_file(path("features/a/left.tmp"), "another leftover");
  manager->stop();
  EXPECT_FALSE(path_exists(path("features/a/left.tmp")));
  expect_outside_untouched();

  // The stray sweep of "features" takes files the new era lacks, but not
  // through the link.
  write_file(path("features/a/stray.bin"), "stray");
  publish_era_data(2, {{"features/a/one.bin", "era two"}});
  manager->trigger_era_transition(2, kill_fn(), restart_fn());
  EXPECT_EQ(read_file(path("features/a/one.bin")), "era two");
  EXPECT_FALSE(path_exists(path("features/a/stray.bin")));
  expect_outside_untouched();
}

}  // namespace
}  // namespace quillmarsh::sync
