#pragma once

#include <ResourceDownloadManager/Downloader/IResourceDownloader.h>

#include <atomic>
#include <memory>

/// Lets all downloads be cancelled and go on later.
///
/// ResourceDownloadManager::Abort is for the end of the application: nothing can be downloaded
/// after it. This one stands between the manager and its downloader instead and answers for the
/// person at the window when a download asks whether to go on. Cancelled downloads end in the state
/// Error with DownloadError::Cancelled; the manager tries them once more by itself, which ends here
/// at once.
///
/// Thread-safe.
class CancellableDownloader : public Halvex::App::IResourceDownloader {
public:
    explicit CancellableDownloader(std::shared_ptr<IResourceDownloader> downloader);

    /// Ends all downloads that are under way soon, and every later one at once.
    void CancelAll() { m_cancelled = true; }
    /// Ends that. A download that has not noticed yet goes on.
    void Resume() { m_cancelled = false; }

    Status Exec(Task task) const override;
    void Abort() override { m_downloader->Abort(); }

private:
    const std::shared_ptr<IResourceDownloader> m_downloader;
    std::atomic<bool> m_cancelled{false};
};
