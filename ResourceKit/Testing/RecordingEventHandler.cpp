#include "ResourceKit/Testing/RecordingEventHandler.h"

#include "Foundation/Mutex.h"
#include "ResourceKit/Testing/Event.h"

#include <chrono>
#include <condition_variable>

namespace Halvex::Kit::Testing {

struct HALVEX_HIDDEN RecordingEventHandler::Impl {
    Mutex mutex;
    std::condition_variable added;
    std::vector<Notification> notifications HALVEX_GUARDED_BY(mutex);
};

RecordingEventHandler::RecordingEventHandler() : m_impl(std::make_unique<Impl>()) {}

RecordingEventHandler::~RecordingEventHandler() = default;

void RecordingEventHandler::OnStateChanged(State state,
                                           const App::ResourceDescriptorBundle* bundle) {
    const MutexLock lock(m_impl->mutex);
    m_impl->notifications.push_back({state, bundle});
    m_impl->added.notify_all();
}

std::vector<RecordingEventHandler::Notification> RecordingEventHandler::Notifications() const {
    const MutexLock lock(m_impl->mutex);
    return m_impl->notifications;
}

bool RecordingEventHandler::WaitFor(
    const std::function<bool(const Notification&)>& isWanted) const {
    const auto deadline = std::chrono::steady_clock::now() + kGenerousLimit;
    for (std::size_t i = 0;; ++i) {
        Notification next;
        {
            MutexLock lock(m_impl->mutex);
            while (i >= m_impl->notifications.size() && lock.WaitUntil(m_impl->added, deadline)) {
            }
            if (i >= m_impl->notifications.size())
                return false;
            next = m_impl->notifications[i];
        }
        if (isWanted(next))
            return true;
    }
}

bool RecordingEventHandler::WaitForStatus(App::IRemoteResource::DownloadStatus status) const {
    return WaitFor(
        [status](const Notification& notification) { return notification.state.status == status; });
}

} // namespace Halvex::Kit::Testing
