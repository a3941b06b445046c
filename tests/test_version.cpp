// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include "vokt/text/version.h"

namespace {

TEST(Version, ComparesThreeNumbersAsTheRawDifference) {
    EXPECT_EQ(Version_Compare("2.1.8", "2.1.10"), -2);
    EXPECT_EQ(Version_Compare("3.0.0", "2.9.9"), 1);
    EXPECT_EQ(Version_Compare("1.5.0", "1.2.7"), 3);
    EXPECT_EQ(Version_Compare("2.1", "9.9.9"), 0);
    EXPECT_EQ(Version_Compare("1.2.3", "1.2.3"), 0);
    EXPECT_EQ(Version_Compare("x.y.z", "1.2.3"), 0);
    EXPECT_EQ(Version_Compare(nullptr, "1.2.3"), 0);
    // A difference that does not fit 32 bits still has the right sign.
    EXPECT_GT(Version_Compare("1.0.2147483647", "1.0.-1"), 0);
    EXPECT_EQ(Version_Compare("1.0.-1", "1.0.2147483647"), INT32_MIN) << "a difference that fits stays";
    EXPECT_LT(Version_Compare("-2147483648.0.0", "1.0.0"), 0);
}

}  // namespace
