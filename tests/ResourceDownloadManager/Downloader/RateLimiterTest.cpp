#include "ResourceDownloadManager/Downloader/RateLimiter.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <optional>
#include <vector>

namespace Halvex::App {
namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using TimePoint = std::chrono::steady_clock::time_point;

constexpr auto kLongestSleep = nanoseconds(864'000'000'000'000);

/// 5120 bytes per second, and a twentieth of them in each quantum.
constexpr int kSpeedKiBps = 5;
constexpr std::size_t kQuantum = 256;

/// Sleeping moves the clock on, by what was asked for unless told otherwise.
class RateLimiterTest : public testing::Test {
protected:
    void Start(int speedKiBps, TimePoint at = TimePoint(1h)) {
        m_now = at;
        m_limiter.emplace(speedKiBps, RateLimiter::Time{[this] { return m_now; },
                                                        [this](nanoseconds time) {
                                                            OnSleep(time);
                                                        }});
    }
    /// The sleeps that the chunk caused.
    std::vector<nanoseconds> Chunk(std::size_t bytes) {
        m_sleeps.clear();
        m_limiter->OnChunk(bytes);
        return m_sleeps;
    }
    void Pass(nanoseconds time) { m_now += time; }
    /// The next sleeps take so long, whatever was asked for.
    void SleepsTake(std::vector<nanoseconds> times) { m_sleepTimes = std::move(times); }

    TimePoint m_now;

private:
    void OnSleep(nanoseconds time) {
        m_sleeps.push_back(time);
        if (m_sleepTimes.empty()) {
            m_now += time;
            return;
        }
        m_now += m_sleepTimes.front();
        m_sleepTimes.erase(m_sleepTimes.begin());
    }

    std::vector<nanoseconds> m_sleeps;
    std::vector<nanoseconds> m_sleepTimes;
    std::optional<RateLimiter> m_limiter;
};

TEST_F(RateLimiterTest, WaitsWhenAQuantumIsFull) {
    Start(kSpeedKiBps);
    EXPECT_THAT(Chunk(kQuantum), ElementsAre(40ms));
}

TEST_F(RateLimiterTest, DoesNotWaitBelowAQuantum) {
    Start(kSpeedKiBps);
    EXPECT_THAT(Chunk(kQuantum - 1), IsEmpty());
}

TEST_F(RateLimiterTest, AddsChunksUp) {
    Start(kSpeedKiBps);
    EXPECT_THAT(Chunk(100), IsEmpty());
    EXPECT_THAT(Chunk(155), IsEmpty());
    EXPECT_THAT(Chunk(1), ElementsAre(40ms));
}

TEST_F(RateLimiterTest, RoundsTheQuantumDown) {
    Start(1);
    EXPECT_THAT(Chunk(50), IsEmpty());
    EXPECT_THAT(Chunk(1), ElementsAre(40ms));
}

TEST_F(RateLimiterTest, CountsOnAfterAWait) {
    Start(kSpeedKiBps);
    EXPECT_THAT(Chunk(kQuantum + 10), ElementsAre(40ms));
    EXPECT_THAT(Chunk(kQuantum - 11), IsEmpty());
    EXPECT_THAT(Chunk(1), ElementsAre(50ms));
}

TEST_F(RateLimiterTest, WaitsOnceForAChunkOfManyQuanta) {
    Start(kSpeedKiBps);
    EXPECT_THAT(Chunk(3 * kQuantum), ElementsAre(40ms));
}

TEST_F(RateLimiterTest, RaisesTheThresholdByOneQuantumForEachChunk) {
    Start(kSpeedKiBps);
    Chunk(3 * kQuantum);
    EXPECT_THAT(Chunk(0), ElementsAre(50ms));
    EXPECT_THAT(Chunk(0), ElementsAre(50ms));
    EXPECT_THAT(Chunk(0), IsEmpty());
    EXPECT_THAT(Chunk(kQuantum), ElementsAre(50ms));
}

TEST_F(RateLimiterTest, DoesNotRaiseTheThresholdForAChunkBelowIt) {
    Start(kSpeedKiBps);
    Chunk(1);
    Chunk(1);
    EXPECT_THAT(Chunk(kQuantum - 2), ElementsAre(40ms));
}

TEST_F(RateLimiterTest, SettlesAt50MillisecondsForEachQuantum) {
    Start(kSpeedKiBps);
    Chunk(kQuantum);
    for (int chunk = 0; chunk < 10; ++chunk)
        EXPECT_THAT(Chunk(kQuantum), ElementsAre(50ms));
}

TEST_F(RateLimiterTest, WaitsInFullFromTheChunkOnAndMakesUpForItLater) {
    Start(kSpeedKiBps);
    Pass(5ms);
    EXPECT_THAT(Chunk(kQuantum), ElementsAre(40ms));
    EXPECT_THAT(Chunk(kQuantum), ElementsAre(45ms));
    EXPECT_THAT(Chunk(kQuantum), ElementsAre(50ms));
}

TEST_F(RateLimiterTest, DoesNotWaitWhileItLagsBehind) {
    Start(kSpeedKiBps);
    Pass(60ms);
    EXPECT_THAT(Chunk(kQuantum), ElementsAre(40ms));
    EXPECT_THAT(Chunk(kQuantum), IsEmpty());
    EXPECT_THAT(Chunk(kQuantum), ElementsAre(40ms));
}

TEST_F(RateLimiterTest, DoesNotWaitForZeroMilliseconds) {
    Start(kSpeedKiBps);
    Pass(50ms);
    Chunk(kQuantum);
    EXPECT_THAT(Chunk(kQuantum), IsEmpty());
    EXPECT_THAT(Chunk(kQuantum), ElementsAre(50ms));
}

TEST_F(RateLimiterTest, WaitsForOneMillisecond) {
    Start(kSpeedKiBps);
    Pass(49ms);
    Chunk(kQuantum);
    EXPECT_THAT(Chunk(kQuantum), ElementsAre(1ms));
}

TEST_F(RateLimiterTest, CountsWholeMillisecondsOnly) {
    Start(kSpeedKiBps);
    Pass(999'999ns);
    EXPECT_THAT(Chunk(kQuantum), ElementsAre(40ms));
    EXPECT_THAT(Chunk(kQuantum), ElementsAre(50ms));
    Pass(1ms);
    EXPECT_THAT(Chunk(kQuantum), ElementsAre(50ms));
    EXPECT_THAT(Chunk(kQuantum), ElementsAre(49ms));
}

TEST_F(RateLimiterTest, MeasuresFromOneWaitToTheNext) {
    Start(kSpeedKiBps);
    Chunk(kQuantum);
    Pass(20ms);
    EXPECT_THAT(Chunk(kQuantum - 1), IsEmpty());
    Pass(10ms);
    EXPECT_THAT(Chunk(1), ElementsAre(50ms));
    EXPECT_THAT(Chunk(kQuantum), ElementsAre(20ms));
}

TEST_F(RateLimiterTest, SleepsAgainUntilTheDeadlineHasPassed) {
    Start(kSpeedKiBps);
    SleepsTake({10ms, 0ms, 29ms});
    EXPECT_THAT(Chunk(kQuantum), ElementsAre(40ms, 30ms, 30ms, 1ms));
}

TEST_F(RateLimiterTest, MakesUpForASleepThatTookTooLong) {
    Start(kSpeedKiBps);
    SleepsTake({70ms});
    EXPECT_THAT(Chunk(kQuantum), ElementsAre(40ms));
    EXPECT_THAT(Chunk(kQuantum), ElementsAre(20ms));
}

TEST_F(RateLimiterTest, SleepsAtMostTenDaysAtATime) {
    Start(kSpeedKiBps, TimePoint(3 * kLongestSleep));
    m_now = TimePoint(0ns);
    EXPECT_THAT(Chunk(kQuantum), ElementsAre(40ms));
    EXPECT_THAT(Chunk(kQuantum),
                ElementsAre(kLongestSleep, kLongestSleep, kLongestSleep, nanoseconds(50ms)));
}

TEST_F(RateLimiterTest, EndsALongestWaitWithTheClock) {
    Start(kSpeedKiBps, TimePoint::max());
    m_now = TimePoint(0ns);
    EXPECT_THAT(Chunk(kQuantum), ElementsAre(40ms));
    const std::vector<nanoseconds> sleeps = Chunk(kQuantum);
    EXPECT_EQ(std::accumulate(sleeps.begin(), sleeps.end(), nanoseconds(40ms)),
              TimePoint::max().time_since_epoch());
    EXPECT_EQ(*std::max_element(sleeps.begin(), sleeps.end()), kLongestSleep);
}

TEST_F(RateLimiterTest, WaitsAfterEveryChunkAtSpeedZero) {
    Start(0);
    EXPECT_THAT(Chunk(0), ElementsAre(40ms));
    EXPECT_THAT(Chunk(1), ElementsAre(50ms));
    EXPECT_THAT(Chunk(131072), ElementsAre(50ms));
}

TEST_F(RateLimiterTest, NeverWaitsAtANegativeSpeed) {
    for (const int speed : {-1, -1024, -2097152}) {
        Start(speed);
        EXPECT_THAT(Chunk(std::size_t{1} << 40), IsEmpty()) << speed;
    }
}

TEST_F(RateLimiterTest, HasItsHighestSpeedJustBelow2048MiB) {
    constexpr std::size_t kQuantumOf2097151 = 107'374'131;
    Start(2097151);
    EXPECT_THAT(Chunk(kQuantumOf2097151 - 1), IsEmpty());
    EXPECT_THAT(Chunk(1), ElementsAre(40ms));
}

TEST_F(RateLimiterTest, NeverWaitsWhenTheProductWrapsToANegativeOne) {
    for (const int speed : {2097152, 2097153, 4194303}) {
        Start(speed);
        EXPECT_THAT(Chunk(std::size_t{1} << 40), IsEmpty()) << speed;
    }
}

TEST_F(RateLimiterTest, WaitsAfterEveryChunkWhenTheProductWrapsToZero) {
    for (const int speed : {4194304, -4194304}) {
        Start(speed);
        EXPECT_THAT(Chunk(0), ElementsAre(40ms)) << speed;
    }
}

TEST_F(RateLimiterTest, IsSlowWhenTheProductWrapsToASmallOne) {
    for (const int speed : {4194305, -4194303}) {
        Start(speed);
        EXPECT_THAT(Chunk(50), IsEmpty()) << speed;
        EXPECT_THAT(Chunk(1), ElementsAre(40ms)) << speed;
    }
}

TEST_F(RateLimiterTest, HasAnEnormousQuantumAtANegativeSpeed) {
    Start(-1);
    constexpr std::size_t kQuantumOfMinusOne = (0 - std::uint64_t{1024}) / 20;
    EXPECT_THAT(Chunk(kQuantumOfMinusOne - 1), IsEmpty());
    EXPECT_THAT(Chunk(1), ElementsAre(40ms));
}

TEST(RateLimiter, SleepsOnTheSteadyClockByItself) {
    RateLimiter limiter(0);
    const auto start = std::chrono::steady_clock::now();
    limiter.OnChunk(1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 40ms);
}

} // namespace
} // namespace Halvex::App
