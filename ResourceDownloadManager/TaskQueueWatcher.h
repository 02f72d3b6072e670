#pragma once

#include "Foundation/Mutex.h"
#include "ResourceDownloadManager/ITaskQueueEventHandler.h"

#include <condition_variable>
#include <cstdint>

namespace Halvex::App {

class ITaskQueue;

/// Lets one thread sleep until a queue has tasks, or until it is told to stop.
///
/// Thread-safe, but only one thread at a time may wait: each event wakes one.
class TaskQueueWatcher : public ITaskQueueEventHandler {
public:
    /// Registers with the queue, which must outlive the watcher.
    explicit TaskQueueWatcher(ITaskQueue& queue);
    ~TaskQueueWatcher() override;

    TaskQueueWatcher(const TaskQueueWatcher&) = delete;
    TaskQueueWatcher& operator=(const TaskQueueWatcher&) = delete;

    void OnQueueEvent(QueueEvent event) override HALVEX_EXCLUDES(m_mutex);

    /// Ends every wait, now and later. For good.
    void Deactivate() HALVEX_EXCLUDES(m_mutex);
    bool IsActive() HALVEX_EXCLUDES(m_mutex);

    /// Waits until the queue has announced tasks and not their end, or the watcher is inactive, at
    /// most that many seconds; with less than 1 second without a limit.
    void WaitForTasks(std::int64_t seconds) HALVEX_EXCLUDES(m_mutex);

private:
    QueueEvent m_lastEvent HALVEX_GUARDED_BY(m_mutex) = QueueEvent::QueueEmpty;
    /// A leaf, taken with the queue's lock held.
    Mutex m_mutex;
    std::condition_variable m_changed;
    bool m_active HALVEX_GUARDED_BY(m_mutex) = true;
    ITaskQueue& m_queue;
};

} // namespace Halvex::App
