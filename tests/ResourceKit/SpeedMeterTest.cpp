#include "ResourceKit/SpeedMeter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace Halvex::Kit {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

class SpeedMeterTest : public testing::Test {
protected:
    void AddAt(milliseconds time, double value) { meter.Add(SpeedMeter::Time(time), value); }
    SpeedMeter meter;
};

TEST_F(SpeedMeterTest, KnowsNoSpeedAtFirst) {
    EXPECT_EQ(meter.PerSecond(), 0);
    AddAt(milliseconds(0), 100);
    EXPECT_EQ(meter.PerSecond(), 0);
    EXPECT_FALSE(meter.TimeFor(1).has_value());
}

TEST_F(SpeedMeterTest, DividesGrowthByTime) {
    AddAt(milliseconds(0), 100);
    AddAt(milliseconds(500), 200);
    EXPECT_DOUBLE_EQ(meter.PerSecond(), 200);
}

TEST_F(SpeedMeterTest, ForgetsWhatLiesBack) {
    AddAt(seconds(0), 0);
    AddAt(seconds(1), 1000);
    AddAt(seconds(4), 1000);
    EXPECT_DOUBLE_EQ(meter.PerSecond(), 0);
}

TEST_F(SpeedMeterTest, KeepsTheWholeWindow) {
    AddAt(seconds(0), 0);
    AddAt(seconds(1), 300);
    AddAt(seconds(3), 300);
    EXPECT_DOUBLE_EQ(meter.PerSecond(), 100);
}

TEST_F(SpeedMeterTest, NeverRunsBackwards) {
    AddAt(seconds(0), 10);
    AddAt(seconds(1), 5);
    EXPECT_EQ(meter.PerSecond(), 0);
}

TEST_F(SpeedMeterTest, ForgetsEverythingWhenToldTo) {
    AddAt(seconds(0), 0);
    AddAt(seconds(1), 10);
    meter.Reset();
    EXPECT_EQ(meter.PerSecond(), 0);
    AddAt(seconds(2), 10);
    EXPECT_EQ(meter.PerSecond(), 0);
}

TEST_F(SpeedMeterTest, ForeseesTheTimeForTheRest) {
    AddAt(seconds(0), 0);
    AddAt(seconds(1), 10);
    EXPECT_EQ(meter.TimeFor(25), seconds(3));
    EXPECT_EQ(meter.TimeFor(0), seconds(0));
    EXPECT_EQ(meter.TimeFor(1e300), seconds(359'999));
    EXPECT_FALSE(meter.TimeFor(std::nan("")).has_value());
}

TEST_F(SpeedMeterTest, ForeseesNothingFromWhatIsNotANumber) {
    AddAt(seconds(0), 0);
    AddAt(seconds(1), std::nan(""));
    EXPECT_FALSE(meter.TimeFor(1).has_value());
}

} // namespace
} // namespace Halvex::Kit
