#pragma once

#include <cstdint>

namespace Halvex::App {

/// Something that can be scheduled for checking and, when needed, downloading.
class ISchedulableResource {
public:
    /// How urgent a scheduling is. The retry policy reschedules with Normal.
    enum class SchedulePriority : std::int32_t {
        High,   ///< queued before the others
        Normal, ///< between the two
        Low,    ///< queued after the others; so is any value not named here
    };

    virtual ~ISchedulableResource() = default;

    /// Queues a check, whatever has been scheduled before. Does not wait for it. Any thread.
    virtual void Schedule(SchedulePriority priority) = 0;
};

} // namespace Halvex::App
