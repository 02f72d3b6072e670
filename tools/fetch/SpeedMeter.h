#pragma once

#include <chrono>
#include <deque>
#include <optional>

namespace Halvex::Fetch {

/// How fast a quantity grows at present: the mean over the last few seconds. One thread at a time,
/// caller synchronises.
class SpeedMeter {
public:
    using Time = std::chrono::steady_clock::time_point;

    /// Adds what has been reached by then. Times do not go back.
    void Add(Time time, double value);

    /// Per second; 0 while nothing is known.
    double PerSecond() const;

    /// How long the rest takes at this speed; nothing while that is not to be foreseen.
    std::optional<std::chrono::seconds> TimeFor(double rest) const;

private:
    struct Sample {
        Time time;
        double value;
    };

    std::deque<Sample> m_samples;
};

} // namespace Halvex::Fetch
