#pragma once

#include "ResourceDownloadManager/IExecutor.h"
#include "ResourceDownloadManager/ITaskQueue.h"

namespace Halvex::App {

/// Runs the tasks one after the other on the calling thread.
///
/// Thread-safe; has no state. What a task throws comes out of ExecQueue.
class BlockingExecutor : public IExecutor {
public:
    BlockingExecutor() = default;
    BlockingExecutor(const BlockingExecutor&) = delete;
    BlockingExecutor& operator=(const BlockingExecutor&) = delete;

    Result ExecQueue(ITaskQueue& queue) override {
        if (!queue.ExecOne())
            return Result::NothingExecuted;
        while (queue.ExecOne()) {
        }
        return Result::TasksExecuted;
    }

    /// Does nothing: the queue is drained all the same.
    void Abort() override {}
};

} // namespace Halvex::App
