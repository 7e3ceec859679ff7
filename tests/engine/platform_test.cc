#include "sync/engine/platform.h"

#include <gtest/gtest.h>

namespace quillmarsh::sync {
namespace {

TEST(Platform, MapsKnownPairsIgnoringCaseAndFallsBackToTheLowerCasedNames) {
  EXPECT_EQ(_detect_platform("Linux", "AMD64"), "linux_x86_64");
  EXPECT_EQ(_detect_platform("Darwin", "aarch64"), "macos_arm64");
  EXPECT_EQ(_detect_platform("Windows", "ARM64"), "windows_amd64");  // whatever the machine
  EXPECT_EQ(_detect_platform("Darwin", "PowerPC"), "darwin_powerpc");
  EXPECT_EQ(_detect_platform("FreeBSD", "amd64"), "freebsd_amd64");  // amd64 stays as it is
}

}  // namespace
}  // namespace quillmarsh::sync
