#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>

namespace Halvex::App {

/// Slows the copying of chunks down to a simulated transfer speed, in quanta of 50 ms.
///
/// It waits at most once per chunk, about 50 ms: a chunk that is larger than a quantum is not
/// waited for any longer. With chunks of 128 KiB the speed below 2,560 KiB/s makes no difference.
///
/// One thread at a time, caller synchronises.
class RateLimiter {
public:
    /// The clock to measure with and the way to sleep.
    struct Time {
        std::function<std::chrono::steady_clock::time_point()> now;
        std::function<void(std::chrono::nanoseconds)> sleep;
    };

    /// KiB per second. 0 waits after every chunk. A speed whose product with 1024 is negative in 32
    /// bits never waits.
    explicit RateLimiter(int speedKiBps);
    RateLimiter(int speedKiBps, Time time);

    /// Counts a chunk of that many bytes, and sleeps if it was too fast.
    void OnChunk(std::size_t bytes);

private:
    void SleepMilliseconds(std::int64_t wait) const;

    const Time m_time;
    const std::uint64_t m_quantumBytes;
    std::uint64_t m_countedBytes = 0;
    std::uint64_t m_nextThreshold;
    std::int64_t m_lagMilliseconds = 10;
    std::chrono::steady_clock::time_point m_lastQuantum;
};

} // namespace Halvex::App
