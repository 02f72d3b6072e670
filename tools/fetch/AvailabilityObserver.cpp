#include "AvailabilityObserver.h"

#include "ResourceDownloadManager/ResourceDescriptor.h"

#include <utility>

namespace Halvex::Fetch {

AvailabilityObserver::AvailabilityObserver(std::size_t bundles, const Wakeup& wakeup)
    : m_wakeup(wakeup), m_available(bundles), m_missing(bundles) {}

App::IRemoteResource::NotificationParams AvailabilityObserver::Params() {
    App::IRemoteResource::NotificationParams params;
    params.notifyProgress = false;
    params.statuses = {App::IRemoteResource::DownloadStatus::Available};
    return params;
}

void AvailabilityObserver::OnStateChanged(App::IRemoteResource::State,
                                          const App::ResourceDescriptorBundle* bundle) {
    bool isFirst = false;
    {
        const MutexLock lock(m_mutex);
        if (m_available[bundle->userData])
            return;
        m_available[bundle->userData] = true;
        --m_missing;
        isFirst = m_newlyAvailable.empty();
        m_newlyAvailable.push_back(bundle->userData);
    }
    if (isFirst)
        m_wakeup.Notify();
}

std::vector<std::size_t> AvailabilityObserver::TakeAvailable() {
    const MutexLock lock(m_mutex);
    return std::exchange(m_newlyAvailable, {});
}

bool AvailabilityObserver::AreAllAvailable() const {
    const MutexLock lock(m_mutex);
    return m_missing == 0;
}

} // namespace Halvex::Fetch
