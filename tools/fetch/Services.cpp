#include "Services.h"

#include "MeteredDownloader.h"
#include "Networking/IHttpClient.h"
#include "Options.h"
#include "ProxyPerServer.h"
#include "ResourceDownloadManager/Downloader/ResourceDownloaderFileMock.h"
#include "ResourceDownloadManager/Downloader/ResourceDownloaderHttp.h"
#include "ResourceDownloadManager/EventTracer.h"
#include "ResourceDownloadManager/NetworkStateEmulator.h"
#include "ResourceDownloadManager/QtProxyProvider.h"
#include "ResourceKit/Manifest.h"
#include "ResourceKit/PostProcessorInstall.h"
#include "ResourceKit/ValidatorSha256.h"
#include "SourceDownloader.h"

#include <cstdint>
#include <memory>
#include <utility>

#include <sys/stat.h>

namespace Halvex::Fetch {

namespace {

std::shared_ptr<App::IResourceDownloader>
MakeDownloader(const Options& options,
               const std::shared_ptr<App::INetworkStateChecker>& networkStateChecker) {
    if (options.source)
        return std::make_shared<SourceDownloader>(
            std::make_shared<App::ResourceDownloaderFileMock>(App::ioPath(*options.source),
                                                              options.sourceSpeed),
            networkStateChecker);
    return std::make_shared<App::ResourceDownloaderHttp>(
        Networking::createHttpClient(options.client),
        std::make_shared<ProxyPerServer>(std::make_shared<App::QtProxyProvider>()),
        networkStateChecker);
}

/// A file without a checksum counts because it is there, but not a folder in its place.
class Validator : public App::IValidator {
public:
    Validator(Kit::ExpectedFileLookup expected, Kit::StopQuery stop)
        : m_expected(expected), m_sha256(std::move(expected), std::move(stop)) {}

    std::int32_t Validate(const App::ResourceDescriptor* descriptor) override {
        const bool counts =
            m_expected(*descriptor).sha256.empty() && !IsFolder(descriptor->localPath);
        return counts ? 0 : m_sha256.Validate(descriptor);
    }

private:
    static bool IsFolder(const App::ioPath& path) {
        struct stat status {};
        return ::stat(path.string().c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    }

    const Kit::ExpectedFileLookup m_expected;
    Kit::ValidatorSha256 m_sha256;
};

} // namespace

App::ResourceDownloadManager::Dependencies MakeServices(const Options& options,
                                                        const Kit::Manifest& manifest,
                                                        TransferMeter& meter,
                                                        const Kit::StopQuery& stop) {
    // Sizes serve only to tell the time left.
    const auto expected = [&manifest](const App::ResourceDescriptor& descriptor) {
        return Kit::ExpectedFile{{}, manifest.Find(descriptor)->expected.sha256};
    };
    App::ResourceDownloadManager::Dependencies services;
    services.networkStateChecker =
        std::make_shared<App::NetworkStateEmulator>(App::ioPath(options.offlineMarker));
    services.resourceDownloader = std::make_shared<MeteredDownloader>(
        MakeDownloader(options, services.networkStateChecker),
        [&](const App::ResourceDescriptor& descriptor) -> TransferMeter::Count& {
            meter.NoteBegin(descriptor.userData);
            return meter.Of(manifest.Find(descriptor)->bundle);
        });
    services.validator = std::make_shared<Validator>(expected, stop);
    services.postProcessor = std::make_shared<Kit::PostProcessorInstall>(expected, stop);
    if (options.trace) {
        App::EventTracer::Params params;
        params.traceAll = true;
        services.eventTracer = std::make_shared<App::EventTracer>(params);
    }
    return services;
}

} // namespace Halvex::Fetch
