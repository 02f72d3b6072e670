#pragma once

#include "Foundation/Export.h"
#include "ResourceDownloadManager/ITaskQueue.h"

#include <cstddef>
#include <memory>

namespace Halvex::Kit::Testing {

/// A queue whose tasks run when the test says so, on the test's thread: smaller priority values
/// first, and in the order of adding within one priority.
///
///     auto notifications = std::make_shared<ManualTaskQueue>();
///     RemoteResourceScheduler scheduler(..., notifications, ...);
///     ...
///     EXPECT_EQ(notifications->Size(), 1u);
///     notifications->RunAll();
///
/// Thread-safe. Tasks that have not run by its end are destroyed unrun.
class HALVEX_EXPORT ManualTaskQueue : public App::ITaskQueue {
public:
    ManualTaskQueue();
    ~ManualTaskQueue() override;

    ManualTaskQueue(const ManualTaskQueue&) = delete;
    ManualTaskQueue& operator=(const ManualTaskQueue&) = delete;

    /// Runs the most urgent task. False: there was none. What the task throws comes out, and the
    /// task is gone.
    bool RunOne();
    /// Runs tasks until there is none, those included that they add meanwhile. Answers how many.
    std::size_t RunAll();
    /// How many tasks wait. One that is running does not.
    std::size_t Size() const;

    /// Always false: an executor that has been given the queue finds nothing to run.
    bool ExecOne() override;
    void AddTask(Task task, Priority priority) override;
    /// Does nothing: this queue tells nobody.
    void RegisterEventHandler(App::ITaskQueueEventHandler* handler) override;
    void UnregisterEventHandler(App::ITaskQueueEventHandler* handler) override;

private:
    struct Impl;
    const std::unique_ptr<Impl> m_impl;
};

} // namespace Halvex::Kit::Testing
