#include "SourceDownloader.h"

#include "ResourceDownloadManager/FileUtils.h"
#include "ResourceDownloadManager/INetworkStateChecker.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"

#include <utility>

namespace Halvex::Fetch {

SourceDownloader::SourceDownloader(std::shared_ptr<App::IResourceDownloader> downloader,
                                   std::shared_ptr<App::INetworkStateChecker> networkStateChecker)
    : m_downloader(std::move(downloader)), m_networkStateChecker(std::move(networkStateChecker)) {}

App::IResourceDownloader::Status SourceDownloader::Exec(Task task) const {
    // The callbacks must die before this returns, which a parameter need not do.
    Task local = std::move(task);
    const auto isOffline = [this] {
        return m_networkStateChecker->GetState() == App::INetworkStateChecker::State::Offline;
    };
    const App::ioPath destination = local.descriptor->downloadPath;
    // Only then does a file that is there afterwards mean that it has arrived.
    if (!App::RemoveFile(destination))
        return Status::Failed;
    local.cancellationQuery = [isOffline, query = std::move(local.cancellationQuery)] {
        return query() || isOffline();
    };
    const Status status = m_downloader->Exec(std::move(local));
    if (isOffline())
        return Status::NetworkFailure;
    if (status == Status::Failed && App::FileExists(destination))
        return Status::Ok;
    return status;
}

void SourceDownloader::Abort() {
    m_downloader->Abort();
}

} // namespace Halvex::Fetch
