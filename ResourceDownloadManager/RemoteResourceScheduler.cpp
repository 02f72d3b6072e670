#include "ResourceDownloadManager/RemoteResourceScheduler.h"

#include "Foundation/Mutex.h"
#include "ResourceDownloadManager/DownloadRetrierStub.h"
#include "ResourceDownloadManager/Downloader/IResourceDownloader.h"
#include "ResourceDownloadManager/EventTracerStub.h"
#include "ResourceDownloadManager/PostProcessorStub.h"
#include "ResourceDownloadManager/ResourceBundle.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "ResourceDownloadManager/ResourceItem.h"
#include "ResourceDownloadManager/TaskQueue.h"
#include "ResourceDownloadManager/TaskQueueImmediate.h"
#include "ResourceDownloadManager/ValidatorStub.h"

#include <glog/logging.h>

#include <cstddef>
#include <cstdint>
#include <memory_resource>
#include <unordered_map>
#include <utility>
#include <vector>

#include <sys/mman.h>

namespace Halvex::App {

namespace {

class ResourceDownloaderStub : public IResourceDownloader {
public:
    Status Exec(Task task) const override {
        // The callbacks must die before this returns, which a parameter need not do.
        const Task local = std::move(task);
        return Status::Failed;
    }
    void Abort() override {}
};

template <typename Default, typename Interface>
std::shared_ptr<Interface> OrDefault(const std::shared_ptr<Interface>& service, const char* name) {
    if (service)
        return service;
    LOG(ERROR) << "scheduler was given no " << name;
    return std::make_shared<Default>();
}

/// Descriptors that lie side by side, as they often do, share cache lines of the index as well.
struct HashByPlace {
    std::size_t operator()(const ResourceDescriptor* descriptor) const {
        return reinterpret_cast<std::uintptr_t>(descriptor) / sizeof(*descriptor);
    }
};

/// Memory whose pieces of 2 MiB and more lie in pages of 2 MiB, if the system has such: these are
/// handed out faster than small ones, and addresses in them are found faster.
class LargePages : public std::pmr::memory_resource {
    static constexpr std::size_t kLargePage = 2 * 1024 * 1024;

    static std::size_t AlignmentOf(std::size_t bytes, std::size_t alignment) {
        return bytes < kLargePage ? alignment : kLargePage;
    }

    void* do_allocate(std::size_t bytes, std::size_t alignment) override {
        void* memory = m_upstream.allocate(bytes, AlignmentOf(bytes, alignment));
        // A refusal does no harm.
        if (bytes >= kLargePage)
            ::madvise(memory, bytes, MADV_HUGEPAGE);
        return memory;
    }

    void do_deallocate(void* memory, std::size_t bytes, std::size_t alignment) override {
        m_upstream.deallocate(memory, bytes, AlignmentOf(bytes, alignment));
    }

    bool do_is_equal(const memory_resource& other) const noexcept override {
        return this == &other;
    }

    std::pmr::memory_resource& m_upstream = *std::pmr::new_delete_resource();
};

} // namespace

struct HALVEX_HIDDEN RemoteResourceScheduler::Impl {
    explicit Impl(ItemServices itemServices) : services(std::move(itemServices)) {}

    ResourceBundle* Register(const ResourceDescriptorBundle* descriptor) HALVEX_EXCLUDES(mutex) {
        const MutexLock lock(mutex);
        const auto known = bundleIndex.find(descriptor);
        if (known != bundleIndex.end())
            return known->second;
        ResourceBundle* bundle = AddBundleLocked(descriptor);
        const auto& members = descriptor->descriptors;
        // At once, when there is that much to come: to grow, the index goes through all its items.
        if (members.size() > items.size())
            items.reserve(items.size() + members.size());
        for (const ResourceDescriptor* member : members)
            bundle->AddItem(ItemLocked(member));
        bundle->Complete();
        return bundle;
    }

    ResourceBundle* AddBundleLocked(const ResourceDescriptorBundle* descriptor)
        HALVEX_REQUIRES(mutex) {
        bundles.push_back(std::make_unique<ResourceBundle>(descriptor, *services.notificationQueue,
                                                           *services.tracer));
        bundleIndex[descriptor] = bundles.back().get();
        return bundles.back().get();
    }

    ResourceItem& ItemLocked(const ResourceDescriptor* descriptor) HALVEX_REQUIRES(mutex) {
        return items.try_emplace(descriptor, descriptor, services).first->second;
    }

    const ItemServices services;
    /// Held for the whole of a registration. Outside the locks of items and states.
    Mutex mutex;
    LargePages largePages HALVEX_GUARDED_BY(mutex);
    /// Puts items that are registered together side by side.
    std::pmr::monotonic_buffer_resource itemMemory HALVEX_GUARDED_BY(mutex){&largePages};
    // Items outlive the bundles that they list as their states' parents: no item changes any more
    // when this is destroyed.
    std::pmr::unordered_map<const ResourceDescriptor*, ResourceItem, HashByPlace>
        items HALVEX_GUARDED_BY(mutex){&itemMemory};
    std::vector<std::unique_ptr<ResourceBundle>> bundles HALVEX_GUARDED_BY(mutex);
    std::unordered_map<const ResourceDescriptorBundle*, ResourceBundle*>
        bundleIndex HALVEX_GUARDED_BY(mutex);
};

RemoteResourceScheduler::RemoteResourceScheduler(
    const std::shared_ptr<IResourceDownloader>& downloader,
    const std::shared_ptr<ITaskQueue>& checkQueue,
    const std::shared_ptr<ITaskQueue>& notificationQueue,
    const std::shared_ptr<IPostProcessor>& postProcessor,
    const std::shared_ptr<IValidator>& validator, const std::shared_ptr<IEventTracer>& eventTracer,
    const std::shared_ptr<IDownloadRetrier>& retrier)
    : m_impl(std::make_unique<Impl>(
          ItemServices{OrDefault<ResourceDownloaderStub>(downloader, "downloader"),
                       OrDefault<TaskQueue>(checkQueue, "check queue"),
                       OrDefault<TaskQueueImmediate>(notificationQueue, "notification queue"),
                       OrDefault<PostProcessorStub>(postProcessor, "post-processor"),
                       OrDefault<ValidatorStub>(validator, "validator"),
                       OrDefault<EventTracerStub>(eventTracer, "event tracer"),
                       OrDefault<DownloadRetrierStub>(retrier, "retrier")})) {}

RemoteResourceScheduler::~RemoteResourceScheduler() = default;

IRemoteResource*
RemoteResourceScheduler::RegisterAutoSchedule(const ResourceDescriptorBundle* bundle,
                                              ISchedulableResource::SchedulePriority priority) {
    ResourceBundle* resource = m_impl->Register(bundle);
    resource->ScheduleIfNeeded(priority);
    return resource;
}

IRemoteResource* RemoteResourceScheduler::Register(const ResourceDescriptorBundle* bundle) {
    return m_impl->Register(bundle);
}

} // namespace Halvex::App
