#include "sync/support/event.h"

#include <gtest/gtest.h>

#include <thread>

#include "sync/support/sleep.h"

namespace quillmarsh::sync {
namespace {

TEST(Event, WaitEndsWhenAnotherThreadSetsIt) {
  Event event;
  EXPECT_FALSE(event.wait(0.01));
  std::thread setter([&] { event.set(); });
  EXPECT_TRUE(event.wait(10.0));
  setter.join();
  EXPECT_TRUE(event.is_set());
  EXPECT_TRUE(event.wait());
  event.clear();
  EXPECT_FALSE(event.is_set());
  EXPECT_FALSE(event.wait(0.0));
}

TEST(SyncSleep, GoesThroughTheReplacementAndBack) {
  std::vector<double> slept;
  SleepFunction previous = replace_sleep([&](double s) { slept.push_back(s); });
  sync_sleep(30.0);  // would hang the test if it were real
  sync_sleep(0.25);
  replace_sleep(previous);
  EXPECT_EQ(slept, (std::vector<double>{30.0, 0.25}));
}

}  // namespace
}  // namespace quillmarsh::sync
