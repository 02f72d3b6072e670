#pragma once

#include "Foundation/Export.h"
#include "ResourceDownloadManager/Downloader/IResourceDownloader.h"

#include <memory>

namespace Halvex::Networking {
class IHttpClient;
}

namespace Halvex::App {

class INetworkStateChecker;
class IProxyProvider;

/// Fetches resources over HTTP, through the system's proxy: the URL is baseUrl and relativePath,
/// joined with exactly one slash (an empty baseUrl leaves relativePath, without its leading slash).
///
/// The body is streamed into the temporary file, which is moved to the destination when it is
/// complete. While the network state checker answers offline, transfers are cancelled and count as
/// NetworkFailure, even one that was complete and has been moved.
///
/// Thread-safe, as the three services must be.
class HALVEX_EXPORT ResourceDownloaderHttp : public IResourceDownloader {
public:
    /// Shares the services. Without a client every download fails; without a proxy provider there
    /// is no proxy; without a network state checker it is always online.
    ResourceDownloaderHttp(const std::shared_ptr<Networking::IHttpClient>& client,
                           const std::shared_ptr<IProxyProvider>& proxyProvider,
                           const std::shared_ptr<INetworkStateChecker>& networkStateChecker);
    ~ResourceDownloaderHttp() override;

    ResourceDownloaderHttp(const ResourceDownloaderHttp&) = delete;
    ResourceDownloaderHttp& operator=(const ResourceDownloaderHttp&) = delete;

    /// NetworkFailure for the client's codes 3 and 8 and when offline, Cancelled for its code 15
    /// (its one-hour time-out included), Failed for its other codes and for what goes wrong with
    /// the files. Failures are logged at ERROR, a cancellation at INFO.
    Status Exec(Task task) const override;
    /// Cancels through the client, which asks as often as it promises.
    void Abort() override;

private:
    struct Impl;
    const std::unique_ptr<Impl> m_impl;
};

} // namespace Halvex::App
