#pragma once

#include "ResourceDownloadManager/ActiveState.h"
#include "ResourceDownloadManager/IRemoteResource.h"

#include <vector>

namespace Halvex::App {

class ResourceItem;

/// A registered bundle: what Register returns to the application.
///
/// Thread-safe, apart from AddItem and Complete.
class ResourceBundle : public IRemoteResource {
public:
    /// All must outlive the bundle.
    ResourceBundle(const ResourceDescriptorBundle* descriptor, ITaskQueue& notificationQueue,
                   const IEventTracer& tracer);

    ResourceBundle(const ResourceBundle&) = delete;
    ResourceBundle& operator=(const ResourceBundle&) = delete;

    /// Adds an item, not owned, and links its state below the bundle's. Each item once, before the
    /// bundle is handed out.
    void AddItem(ResourceItem& item);
    /// To be called after the last AddItem: puts the items in order, and has each, in that order,
    /// push its present state up.
    void Complete();
    /// Schedules each item if it needs it, in the order of their addresses.
    void ScheduleIfNeeded(SchedulePriority priority);

    /// Schedules each item, in the order of their addresses.
    void Schedule(SchedulePriority priority) override;
    State GetState() override;
    const ResourceDescriptorBundle* GetDescriptor() override;
    void RegisterEventHandler(IRemoteResourceEventHandler* handler,
                              const NotificationParams& params) override;
    void UnregisterEventHandler(IRemoteResourceEventHandler* handler) override;

private:
    template <typename Function>
    void ForEachItem(Function function);

    ActiveState m_state;
    const ResourceDescriptorBundle* const m_descriptor;
    std::vector<ResourceItem*> m_items;
};

} // namespace Halvex::App
