#pragma once

#include "ResourceDownloadManager/Downloader/IResourceDownloader.h"

#include <memory>

namespace Halvex::App {
class INetworkStateChecker;
}

namespace Halvex::Fetch {

/// Makes a whole downloader of ResourceDownloaderFileMock: the result tells whether the file has
/// arrived, and being offline interrupts a copy as it does a transfer.
///
/// Thread-safe, as the two services must be.
class SourceDownloader : public App::IResourceDownloader {
public:
    /// Shares both. The downloader's word counts when it is Cancelled; otherwise the file at the
    /// destination does.
    SourceDownloader(std::shared_ptr<App::IResourceDownloader> downloader,
                     std::shared_ptr<App::INetworkStateChecker> networkStateChecker);

    /// Never Failed for a file that has arrived; NetworkFailure while offline.
    Status Exec(Task task) const override;
    void Abort() override;

private:
    const std::shared_ptr<App::IResourceDownloader> m_downloader;
    const std::shared_ptr<App::INetworkStateChecker> m_networkStateChecker;
};

} // namespace Halvex::Fetch
