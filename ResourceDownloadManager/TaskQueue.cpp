#include "ResourceDownloadManager/TaskQueue.h"

#include "Foundation/Mutex.h"
#include "ResourceDownloadManager/ITaskQueueEventHandler.h"

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <utility>

namespace Halvex::App {

struct HALVEX_HIDDEN TaskQueue::Impl {
    using QueueEvent = ITaskQueueEventHandler::QueueEvent;

    Mutex mutex;
    /// A list, once made, stays when it runs empty: there are few priorities.
    std::map<std::int32_t, std::deque<Task>> tasks HALVEX_GUARDED_BY(mutex);
    /// What was announced last, not whether there are tasks: only a failed ExecOne clears it.
    bool hasTasks HALVEX_GUARDED_BY(mutex) = false;
    std::set<ITaskQueueEventHandler*, std::less<>> handlers HALVEX_GUARDED_BY(mutex);

    /// Leaves a held queue alone for a moment before it waits in line: mostly under 0.1 ms with
    /// what the system adds. While somebody waits, each release has to wake a thread, which mostly
    /// finds the queue held again; threads that do nothing else get several times as much done like
    /// this, because those that run meanwhile are not disturbed.
    void Lock() HALVEX_ACQUIRE(mutex) {
        if (mutex.try_lock())
            return;
        std::this_thread::sleep_for(std::chrono::microseconds(20));
        mutex.lock();
    }

    void AnnounceLocked(bool nowHasTasks) HALVEX_REQUIRES(mutex) {
        if (std::exchange(hasTasks, nowHasTasks) == nowHasTasks)
            return;
        for (ITaskQueueEventHandler* handler : handlers)
            handler->OnQueueEvent(nowHasTasks ? QueueEvent::QueueNotEmpty : QueueEvent::QueueEmpty);
    }

    /// Moves the most urgent task out, or announces that there is none.
    bool TakeTask(Task& task) HALVEX_EXCLUDES(mutex) {
        Lock();
        const MutexLock lock(mutex, std::adopt_lock);
        for (auto& [priority, list] : tasks) {
            if (list.empty())
                continue;
            task = std::move(list.front());
            list.pop_front();
            return true;
        }
        AnnounceLocked(false);
        return false;
    }
};

TaskQueue::TaskQueue() : m_impl(std::make_unique<Impl>()) {}

TaskQueue::~TaskQueue() {
    decltype(m_impl->tasks) unrun;
    const MutexLock lock(m_impl->mutex);
    unrun.swap(m_impl->tasks);
}

bool TaskQueue::ExecOne() {
    Task task;
    if (!m_impl->TakeTask(task))
        return false;
    task();
    return true;
}

void TaskQueue::AddTask(Task task, Priority priority) {
    m_impl->Lock();
    const MutexLock lock(m_impl->mutex, std::adopt_lock);
    m_impl->tasks[priority].push_back(std::move(task));
    m_impl->AnnounceLocked(true);
}

void TaskQueue::RegisterEventHandler(ITaskQueueEventHandler* handler) {
    const MutexLock lock(m_impl->mutex);
    m_impl->handlers.insert(handler);
}

void TaskQueue::UnregisterEventHandler(ITaskQueueEventHandler* handler) {
    const MutexLock lock(m_impl->mutex);
    m_impl->handlers.erase(handler);
}

} // namespace Halvex::App
