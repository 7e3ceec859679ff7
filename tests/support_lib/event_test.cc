#include "sync/support/event.h"

#include <gtest/gtest.h>

#include <thread>

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

}  // namespace
}  // namespace quillmarsh::sync
