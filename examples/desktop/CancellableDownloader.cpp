#include "CancellableDownloader.h"

#include <utility>

CancellableDownloader::CancellableDownloader(std::shared_ptr<IResourceDownloader> downloader)
    : m_downloader(std::move(downloader)) {}

CancellableDownloader::Status CancellableDownloader::Exec(Task task) const {
    // Not even begun: a download deletes first what was there before.
    if (m_cancelled)
        return Status::Cancelled;
    task.cancellationQuery = [this, manager = std::move(task.cancellationQuery)] {
        return m_cancelled || manager();
    };
    return m_downloader->Exec(std::move(task));
}
