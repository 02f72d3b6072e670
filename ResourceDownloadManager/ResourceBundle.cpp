#include "ResourceDownloadManager/ResourceBundle.h"

#include "ResourceDownloadManager/IRemoteResourceEventHandler.h"
#include "ResourceDownloadManager/ResourceItem.h"

#include <algorithm>
#include <functional>

namespace Halvex::App {

ResourceBundle::ResourceBundle(const ResourceDescriptorBundle* descriptor,
                               ITaskQueue& notificationQueue, const IEventTracer& tracer)
    : m_state(nullptr, descriptor, notificationQueue, tracer), m_descriptor(descriptor) {}

void ResourceBundle::AddItem(ResourceItem& item) {
    item.State().AddParent(m_state);
    m_items.push_back(&item);
}

void ResourceBundle::Complete() {
    std::sort(m_items.begin(), m_items.end(), std::less<>());
    for (ResourceItem* item : m_items)
        item->State().CheckAllNotifications();
}

void ResourceBundle::Schedule(SchedulePriority priority) {
    for (ResourceItem* item : m_items)
        item->Schedule(priority);
}

IRemoteResource::State ResourceBundle::GetState() {
    return m_state.GetState();
}

const ResourceDescriptorBundle* ResourceBundle::GetDescriptor() {
    return m_descriptor;
}

void ResourceBundle::RegisterEventHandler(IRemoteResourceEventHandler* handler,
                                          const NotificationParams& params) {
    m_state.AddHandler(
        handler, [this, handler](State state) { handler->OnStateChanged(state, m_descriptor); },
        params);
    m_state.CheckAllNotifications();
}

void ResourceBundle::UnregisterEventHandler(IRemoteResourceEventHandler* handler) {
    m_state.RemoveHandler(handler);
}

} // namespace Halvex::App
