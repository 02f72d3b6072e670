#pragma once

#include "Foundation/Export.h"
#include "ResourceDownloadManager/Downloader/IResourceDownloader.h"

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace Halvex::App {
class INetworkStateChecker;
}

namespace Halvex::Kit {

/// Fetches each resource from the first of several servers that has it.
///
/// For every task it has another downloader try one base address after the other, in place of the
/// descriptor's own: first the one that worked last, then the others in the order given, until one
/// works. A host (the name with its port; several base addresses may lie on one) that has failed
/// three times in a row is not asked for a while. After that while it is asked again, and each
/// further failure leaves it out again until a download from it works. When all hosts are left out
/// they are all asked anyway; as long as one is not, a task fails with that one.
///
///     auto http = std::make_shared<App::ResourceDownloaderHttp>(
///         Networking::createHttpClient(Networking::HttpClientType::Native),
///         std::make_shared<App::QtProxyProvider>(), nullptr);
///     dependencies.resourceDownloader = std::make_shared<Kit::ResourceDownloaderMirrors>(
///         http, std::vector<std::string>{"https://eu.example.org/f/",
///         "https://us.example.org/f/"});
///
/// A descriptor whose relativePath is an address of its own and whose baseUrl is empty, as a
/// Manifest makes it for a file with a url and for a plain list, goes to the other downloader as it
/// is: it has no mirrors, and says nothing about any. An address begins with http:// or https://,
/// in any case; with another relativePath an empty baseUrl is replaced like any other.
///
/// For a mirror the other downloader gets a copy of the descriptor, at another address. What knows
/// a descriptor by its address, such as Manifest::Find, does not know the copy; the userData is the
/// same.
///
/// The progress of a task does not fall from one mirror to the next. With Qt's HTTP client, which
/// reports error pages as progress, it may be 1 after the first mirror that lacks the file.
///
/// A failure of any kind counts against the host, because a status does not tell a broken server
/// from a full disk; what is wrong with this machine is wrong with all hosts, and then none is
/// favoured. While the application is offline nothing counts, and no further host is tried.
///
/// Thread-safe, as the downloader and the network state checker must be.
class HALVEX_EXPORT ResourceDownloaderMirrors : public App::IResourceDownloader {
public:
    /// Shares the downloader and the checker. Without base addresses tasks go to the downloader as
    /// they are; without a downloader every task fails, with an ERROR line; without a checker it is
    /// always online (it should be the one that the downloader asks).
    ///
    /// A host is left out for leaveOutTime; 0 or less: never. A longer time saves more of the
    /// waiting for a server that is down, and takes longer to notice that it is back.
    ResourceDownloaderMirrors(
        std::shared_ptr<App::IResourceDownloader> downloader, std::vector<std::string> baseUrls,
        std::shared_ptr<App::INetworkStateChecker> networkStateChecker = nullptr,
        std::chrono::milliseconds leaveOutTime = std::chrono::minutes(1));
    ~ResourceDownloaderMirrors() override;

    ResourceDownloaderMirrors(const ResourceDownloaderMirrors&) = delete;
    ResourceDownloaderMirrors& operator=(const ResourceDownloaderMirrors&) = delete;

    /// Ok as soon as one mirror has worked. Cancelled as soon as one attempt was (for the
    /// downloader over HTTP the time-out of a whole request is one too), or when the query or Abort
    /// asks for it between two. When all that were asked have failed, NetworkFailure if any of them
    /// did so (that one may have the file, and is worth a retry later), else Failed. When one has
    /// failed and the application is offline, what that one said.
    ///
    /// Each mirror begins with the first byte. Its progress is passed on once it is as far as the
    /// furthest that has been reported: it stands still meanwhile, and never falls.
    Status Exec(Task task) const override;
    /// Passed on. No further mirror is tried, by the tasks under way and by later ones.
    void Abort() override;

private:
    struct Impl;
    const std::unique_ptr<Impl> m_impl;
};

} // namespace Halvex::Kit
