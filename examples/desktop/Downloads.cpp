#include "Downloads.h"

#include "CancellableDownloader.h"

#include <Foundation/HttpClientFactory.h>
#include <Networking/IHttpClient.h>
#include <ResourceDownloadManager/Downloader/ResourceDownloaderHttp.h>
#include <ResourceDownloadManager/FileUtils.h>
#include <ResourceDownloadManager/IRemoteResource.h>
#include <ResourceDownloadManager/IRemoteResourceScheduler.h>
#include <ResourceDownloadManager/NetworkStateEmulator.h>
#include <ResourceDownloadManager/QtProxyProvider.h>
#include <ResourceDownloadManager/ResourceDescriptor.h>
#include <ResourceKit/PostProcessorInstall.h>

#include <QtCore/QFile>

#include <algorithm>
#include <utility>

using namespace Halvex;
using namespace Halvex::App;
using Priority = ISchedulableResource::SchedulePriority;
using Status = IRemoteResource::DownloadStatus;

Downloads::Downloads(Arguments arguments)
    : m_arguments(std::move(arguments)), m_offlineMarker(PathOf(QStringLiteral("offline"))) {
    const auto networkState = std::make_shared<NetworkStateEmulator>(m_offlineMarker);
    // What the manager would make by itself, with a switch before it.
    m_downloader = std::make_shared<CancellableDownloader>(std::make_shared<ResourceDownloaderHttp>(
        Networking::createHttpClient(Networking::HttpClientType::Native),
        std::make_shared<QtProxyProvider>(), networkState));

    ResourceDownloadManager::Dependencies services;
    services.networkStateChecker = networkState;
    services.postProcessor =
        std::make_shared<Kit::PostProcessorInstall>([](const ResourceDescriptor&) {
            return Kit::ExpectedFile(); // any file will do
        });
    services.resourceDownloader = m_downloader;
    ResourceDownloadManager::Params params;
    params.useParallelExecutor = true;
    params.threadCount = 4; // they wait for the network, not for the processor
    params.useQtTaskQueue = true;
    m_manager.Init(params, services);

    Register(m_arguments.startup);
    for (const BundleOfFiles& files : m_arguments.others)
        Register(files);
}

Downloads::~Downloads() {
    m_manager.Abort();
}

void Downloads::Register(const BundleOfFiles& files) {
    ResourceDescriptorBundle& bundle = m_descriptorBundles.emplace_back();
    for (const QString& name : files.files)
        bundle.descriptors.insert(Describe(name));
    // Not the init scheduler even for what is needed to start: that one never tries again by
    // itself, and gets its turn only when nothing else is under way. A person who waits and may ask
    // for another attempt is better served by a high priority.
    m_bundles.push_back({files.name, files.bytes, m_manager.GetMainScheduler()->Register(&bundle)});
}

const ResourceDescriptor* Downloads::Describe(const QString& name) {
    const auto [place, isNew] = m_descriptors.try_emplace(name);
    ResourceDescriptor& descriptor = place->second;
    if (!isNew)
        return &descriptor;
    const ioPath path = PathOf(name);
    descriptor.baseUrl = m_arguments.baseUrl.toStdString();
    descriptor.relativePath = name.toStdString();
    descriptor.localPath = path;
    descriptor.tempPath = path.string() + ".part";
    if (m_arguments.startup.files.contains(name)) {
        // A fresh one every time, beside that of the last time until it is there.
        descriptor.downloadPath = path.string() + ".new";
        descriptor.validationMode = 0;
        descriptor.postProcess = 1;
    } else {
        // Once is enough.
        descriptor.downloadPath = path;
        descriptor.validationMode = 2;
    }
    return &descriptor;
}

ioPath Downloads::PathOf(const QString& name) const {
    return ioPath(m_arguments.folder.toStdString()) / name.toStdString();
}

void Downloads::Start() {
    m_manager.StartEventLoopThread();
    for (const Bundle& bundle : m_bundles)
        bundle.resource->Schedule(bundle.resource == Startup() ? Priority::High : Priority::Normal);
}

bool Downloads::HasStartupFiles() const {
    const QStringList& files = m_arguments.startup.files;
    return std::all_of(files.begin(), files.end(),
                       [this](const QString& name) { return FileExists(PathOf(name)); });
}

void Downloads::CancelAll() {
    m_downloader->CancelAll();
}

void Downloads::RetryFailed() {
    m_downloader->Resume();
    for (const Bundle& bundle : m_bundles) {
        if (bundle.resource->GetState().status == Status::Error)
            bundle.resource->Schedule(Priority::High);
    }
}

bool Downloads::IsOffline() const {
    return FileExists(m_offlineMarker);
}

void Downloads::SetOffline(bool isOffline) {
    if (isOffline)
        QFile(QString::fromStdString(m_offlineMarker.string())).open(QIODevice::WriteOnly);
    else
        RemoveFile(m_offlineMarker);
}
