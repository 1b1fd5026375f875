// The public Linux platform header as a host built in a GNU dialect (-std=gnu++20) sees it: there
// `linux` is a predefined macro with the value 1. The library builds in strict C++20, so this file
// sets the macro itself before anything is included, exactly as the GNU dialects do.
#ifndef linux
#define linux 1
#endif

#include "corvane/linux_platform.h"

#include <gtest/gtest.h>

// The header leaves the macro as it found it.
static_assert(linux == 1, "linux_platform.h must not touch the linux macro");

namespace {

// Code in a GNU dialect spells the namespace as every other code does.
TEST(LinuxPlatformGnuDialectTest, NamesAreReachableWithTheMacroDefined) {
  corvane::linux_platform::LinuxPlatformOptions options;
  EXPECT_EQ(options.teamId, corvane::linux_platform::kDefaultTeamId);
  EXPECT_EQ(corvane::linux_platform::defaultFrameworkBundleDirectory().filename(),
            "Corvane.bundle");
  corvane::Error error;
  EXPECT_FALSE(corvane::linux_platform::makePlatform(options, &error));
}

}  // namespace
