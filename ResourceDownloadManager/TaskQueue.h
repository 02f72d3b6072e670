#pragma once

#include "Foundation/Export.h"
#include "ResourceDownloadManager/ITaskQueue.h"

#include <memory>

namespace Halvex::App {

/// A queue that is drained by whoever calls ExecOne: smaller priority values first, and in the
/// order of adding within one priority. Any 32-bit value is a priority.
///
/// Thread-safe. Adding and executing sleep for a moment, mostly less than 0.1 ms, if the queue is
/// in use, and then wait as long as they have to. A queue that is destroyed destroys the tasks it
/// still holds, without running them; its observers must have unregistered by then.
class HALVEX_EXPORT TaskQueue : public ITaskQueue {
public:
    TaskQueue();
    ~TaskQueue() override;

    TaskQueue(const TaskQueue&) = delete;
    TaskQueue& operator=(const TaskQueue&) = delete;

    bool ExecOne() override;
    void AddTask(Task task, Priority priority) override;
    void RegisterEventHandler(ITaskQueueEventHandler* handler) override;
    void UnregisterEventHandler(ITaskQueueEventHandler* handler) override;

private:
    struct Impl;
    const std::unique_ptr<Impl> m_impl;
};

} // namespace Halvex::App
