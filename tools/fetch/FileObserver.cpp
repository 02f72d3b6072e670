#include "FileObserver.h"

#include "ResourceDownloadManager/ResourceDescriptor.h"

#include <utility>

namespace Halvex::Fetch {

using Status = App::IRemoteResource::DownloadStatus;

FileObserver::FileObserver(std::size_t files, const Wakeup& wakeup)
    : m_wakeup(wakeup), m_flags(files) {}

App::IRemoteResource::NotificationParams FileObserver::Params() {
    App::IRemoteResource::NotificationParams params;
    params.notifyProgress = false;
    params.statuses = {Status::Dowloading, Status::Available};
    return params;
}

void FileObserver::OnStateChanged(App::IRemoteResource::State state,
                                  const App::ResourceDescriptorBundle* bundle) {
    bool isFirst = false;
    {
        const std::lock_guard lock(m_mutex);
        Flags& flags = m_flags[bundle->userData];
        if (state.status == Status::Dowloading)
            flags.downloaded = true;
        if (state.status != Status::Available || std::exchange(flags.available, true))
            return;
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

bool FileObserver::WasDownloaded(std::size_t file) const {
    const std::lock_guard lock(m_mutex);
    return m_flags[file].downloaded;
}

} // namespace Halvex::Fetch
