#pragma once

#include "Foundation/Export.h"
#include "ResourceDownloadManager/IExecutor.h"

#include <cstddef>
#include <memory>

namespace Halvex::App {

/// Runs the tasks on a fixed number of threads, which are started for each call of ExecQueue and
/// have ended when it returns. A thread that finds the queue empty waits for tasks that running
/// tasks may still add; when all of them wait, all of them end.
///
/// ExecQueue and Abort may be called from any thread but those that run the tasks; calls of
/// ExecQueue on one executor wait for each other. What a task throws ends the process.
class HALVEX_EXPORT ParallelExecutor : public IExecutor {
public:
    /// With no thread at all it never runs anything.
    explicit ParallelExecutor(std::size_t threadCount);
    /// Aborts.
    ~ParallelExecutor() override;

    ParallelExecutor(const ParallelExecutor&) = delete;
    ParallelExecutor& operator=(const ParallelExecutor&) = delete;

    /// Throws std::system_error when a thread cannot be started. The threads that were started by
    /// then drain the queue, and the executor stays registered with it. Even if there are none, the
    /// queue must live until the next call of ExecQueue or Abort, or the destructor, has joined
    /// them and unregistered the executor.
    Result ExecQueue(ITaskQueue& queue) override;

    /// Lets the tasks that run end, starts no other ones, and returns when a running ExecQueue and
    /// all threads have ended. For good: every later ExecQueue runs nothing. May be called again.
    void Abort() override;

private:
    struct Impl;
    const std::unique_ptr<Impl> m_impl;
};

} // namespace Halvex::App
