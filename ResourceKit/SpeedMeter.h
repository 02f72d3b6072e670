#pragma once

#include "Foundation/Export.h"

#include <chrono>
#include <deque>
#include <optional>

namespace Halvex::Kit {

/// How fast a quantity grows at present: the mean over the last three seconds. It follows a stall
/// only while it is told of that too: of the same value at a later time.
///
/// One thread at a time, caller synchronises.
class HALVEX_EXPORT SpeedMeter {
public:
    using Time = std::chrono::steady_clock::time_point;

    /// Adds what has been reached by then. Times do not go back.
    void Add(Time time, double value);

    /// Forgets everything.
    void Reset() { m_samples.clear(); }

    /// Per second; 0 while nothing is known, and for a quantity that shrinks.
    double PerSecond() const;

    /// How long the rest, in the unit of the values, takes at this speed: rounded up, and at most a
    /// second less than 100 hours. Nothing while that is not to be foreseen.
    std::optional<std::chrono::seconds> TimeFor(double rest) const;

private:
    struct Sample {
        Time time;
        double value;
    };

    std::deque<Sample> m_samples;
};

} // namespace Halvex::Kit
