#pragma once

#include <chrono>
#include <cstdint>

namespace Halvex::Networking {

/// Tells when a transfer has been slower than a limit for a while.
///
/// One thread at a time, caller synchronises.
class StallDetector {
public:
    using Clock = std::chrono::steady_clock;

    /// With a limit or a time of 0 or less nothing ever counts as stalled.
    StallDetector(std::int32_t bytesPerSecond, std::chrono::milliseconds time)
        : m_bytesPerSecond(bytesPerSecond), m_time(time) {}

    /// Whether, at this moment and with that many bytes in all, the transfer has been slower than
    /// the limit for the whole time. The first call begins the measurement.
    bool IsStalled(Clock::time_point now, std::int64_t bytes);

private:
    const std::int32_t m_bytesPerSecond;
    const std::chrono::milliseconds m_time;
    bool m_begun = false;
    /// Since here the transfer has been too slow.
    Clock::time_point m_since;
    std::int64_t m_bytesThen = 0;
};

} // namespace Halvex::Networking
