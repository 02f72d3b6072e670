#include "ResourceDownloadManager/OptimalThreadCount.h"

#include <gtest/gtest.h>

#include <limits>

namespace Halvex::App {
namespace {

TEST(OptimalThreadCount, IsAtLeastTwo) {
    EXPECT_EQ(OptimalThreadCount(1), 2u);
    EXPECT_EQ(OptimalThreadCount(4), 2u);
    EXPECT_EQ(OptimalThreadCount(5), 2u);
}

TEST(OptimalThreadCount, IsTwoWhenTheHardwareIsUnknown) {
    EXPECT_EQ(OptimalThreadCount(0), 2u);
}

TEST(OptimalThreadCount, IsHalfOfTheHardwareThreads) {
    EXPECT_EQ(OptimalThreadCount(6), 3u);
    EXPECT_EQ(OptimalThreadCount(12), 6u);
}

TEST(OptimalThreadCount, DropsTheHalfOfAnOddCount) {
    EXPECT_EQ(OptimalThreadCount(7), 3u);
    EXPECT_EQ(OptimalThreadCount(15), 7u);
}

TEST(OptimalThreadCount, IsAtMostEight) {
    EXPECT_EQ(OptimalThreadCount(16), 8u);
    EXPECT_EQ(OptimalThreadCount(17), 8u);
    EXPECT_EQ(OptimalThreadCount(64), 8u);
    EXPECT_EQ(OptimalThreadCount(std::numeric_limits<std::size_t>::max()), 8u);
}

} // namespace
} // namespace Halvex::App
