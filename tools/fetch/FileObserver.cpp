#include "FileObserver.h"

#include "ResourceDownloadManager/ResourceDescriptor.h"

#include <utility>

namespace Halvex::Fetch {

FileObserver::FileObserver(std::size_t files, const Wakeup& wakeup)
    : m_wakeup(wakeup), m_available(files), m_missing(files) {}

App::IRemoteResource::NotificationParams FileObserver::Params() {
    App::IRemoteResource::NotificationParams params;
    params.notifyProgress = false;
    params.statuses = {App::IRemoteResource::DownloadStatus::Available};
    return params;
}

void FileObserver::OnStateChanged(App::IRemoteResource::State,
                                  const App::ResourceDescriptorBundle* bundle) {
    bool isFirst = false;
    {
        const std::lock_guard lock(m_mutex);
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

std::vector<std::size_t> FileObserver::TakeAvailable() {
    const std::lock_guard lock(m_mutex);
    return std::exchange(m_newlyAvailable, {});
}

bool FileObserver::AreAllAvailable() const {
    const std::lock_guard lock(m_mutex);
    return m_missing == 0;
}

} // namespace Halvex::Fetch
