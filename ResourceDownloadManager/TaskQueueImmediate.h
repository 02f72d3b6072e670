#pragma once

#include "ResourceDownloadManager/ITaskQueue.h"

namespace Halvex::App {

/// A queue that runs each task at once, on the thread that adds it, before AddTask returns.
///
/// Thread-safe; has no state. There is never anything to drain or to observe.
class TaskQueueImmediate : public ITaskQueue {
public:
    TaskQueueImmediate() = default;
    TaskQueueImmediate(const TaskQueueImmediate&) = delete;
    TaskQueueImmediate& operator=(const TaskQueueImmediate&) = delete;

    /// Always false.
    bool ExecOne() override { return false; }

    /// Runs the task. An empty one throws std::bad_function_call.
    void AddTask(Task task, Priority) override {
        const Task local = std::move(task);
        local();
    }

    void RegisterEventHandler(ITaskQueueEventHandler*) override {}
    void UnregisterEventHandler(ITaskQueueEventHandler*) override {}
};

} // namespace Halvex::App
