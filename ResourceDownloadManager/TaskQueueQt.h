#pragma once

#include "Foundation/Export.h"
#include "ResourceDownloadManager/ITaskQueue.h"

#include <memory>

namespace Halvex::App {

/// A queue whose tasks run on the Qt event loop of the thread that constructed it, more urgent ones
/// first among those that are waiting.
///
/// AddTask may be called from any thread. Destroy the queue on the thread that constructed it; the
/// tasks that have not run by then are destroyed unrun. Tasks run only while that thread runs a Qt
/// event loop. They must not throw: Qt's event loop does not support exceptions that pass through.
class HALVEX_EXPORT TaskQueueQt : public ITaskQueue {
public:
    TaskQueueQt();
    ~TaskQueueQt() override;

    TaskQueueQt(const TaskQueueQt&) = delete;
    TaskQueueQt& operator=(const TaskQueueQt&) = delete;

    /// Always false: the event loop runs the tasks.
    bool ExecOne() override;
    void AddTask(Task task, Priority priority) override;
    /// Does nothing: this queue tells nobody.
    void RegisterEventHandler(ITaskQueueEventHandler* handler) override;
    void UnregisterEventHandler(ITaskQueueEventHandler* handler) override;

private:
    class Impl;
    const std::unique_ptr<Impl> m_impl;
};

} // namespace Halvex::App
