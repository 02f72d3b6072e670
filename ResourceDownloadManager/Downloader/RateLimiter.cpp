#include "ResourceDownloadManager/Downloader/RateLimiter.h"

#include <algorithm>
#include <limits>
#include <thread>
#include <utility>

namespace Halvex::App {

namespace {

constexpr std::int64_t kQuantumMilliseconds = 50;
constexpr std::uint64_t kQuantaPerSecond = 20;
constexpr std::chrono::nanoseconds kLongestSleep(864'000'000'000'000);

/// The product wraps at 32 bits; what is negative then counts as enormous.
std::uint64_t BytesPerSecond(int speedKiBps) {
    const auto product =
        static_cast<std::int32_t>(static_cast<std::uint32_t>(speedKiBps) * std::uint32_t{1024});
    return static_cast<std::uint64_t>(static_cast<std::int64_t>(product));
}

} // namespace

RateLimiter::RateLimiter(int speedKiBps)
    : RateLimiter(speedKiBps, {[] { return std::chrono::steady_clock::now(); },
                               [](std::chrono::nanoseconds time) {
                                   std::this_thread::sleep_for(time);
                               }}) {}

RateLimiter::RateLimiter(int speedKiBps, Time time)
    : m_time(std::move(time)), m_quantumBytes(BytesPerSecond(speedKiBps) / kQuantaPerSecond),
      m_nextThreshold(m_quantumBytes), m_lastQuantum(m_time.now()) {}

void RateLimiter::OnChunk(std::size_t bytes) {
    m_countedBytes += bytes;
    if (m_countedBytes < m_nextThreshold)
        return;
    // One quantum only, however far the count has run ahead.
    m_nextThreshold += m_quantumBytes;
    SleepMilliseconds(kQuantumMilliseconds - m_lagMilliseconds);

    const auto now = m_time.now();
    const auto elapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(now - m_lastQuantum).count();
    m_lastQuantum = now;
    m_lagMilliseconds += elapsed - kQuantumMilliseconds;
}

void RateLimiter::SleepMilliseconds(std::int64_t wait) const {
    if (wait < 1)
        return;
    using TimePoint = std::chrono::steady_clock::time_point;
    constexpr std::int64_t kNanosecondsPerMillisecond = 1'000'000;
    const auto now = m_time.now();
    const std::int64_t room = (TimePoint::max() - now) / std::chrono::milliseconds(1);
    const TimePoint deadline =
        wait > room ? TimePoint::max()
                    : now + std::chrono::nanoseconds(wait * kNanosecondsPerMillisecond);
    for (auto current = now; current < deadline; current = m_time.now())
        m_time.sleep(std::min<std::chrono::nanoseconds>(deadline - current, kLongestSleep));
}

} // namespace Halvex::App
