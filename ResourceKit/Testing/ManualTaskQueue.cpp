#include "ResourceKit/Testing/ManualTaskQueue.h"

#include "Foundation/Mutex.h"

#include <map>
#include <utility>

namespace Halvex::Kit::Testing {

struct HALVEX_HIDDEN ManualTaskQueue::Impl {
    Mutex mutex;
    /// Equal keys stay in the order of adding.
    std::multimap<std::int32_t, Task> tasks HALVEX_GUARDED_BY(mutex);
};

ManualTaskQueue::ManualTaskQueue() : m_impl(std::make_unique<Impl>()) {}

ManualTaskQueue::~ManualTaskQueue() = default;

bool ManualTaskQueue::RunOne() {
    Task task;
    {
        const MutexLock lock(m_impl->mutex);
        const auto first = m_impl->tasks.begin();
        if (first == m_impl->tasks.end())
            return false;
        task = std::move(first->second);
        m_impl->tasks.erase(first);
    }
    task();
    return true;
}

std::size_t ManualTaskQueue::RunAll() {
    std::size_t count = 0;
    while (RunOne())
        ++count;
    return count;
}

std::size_t ManualTaskQueue::Size() const {
    const MutexLock lock(m_impl->mutex);
    return m_impl->tasks.size();
}

bool ManualTaskQueue::ExecOne() {
    return false;
}

void ManualTaskQueue::AddTask(Task task, Priority priority) {
    const MutexLock lock(m_impl->mutex);
    m_impl->tasks.emplace(priority, std::move(task));
}

void ManualTaskQueue::RegisterEventHandler(App::ITaskQueueEventHandler*) {}

void ManualTaskQueue::UnregisterEventHandler(App::ITaskQueueEventHandler*) {}

} // namespace Halvex::Kit::Testing
