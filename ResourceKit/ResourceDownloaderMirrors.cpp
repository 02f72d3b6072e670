#include "ResourceKit/ResourceDownloaderMirrors.h"

#include "Foundation/Mutex.h"
#include "ResourceDownloadManager/INetworkStateChecker.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"

#include <glog/logging.h>

#include <QtCore/QUrl>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <numeric>
#include <utility>

namespace Halvex::Kit {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint64_t kFailuresInARow = 3;

/// What is known of a server.
struct Host {
    std::uint64_t failuresInARow = 0;
    Clock::time_point lastFailure{};
};

/// "example.org:443". An address that is none is a host of its own.
std::string HostOf(const std::string& baseUrl) {
    const QUrl url(QString::fromStdString(baseUrl));
    if (url.host().isEmpty())
        return baseUrl;
    const int port = url.port(url.scheme() == QLatin1String("https") ? 443 : 80);
    return url.host().toStdString() + ':' + std::to_string(port);
}

/// Whether what is fetched is at one place only, which relativePath names by itself.
bool HasAddressOfItsOwn(const App::ResourceDescriptor& descriptor) {
    const QString path = QString::fromStdString(descriptor.relativePath);
    return descriptor.baseUrl.empty() &&
           (path.startsWith(QLatin1String("http://"), Qt::CaseInsensitive) ||
            path.startsWith(QLatin1String("https://"), Qt::CaseInsensitive));
}

/// Passes a downloader's progress on, without the part that repeats what has been reported.
class RisingProgress {
public:
    using Callback = std::function<void(std::size_t, std::size_t)>;

    explicit RisingProgress(const Callback& callback) : m_callback(callback) {}

    void Report(std::size_t done, std::size_t total) {
        const double fraction = static_cast<double>(done) / static_cast<double>(total);
        // What is not a number is passed on, and nothing is measured against it.
        if (fraction < m_furthest)
            return;
        m_furthest = std::max(m_furthest, fraction);
        m_callback(done, total);
    }

private:
    const Callback& m_callback;
    double m_furthest = 0;
};

} // namespace

struct HALVEX_HIDDEN ResourceDownloaderMirrors::Impl {
    Impl(std::shared_ptr<App::IResourceDownloader> inner, std::vector<std::string> urls,
         std::shared_ptr<App::INetworkStateChecker> checker, std::chrono::milliseconds time)
        : downloader(std::move(inner)), baseUrls(std::move(urls)),
          networkStateChecker(std::move(checker)), leaveOutTime(time) {
        for (const std::string& baseUrl : baseUrls) {
            hostNames.push_back(HostOf(baseUrl));
            hosts[hostNames.back()] = {};
        }
    }

    bool IsOffline() const {
        return networkStateChecker &&
               networkStateChecker->GetState() == App::INetworkStateChecker::State::Offline;
    }

    /// Whether a mirror's host is left out while that of another candidate is not.
    bool IsLeftOutForOthers(std::size_t mirror, const std::vector<std::size_t>& candidates) const {
        const MutexLock lock(mutex);
        const auto now = Clock::now();
        if (!IsLeftOutLocked(mirror, now))
            return false;
        for (const std::size_t other : candidates) {
            if (!IsLeftOutLocked(other, now))
                return true;
        }
        return false;
    }

    bool IsLeftOutLocked(std::size_t mirror, Clock::time_point now) const HALVEX_REQUIRES(mutex) {
        const Host& host = hosts.at(hostNames[mirror]);
        // In the coarser unit, in which even the longest time fits.
        const auto passed =
            std::chrono::duration_cast<std::chrono::milliseconds>(now - host.lastFailure);
        return host.failuresInARow >= kFailuresInARow && passed < leaveOutTime;
    }

    /// The mirrors to try, in this order.
    std::vector<std::size_t> Candidates() const {
        const MutexLock lock(mutex);
        const auto now = Clock::now();
        std::vector<std::size_t> all(baseUrls.size());
        std::iota(all.begin(), all.end(), 0);
        const auto first = all.begin() + static_cast<std::ptrdiff_t>(lastWorked);
        std::rotate(all.begin(), first, first + 1);
        std::vector<std::size_t> favoured;
        for (const std::size_t mirror : all) {
            if (!IsLeftOutLocked(mirror, now))
                favoured.push_back(mirror);
        }
        return favoured.empty() ? all : favoured;
    }

    void NoteSuccess(std::size_t mirror) {
        const MutexLock lock(mutex);
        hosts.at(hostNames[mirror]) = {};
        lastWorked = mirror;
    }

    void NoteFailure(std::size_t mirror) {
        std::uint64_t failures = 0;
        {
            const MutexLock lock(mutex);
            Host& host = hosts.at(hostNames[mirror]);
            failures = ++host.failuresInARow;
            host.lastFailure = Clock::now();
        }
        LOG_IF(WARNING, failures == kFailuresInARow && leaveOutTime.count() > 0)
            << "host=" << hostNames[mirror] << " has failed " << failures
            << " times in a row and is left out for " << leaveOutTime.count()
            << " ms after each failure, until it works again.";
    }

    const std::shared_ptr<App::IResourceDownloader> downloader;
    const std::vector<std::string> baseUrls;
    const std::shared_ptr<App::INetworkStateChecker> networkStateChecker;
    const std::chrono::milliseconds leaveOutTime;
    /// Of each mirror, the name of its host. Never changed after construction.
    std::vector<std::string> hostNames;
    /// Written by Abort on any thread, never reset.
    std::atomic<bool> aborted{false};

    /// Nothing foreign is called under it.
    mutable Mutex mutex;
    std::map<std::string, Host> hosts HALVEX_GUARDED_BY(mutex);
    /// The mirror to begin with.
    std::size_t lastWorked HALVEX_GUARDED_BY(mutex) = 0;
};

ResourceDownloaderMirrors::ResourceDownloaderMirrors(
    std::shared_ptr<App::IResourceDownloader> downloader, std::vector<std::string> baseUrls,
    std::shared_ptr<App::INetworkStateChecker> networkStateChecker,
    std::chrono::milliseconds leaveOutTime)
    : m_impl(std::make_unique<Impl>(std::move(downloader), std::move(baseUrls),
                                    std::move(networkStateChecker), leaveOutTime)) {}

ResourceDownloaderMirrors::~ResourceDownloaderMirrors() = default;

App::IResourceDownloader::Status ResourceDownloaderMirrors::Exec(Task task) const {
    // The callbacks must die before this returns, which a parameter need not do.
    const Task local = std::move(task);
    if (!m_impl->downloader) {
        LOG(ERROR) << "there is no downloader for request=" << local.descriptor->relativePath;
        return Status::Failed;
    }
    if (m_impl->baseUrls.empty() || HasAddressOfItsOwn(*local.descriptor))
        return m_impl->downloader->Exec(local);

    RisingProgress progress(local.progressCallback);
    App::ResourceDescriptor descriptor = *local.descriptor;
    Status outcome = Status::Failed;
    const std::vector<std::size_t> candidates = m_impl->Candidates();
    for (const std::size_t mirror : candidates) {
        // Meanwhile it may have failed too often, in this task or in others.
        if (mirror != candidates.front() && m_impl->IsLeftOutForOthers(mirror, candidates))
            continue;
        if (m_impl->aborted || local.cancellationQuery())
            return Status::Cancelled;
        descriptor.baseUrl = m_impl->baseUrls[mirror];
        const Status status = m_impl->downloader->Exec(
            {&descriptor,
             [&progress](std::size_t done, std::size_t total) { progress.Report(done, total); },
             [&local] {
                 return local.cancellationQuery();
             }});
        if (status == Status::Ok)
            m_impl->NoteSuccess(mirror);
        if (status == Status::Ok || status == Status::Cancelled || m_impl->IsOffline())
            return status;
        m_impl->NoteFailure(mirror);
        if (status == Status::NetworkFailure)
            outcome = Status::NetworkFailure;
    }
    return outcome;
}

void ResourceDownloaderMirrors::Abort() {
    m_impl->aborted = true;
    if (m_impl->downloader)
        m_impl->downloader->Abort();
}

} // namespace Halvex::Kit
