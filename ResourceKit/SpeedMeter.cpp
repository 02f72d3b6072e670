#include "ResourceKit/SpeedMeter.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace Halvex::Kit {

namespace {

constexpr std::chrono::seconds kWindow(3);
/// Longer than anybody waits, and far from what would overflow.
constexpr double kLongestSeconds = 100.0 * 3600 - 1;

} // namespace

void SpeedMeter::Add(Time time, double value) {
    m_samples.push_back({time, value});
    // One sample from before the window stays, so that the window is covered.
    while (m_samples.size() > 2 && m_samples[1].time <= time - kWindow)
        m_samples.pop_front();
}

double SpeedMeter::PerSecond() const {
    if (m_samples.empty())
        return 0;
    const std::chrono::duration<double> elapsed = m_samples.back().time - m_samples.front().time;
    const double grown = m_samples.back().value - m_samples.front().value;
    return elapsed.count() > 0 ? std::max(grown / elapsed.count(), 0.0) : 0;
}

std::optional<std::chrono::seconds> SpeedMeter::TimeFor(double rest) const {
    const double speed = PerSecond();
    if (!(speed > 0) || !(rest >= 0))
        return std::nullopt;
    return std::chrono::seconds(
        static_cast<std::int64_t>(std::ceil(std::min(rest / speed, kLongestSeconds))));
}

} // namespace Halvex::Kit
