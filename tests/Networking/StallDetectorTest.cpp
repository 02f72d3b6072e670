#include "Networking/StallDetector.h"

#include <gtest/gtest.h>

namespace Halvex::Networking {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

/// 1000 bytes per second, for two seconds.
class StallDetectorTest : public testing::Test {
protected:
    bool IsStalledAt(milliseconds time, std::int64_t bytes) {
        return m_detector.IsStalled(StallDetector::Clock::time_point(seconds(1000)) + time, bytes);
    }

private:
    StallDetector m_detector{1000, milliseconds(2000)};
};

TEST_F(StallDetectorTest, GivesATransferTimeToBegin) {
    EXPECT_FALSE(IsStalledAt(milliseconds(0), 0));
    EXPECT_FALSE(IsStalledAt(milliseconds(1999), 0));
}

TEST_F(StallDetectorTest, SeesThatNothingCame) {
    EXPECT_FALSE(IsStalledAt(milliseconds(0), 0));
    EXPECT_TRUE(IsStalledAt(milliseconds(2000), 0));
}

TEST_F(StallDetectorTest, SeesThatTooLittleCame) {
    EXPECT_FALSE(IsStalledAt(milliseconds(0), 0));
    EXPECT_FALSE(IsStalledAt(milliseconds(1000), 999));
    EXPECT_TRUE(IsStalledAt(milliseconds(2000), 1999));
}

TEST_F(StallDetectorTest, IsContentWithTheLimit) {
    EXPECT_FALSE(IsStalledAt(milliseconds(0), 0));
    EXPECT_FALSE(IsStalledAt(milliseconds(1000), 1000));
    EXPECT_FALSE(IsStalledAt(milliseconds(2000), 2000));
    EXPECT_FALSE(IsStalledAt(milliseconds(3999), 2000));
    EXPECT_TRUE(IsStalledAt(milliseconds(4000), 2000));
}

TEST_F(StallDetectorTest, ForgivesASlowBeginning) {
    EXPECT_FALSE(IsStalledAt(milliseconds(0), 0));
    EXPECT_FALSE(IsStalledAt(milliseconds(1900), 1900));
    EXPECT_FALSE(IsStalledAt(milliseconds(3800), 1901));
}

TEST(StallDetector, NeedsALimitAndATime) {
    const StallDetector::Clock::time_point begin;
    for (StallDetector detector :
         {StallDetector(0, milliseconds(1)), StallDetector(1, {}),
          StallDetector(-1, milliseconds(1)), StallDetector(1, milliseconds(-1))}) {
        EXPECT_FALSE(detector.IsStalled(begin, 0));
        EXPECT_FALSE(detector.IsStalled(begin + seconds(100), 0));
    }
}

} // namespace
} // namespace Halvex::Networking
