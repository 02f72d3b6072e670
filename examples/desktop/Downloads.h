#pragma once

#include "Arguments.h"

#include <ResourceDownloadManager/ResourceDescriptor.h>
#include <ResourceDownloadManager/ResourceDownloadManager.h>

#include <QtCore/QString>

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <vector>

class CancellableDownloader;

namespace Halvex::App {
class IRemoteResource;
}

/// All that this application has to do with the library. Notifications arrive on the event loop of
/// the thread that constructs it, where it is also to be used and destroyed: after the window,
/// which observes its bundles.
class Downloads {
public:
    struct Bundle {
        QString name;
        std::optional<std::uint64_t> bytes;
        Halvex::App::IRemoteResource* resource;
    };

    explicit Downloads(Arguments arguments);
    /// Ends what is under way.
    ~Downloads();

    Downloads(const Downloads&) = delete;
    Downloads& operator=(const Downloads&) = delete;

    /// To be called once, when everybody observes.
    void Start();

    /// The one that is needed to start comes first.
    const std::vector<Bundle>& Bundles() const { return m_bundles; }
    Halvex::App::IRemoteResource* Startup() const { return m_bundles.front().resource; }
    /// Whether all files that are needed to start are there, from the last time if not from now.
    bool HasStartupFiles() const;

    /// Ends all downloads. What has not been fetched by then fails with DownloadError::Cancelled.
    void CancelAll();
    /// Tries everything again that has failed, whether it was cancelled or not.
    void RetryFailed();

    /// As if there were no connection. The switch is a file, which outlives the program.
    bool IsOffline() const;
    void SetOffline(bool isOffline);

private:
    void Register(const BundleOfFiles& files);
    const Halvex::App::ResourceDescriptor* Describe(const QString& name);
    Halvex::ioPath PathOf(const QString& name) const;

    const Arguments m_arguments;
    const Halvex::ioPath m_offlineMarker;
    /// By name: a file that stands in several bundles is one resource.
    std::map<QString, Halvex::App::ResourceDescriptor> m_descriptors;
    std::deque<Halvex::App::ResourceDescriptorBundle> m_descriptorBundles;
    std::vector<Bundle> m_bundles;
    std::shared_ptr<CancellableDownloader> m_downloader;
    /// Destroyed before the descriptors.
    Halvex::App::ResourceDownloadManager m_manager;
};
