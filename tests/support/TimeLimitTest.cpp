#include "support/TimeLimit.h"

#include "support/BackgroundCall.h"

#include <gtest/gtest.h>

#include <chrono>

namespace Halvex::Testing {
namespace {

TEST(TimeLimitDeathTest, EndsAProcessThatHangs) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            const TimeLimit limit(std::chrono::seconds(1));
            Event never;
            never.Wait();
        },
        "the test hangs: it has not ended after 1 s");
}

TEST(TimeLimit, IsNotWaitedForByATestThatEnds) {
    BackgroundCall test([] { const TimeLimit limit(std::chrono::hours(1)); });
    EXPECT_TRUE(test.Returns());
}

} // namespace
} // namespace Halvex::Testing
