#pragma once

#include <cstdint>

namespace Halvex::App {

class ITaskQueue;

/// Runs the tasks of a queue until there are none.
class IExecutor {
public:
    enum class Result : std::int32_t {
        NothingExecuted, ///< no task was run
        TasksExecuted,   ///< at least one task was run
    };

    virtual ~IExecutor() = default;

    /// Drains the queue, tasks that tasks add to it included, and returns when nothing is left and
    /// nothing runs. The queue must outlive the call.
    virtual Result ExecQueue(ITaskQueue& queue) = 0;

    /// Stops; see each executor for what that means.
    virtual void Abort() = 0;
};

} // namespace Halvex::App
