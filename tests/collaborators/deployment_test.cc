#include "sync/collaborators/deployment.h"

#include <gtest/gtest.h>

#include "sync/errors.h"

namespace quillmarsh::sync {
namespace {

// Versions compare part by part as numbers, either way round; anything but
// dotted digits is refused on either side.
TEST(DeploymentDefault, ComparesDottedNumbersPartByPartAndRefusesTheRest) {
  const std::tuple<const char*, const char*, int> cases[] = {
      {"1.10", "1.9", 1},   {"1.2", "1.2.0", 0},     {"1.2.0.0", "1.2", 0}, {"0.0.3", "0.1", -1},
      {"2", "1.99.99", 1},  {"1.02", "1.2", 0},      {"10.0", "9.999", 1},
      {"123456789012345678", "123456789012345677", 1},
  };
  DefaultDeployment deployment;
  for (const auto& [a, b, sign] : cases) {
    const int forward = deployment._compare_versions(a, b), backward = deployment._compare_versions(b, a);
    EXPECT_EQ((forward > 0) - (forward < 0), sign) << a << " vs " << b;
    EXPECT_EQ((backward > 0) - (backward < 0), -sign) << b << " vs " << a;
  }
  for (const char* bad : {"", "1..2", "1.a", "v1", "1.", ".1", "1.2-rc1", " 1.2", "-1"}) {
    EXPECT_THROW(deployment._compare_versions(bad, "1.0"), ValueError) << '"' << bad << '"';
    EXPECT_THROW(deployment._compare_versions("1.0", bad), ValueError) << '"' << bad << '"';
  }
}

}  // namespace
}  // namespace quillmarsh::sync
