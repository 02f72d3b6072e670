#include "ResourceDownloadManager/TaskQueueWatcher.h"

#include "ResourceDownloadManager/ITaskQueue.h"

#include <algorithm>
#include <chrono>

namespace Halvex::App {

namespace {

using Clock = std::chrono::steady_clock;

/// Now and that many seconds, or the end of time. Not before now.
Clock::time_point DeadlineIn(std::int64_t seconds) {
    const Clock::time_point now = Clock::now();
    const std::int64_t room =
        std::chrono::duration_cast<std::chrono::seconds>(Clock::time_point::max() - now).count();
    return seconds > room ? Clock::time_point::max()
                          : now + std::chrono::seconds(std::max<std::int64_t>(seconds, 0));
}

} // namespace

TaskQueueWatcher::TaskQueueWatcher(ITaskQueue& queue) : m_queue(queue) {
    m_queue.RegisterEventHandler(this);
}

TaskQueueWatcher::~TaskQueueWatcher() {
    m_queue.UnregisterEventHandler(this);
}

void TaskQueueWatcher::OnQueueEvent(QueueEvent event) {
    const MutexLock lock(m_mutex);
    m_lastEvent = event;
    m_changed.notify_one();
}

void TaskQueueWatcher::Deactivate() {
    const MutexLock lock(m_mutex);
    m_active = false;
    m_changed.notify_one();
}

bool TaskQueueWatcher::IsActive() {
    const MutexLock lock(m_mutex);
    return m_active;
}

void TaskQueueWatcher::WaitForTasks(std::int64_t seconds) {
    const Clock::time_point deadline = DeadlineIn(seconds);
    MutexLock lock(m_mutex);
    while (m_active && m_lastEvent != QueueEvent::QueueNotEmpty) {
        if (seconds < 1)
            lock.Wait(m_changed);
        else if (!lock.WaitUntil(m_changed, deadline))
            return;
    }
}

} // namespace Halvex::App
