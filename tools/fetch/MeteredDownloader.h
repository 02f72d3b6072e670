#pragma once

#include "ResourceDownloadManager/Downloader/IResourceDownloader.h"
#include "TransferMeter.h"

#include <atomic>
#include <functional>
#include <memory>

namespace Halvex::Fetch {

/// Another downloader, with its bytes counted. After Abort it touches no file any more: the other
/// one would still remove the old file before it notices.
///
/// Thread-safe, as the other downloader must be.
class MeteredDownloader : public App::IResourceDownloader {
public:
    using CountOf = std::function<TransferMeter::Count&(const App::ResourceDescriptor&)>;

    /// Shares the other downloader. The function tells which count a resource belongs to.
    MeteredDownloader(std::shared_ptr<App::IResourceDownloader> downloader, CountOf countOf);

    Status Exec(Task task) const override;
    void Abort() override;

private:
    const std::shared_ptr<App::IResourceDownloader> m_downloader;
    const CountOf m_countOf;
    /// Written by Abort on any thread, never reset.
    std::atomic<bool> m_aborted{false};
};

} // namespace Halvex::Fetch
