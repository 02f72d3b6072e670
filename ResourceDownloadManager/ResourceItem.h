#pragma once

#include "Foundation/Mutex.h"
#include "Foundation/ioPath.h"
#include "ResourceDownloadManager/ActiveState.h"
#include "ResourceDownloadManager/IRemoteResource.h"
#include "ResourceDownloadManager/ISchedulableResource.h"

#include <atomic>
#include <cstdint>
#include <memory>

namespace Halvex::App {

class IDownloadRetrier;
class IEventTracer;
class IPostProcessor;
class IResourceDownloader;
class ITaskQueue;
class IValidator;
struct ResourceDescriptor;

/// What the items of one scheduler work with. None of them is empty.
struct ItemServices {
    std::shared_ptr<IResourceDownloader> downloader;
    std::shared_ptr<ITaskQueue> checkQueue;
    std::shared_ptr<ITaskQueue> notificationQueue;
    std::shared_ptr<IPostProcessor> postProcessor;
    std::shared_ptr<IValidator> validator;
    std::shared_ptr<IEventTracer> tracer;
    std::shared_ptr<IDownloadRetrier> retrier;
};

/// One resource of a scheduler: checks whether its file is present and acceptable, and downloads it
/// if not.
///
/// Thread-safe. Must outlive the checks that it has queued; whoever owns the scheduler stops the
/// queues first.
class ResourceItem : public ISchedulableResource {
public:
    /// Both must outlive the item.
    ResourceItem(const ResourceDescriptor* descriptor, const ItemServices& services);

    ResourceItem(const ResourceItem&) = delete;
    ResourceItem& operator=(const ResourceItem&) = delete;

    /// Without condition, whatever was scheduled before.
    void Schedule(SchedulePriority priority) override HALVEX_EXCLUDES(m_mutex);

    /// Only if the item has never been scheduled, or the value of the priority is greater than that
    /// of its latest scheduling: after High a request at Low queues another check, after Low one at
    /// High does not.
    void ScheduleIfNeeded(SchedulePriority priority) HALVEX_EXCLUDES(m_mutex);

    /// Has the processor fetch what scheduling reads of the descriptor, shortly before that.
    void Prefetch() const;

    ActiveState& State() { return m_state; }

private:
    void ScheduleUncheckedLocked(SchedulePriority priority) HALVEX_REQUIRES(m_mutex);
    /// Makes the item available, as was found when so many errors had been counted. If there have
    /// been more since, it is looked at again; false: it is not so any more.
    bool SetAvailable(std::uint64_t errorCount, bool (ResourceItem::*isSo)() const);
    void Check();
    bool IsAlreadyAvailable();
    bool IsPresent() const;
    bool IsAcceptable() const;
    bool IsThere() const;
    bool IsFetched() const;
    bool IsValid() const;
    void StartDownload();
    IRemoteResource::DownloadError Download();
    IRemoteResource::DownloadError JudgeDownload() const;
    void Trace(IEventTracer::Event event);

    ActiveState m_state;
    const ResourceDescriptor* const m_descriptor;
    const ItemServices& m_services;

    /// Outside m_state's locks; held while a file found at scheduling makes the item available.
    Mutex m_mutex;
    SchedulePriority m_scheduledPriority HALVEX_GUARDED_BY(m_mutex) = SchedulePriority::Low;
    bool m_scheduled HALVEX_GUARDED_BY(m_mutex) = false;

    /// Used by checks only, which take no lock; two of them may run at once.
    std::atomic<bool> m_firstCheck{true};
};

} // namespace Halvex::App
