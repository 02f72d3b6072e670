#include "Services.h"

#include "MeteredDownloader.h"
#include "Networking/IHttpClient.h"
#include "Options.h"
#include "ResourceDownloadManager/Downloader/ResourceDownloaderFileMock.h"
#include "ResourceDownloadManager/Downloader/ResourceDownloaderHttp.h"
#include "ResourceDownloadManager/EventTracer.h"
#include "ResourceDownloadManager/NetworkStateEmulator.h"
#include "ResourceDownloadManager/QtProxyProvider.h"
#include "ResourceKit/Manifest.h"
#include "ResourceKit/PostProcessorInstall.h"
#include "ResourceKit/ValidatorSha256.h"
#include "SourceDownloader.h"

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
        Networking::createHttpClient(options.client), std::make_shared<App::QtProxyProvider>(),
        networkStateChecker);
}

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
    services.validator = std::make_shared<Kit::ValidatorSha256>(expected, stop);
    services.postProcessor = std::make_shared<Kit::PostProcessorInstall>(expected, stop);
    if (options.trace) {
        App::EventTracer::Params params;
        params.traceAll = true;
        services.eventTracer = std::make_shared<App::EventTracer>(params);
    }
    return services;
}

} // namespace Halvex::Fetch
