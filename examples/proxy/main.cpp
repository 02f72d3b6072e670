// Fetches a file through the proxy of the application's own settings, if it has one there, and
// otherwise through the system's:
//   halvex-example-proxy BASE_URL FILE [HOST:PORT]
#include <ResourceDownloadManager/IRemoteResource.h>
#include <ResourceDownloadManager/IRemoteResourceScheduler.h>
#include <ResourceDownloadManager/QtProxyProvider.h>
#include <ResourceDownloadManager/ResourceDescriptor.h>
#include <ResourceDownloadManager/ResourceDownloadManager.h>

#include <QtCore/QCoreApplication>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

using namespace Halvex::App;

namespace {

/// Worker threads ask before each transfer, several at once. What is asked for here must therefore
/// be safe to read on any thread: this one never changes.
class ProxyFromSettings : public IProxyProvider {
public:
    /// HOST:PORT; empty: the system's proxy.
    explicit ProxyFromSettings(const std::string& setting) {
        const std::size_t colon = setting.rfind(':');
        if (colon == std::string::npos)
            return;
        m_proxy.type = Proxy::Type::Http;
        m_proxy.host = setting.substr(0, colon);
        m_proxy.port = std::atoi(setting.c_str() + colon + 1);
    }

    Proxy GetSystemProxy(const std::string& url) const override {
        return m_proxy.type == Proxy::Type::None ? m_system.GetSystemProxy(url) : m_proxy;
    }

private:
    Proxy m_proxy;
    const QtProxyProvider m_system;
};

} // namespace

int main(int argc, char** argv) {
    const QCoreApplication application(argc, argv);
    if (argc < 3) {
        std::cerr << "usage: " << argv[0] << " BASE_URL FILE [HOST:PORT]\n";
        return 2;
    }
    ResourceDescriptor file;
    file.baseUrl = argv[1];
    file.relativePath = argv[2];
    file.localPath = file.downloadPath = argv[2];
    file.tempPath = std::string(argv[2]) + ".part";
    const ResourceDescriptorBundle bundle{{&file}};

    ResourceDownloadManager::Dependencies services;
    services.proxyProvider = std::make_shared<ProxyFromSettings>(argc > 3 ? argv[3] : "");
    ResourceDownloadManager manager;
    manager.Init({}, services);
    IRemoteResource* resource = manager.GetInitScheduler()->RegisterAutoSchedule(
        &bundle, ISchedulableResource::SchedulePriority::Normal);
    manager.ProcessCurrentQueue();

    const IRemoteResource::State state = resource->GetState();
    std::cout << state.ToDebugString() << std::endl;
    return state.status == IRemoteResource::DownloadStatus::Available ? 0 : 1;
}
