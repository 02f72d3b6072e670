#include "ResourceDownloadManager/Downloader/ResourceDownloaderHttp.h"

#include "Networking/IHttpClient.h"
#include "ResourceDownloadManager/Downloader/PathClaim.h"
#include "ResourceDownloadManager/FileUtils.h"
#include "ResourceDownloadManager/FileUtilsInternal.h"
#include "ResourceDownloadManager/INetworkStateChecker.h"
#include "ResourceDownloadManager/IProxyProvider.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"

#include <glog/logging.h>

#include <atomic>
#include <functional>
#include <string>
#include <utility>

namespace Halvex::App {

namespace {

constexpr std::int32_t kLowSpeedBytesPerSecond = 1024;
constexpr std::int64_t kLowSpeedMilliseconds = 20'000;
constexpr std::int32_t kConnectSeconds = 5;
constexpr std::int32_t kConnectSecondsThroughProxy = 20;
constexpr std::int64_t kRequestMicroseconds = 3'600'000'000;
constexpr std::int32_t kResumeAttempts = 3;

/// The codes of an IHttpClient that make a difference here.
constexpr std::int32_t kOk = 0;
constexpr std::int32_t kCannotConnect = 3;
constexpr std::int32_t kConnectionLost = 8;
constexpr std::int32_t kCancelled = 15;

std::string UrlOf(const ResourceDescriptor& descriptor) {
    std::string url = descriptor.baseUrl;
    if (!url.empty() && url.back() != '/')
        url += '/';
    const std::string& path = descriptor.relativePath;
    return url.append(path, !path.empty() && path.front() == '/' ? 1 : 0);
}

const char* SchemeOf(IProxyProvider::Proxy::Type type) {
    using Type = IProxyProvider::Proxy::Type;
    switch (type) {
    case Type::Http:
        return "http";
    case Type::Https:
        return "https";
    case Type::Socks4:
        return "socks4";
    case Type::Socks5:
        return "socks5";
    case Type::None:
        break;
    }
    return nullptr;
}

} // namespace

struct HALVEX_HIDDEN ResourceDownloaderHttp::Impl {
    bool IsOffline() const {
        return networkStateChecker &&
               networkStateChecker->GetState() == INetworkStateChecker::State::Offline;
    }

    bool IsCancelled(const Task& task) const {
        return aborted || task.cancellationQuery() || IsOffline();
    }

    std::string ProxyFor(const std::string& url) const {
        if (!proxyProvider)
            return {};
        const IProxyProvider::Proxy proxy = proxyProvider->GetSystemProxy(url);
        const char* scheme = SchemeOf(proxy.type);
        if (scheme == nullptr)
            return {};
        return std::string(scheme) + "://" + proxy.host + ":" + std::to_string(proxy.port);
    }

    Networking::Response Fetch(const std::string& url, const Task& task,
                               Core::IDataOutput& output) const {
        Networking::Request request;
        request.url = Networking::Url(url);
        Networking::Options options;
        options.lowSpeedLimit = kLowSpeedBytesPerSecond;
        options.timeout = kRequestMicroseconds;
        options.resume = {true, kResumeAttempts};
        options.lowSpeedTime = kLowSpeedMilliseconds;
        options.cancellationQuery = [&] {
            return IsCancelled(task);
        };
        options.progressCallback = task.progressCallback;
        // The output remembers what it could not write, and then leaves nothing to be moved.
        options.dataCallback = [&output](std::string piece) {
            output.Write(piece.data(), piece.size());
        };
        options.proxy = ProxyFor(url);
        options.connectTimeout =
            options.proxy.empty() ? kConnectSeconds : kConnectSecondsThroughProxy;
        return client ? client->get(request, options) : Networking::Response{};
    }

    /// Logs how the request ended, has a complete file moved, and says what became of it.
    Status Conclude(const std::string& url, const Networking::Response& response,
                    const std::function<bool()>& moveToDest) const {
        const bool offline = IsOffline();
        const std::int32_t code = response.errorCode;
        const bool cancelled = code == kCancelled;
        const bool network = code == kConnectionLost || code == kCannotConnect || offline;

        Status status = Status::Failed;
        if (cancelled && !network) {
            LOG(INFO) << "request=" << url << " was cancelled.";
        } else if (code == kOk) {
            if (moveToDest())
                status = Status::Ok;
        } else {
            LOG(ERROR) << "request=" << url << " failed with error=" << response.errorText
                       << (offline ? " (App OFFLINE mode activated!)" : "");
        }
        if (network)
            return Status::NetworkFailure;
        return cancelled ? Status::Cancelled : status;
    }

    /// Written by Abort on any thread, never reset.
    std::atomic<bool> aborted{false};
    const std::shared_ptr<Networking::IHttpClient> client;
    const std::shared_ptr<IProxyProvider> proxyProvider;
    const std::shared_ptr<INetworkStateChecker> networkStateChecker;
};

ResourceDownloaderHttp::ResourceDownloaderHttp(
    const std::shared_ptr<Networking::IHttpClient>& client,
    const std::shared_ptr<IProxyProvider>& proxyProvider,
    const std::shared_ptr<INetworkStateChecker>& networkStateChecker)
    : m_impl(new Impl{{false}, client, proxyProvider, networkStateChecker}) {}

ResourceDownloaderHttp::~ResourceDownloaderHttp() = default;

IResourceDownloader::Status ResourceDownloaderHttp::Exec(Task task) const {
    // The callbacks must die before this returns, which a parameter need not do.
    const Task local = std::move(task);
    const ResourceDescriptor& descriptor = *local.descriptor;
    const std::string url = UrlOf(descriptor);
    // glog would make the line even if nobody wants it, which takes longer than all else here.
    LOG_IF(INFO, FLAGS_minloglevel <= google::GLOG_INFO) << "HTTP download=" << url;

    const PathClaim claim(descriptor.tempPath, [&] { return m_impl->IsCancelled(local); });
    if (!claim) {
        Networking::Response response;
        response.errorCode = kCancelled;
        return m_impl->Conclude(url, response, [] { return false; });
    }
    if (claim.IsOn(descriptor.downloadPath)) {
        LOG(ERROR) << "the temporary path is the download path=" << descriptor.downloadPath;
        return Status::Failed;
    }
    const TemporaryFile file(descriptor.tempPath, descriptor.downloadPath);
    if (!file)
        return Status::Failed;
    auto output = OpenFileForWriting(descriptor.tempPath);
    if (!output)
        return Status::Failed;
    const Networking::Response response = m_impl->Fetch(url, local, *output);
    output.reset();
    return m_impl->Conclude(url, response, [&file] { return file.MoveToDest(); });
}

void ResourceDownloaderHttp::Abort() {
    m_impl->aborted = true;
}

} // namespace Halvex::App
