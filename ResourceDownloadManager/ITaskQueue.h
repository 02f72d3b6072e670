#pragma once

#include <cstdint>
#include <functional>

namespace Halvex::App {

class ITaskQueueEventHandler;

/// Holds tasks until somebody runs them.
///
/// Thread-safe. See each queue for who runs its tasks.
class ITaskQueue {
public:
    /// A smaller value is more urgent.
    enum Priority : std::int32_t {
        Highest,
        Higher,
        Middle,
        Lower,
        Lowest,
    };

    using Task = std::function<void()>;

    virtual ~ITaskQueue() = default;

    /// Runs the most urgent task on the calling thread, outside the queue's lock, and answers true;
    /// false if there was nothing to run. What the task throws comes out, and the task is gone. An
    /// empty task throws std::bad_function_call.
    virtual bool ExecOne() = 0;

    /// Takes a task over. It may add tasks to its own queue when it runs.
    virtual void AddTask(Task task, Priority priority) = 0;

    /// Adds an observer, which must unregister before it or the queue is destroyed. It is not told
    /// the present state. Adding it again does nothing.
    virtual void RegisterEventHandler(ITaskQueueEventHandler* handler) = 0;

    /// Removes an observer; one that is not registered is ignored.
    virtual void UnregisterEventHandler(ITaskQueueEventHandler* handler) = 0;
};

} // namespace Halvex::App
