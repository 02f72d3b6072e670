#include "ResourceDownloadManager/ResourceBundle.h"

#include "ResourceDownloadManager/IRemoteResourceEventHandler.h"
#include "ResourceDownloadManager/ResourceItem.h"

#include <algorithm>
#include <cstddef>
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
    // They come as a few ascending runs, for which std::sort falls back to a slow way.
    std::stable_sort(m_items.begin(), m_items.end(), std::less<>());
    for (ResourceItem* item : m_items)
        item->State().CheckAllNotifications();
}

void ResourceBundle::ScheduleIfNeeded(SchedulePriority priority) {
    ForEachItem([priority](ResourceItem& item) { item.ScheduleIfNeeded(priority); });
}

void ResourceBundle::Schedule(SchedulePriority priority) {
    ForEachItem([priority](ResourceItem& item) { item.Schedule(priority); });
}

template <typename Function>
void ResourceBundle::ForEachItem(Function function) {
    // Far enough for a descriptor to have come from memory when its item's turn comes.
    constexpr std::size_t kAhead = 8;
    for (std::size_t i = 0; i < m_items.size(); ++i) {
        if (i + kAhead < m_items.size())
            m_items[i + kAhead]->Prefetch();
        function(*m_items[i]);
    }
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
