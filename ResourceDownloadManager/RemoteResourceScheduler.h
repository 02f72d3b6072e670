#pragma once

#include "Foundation/Export.h"
#include "ResourceDownloadManager/IRemoteResourceScheduler.h"

#include <memory>

namespace Halvex::App {

class IDownloadRetrier;
class IEventTracer;
class IPostProcessor;
class IResourceDownloader;
class ITaskQueue;
class IValidator;

/// Owns the resources registered with it and makes them work with its services: checks and
/// downloads run as tasks of the check queue, observers are told in tasks of the notification
/// queue.
///
/// Thread-safe. Before it is destroyed, both queues must have been stopped: their tasks hold plain
/// pointers into it.
class HALVEX_EXPORT RemoteResourceScheduler : public IRemoteResourceScheduler {
public:
    /// Shares the services, which are used from several threads at once. An empty one is reported
    /// with an ERROR line and replaced by one that does nothing: a downloader that always fails, a
    /// queue that nobody drains, a notification queue that runs each task at once.
    RemoteResourceScheduler(const std::shared_ptr<IResourceDownloader>& downloader,
                            const std::shared_ptr<ITaskQueue>& checkQueue,
                            const std::shared_ptr<ITaskQueue>& notificationQueue,
                            const std::shared_ptr<IPostProcessor>& postProcessor,
                            const std::shared_ptr<IValidator>& validator,
                            const std::shared_ptr<IEventTracer>& eventTracer,
                            const std::shared_ptr<IDownloadRetrier>& retrier);
    ~RemoteResourceScheduler() override;

    RemoteResourceScheduler(const RemoteResourceScheduler&) = delete;
    RemoteResourceScheduler& operator=(const RemoteResourceScheduler&) = delete;

    IRemoteResource* RegisterAutoSchedule(const ResourceDescriptorBundle* bundle,
                                          ISchedulableResource::SchedulePriority priority) override;
    IRemoteResource* Register(const ResourceDescriptorBundle* bundle) override;

private:
    struct Impl;
    const std::unique_ptr<Impl> m_impl;
};

} // namespace Halvex::App
