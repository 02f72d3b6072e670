#include "ResourceDownloadManager/RemoteResourceEventHandlerCallback.h"

#include <utility>

namespace Halvex::App {

RemoteResourceEventHandlerCallback::RemoteResourceEventHandlerCallback() = default;

RemoteResourceEventHandlerCallback::~RemoteResourceEventHandlerCallback() {
    for (IRemoteResource* resource : m_resources)
        resource->UnregisterEventHandler(this);
}

RemoteResourceEventHandlerCallback::RemoteResourceEventHandlerCallback(
    const RemoteResourceEventHandlerCallback& other) = default;

RemoteResourceEventHandlerCallback& RemoteResourceEventHandlerCallback::operator=(
    const RemoteResourceEventHandlerCallback& other) = default;

void RemoteResourceEventHandlerCallback::SetCallback(
    std::function<void(IRemoteResource::State)> callback) {
    m_callback = [callback = std::move(callback)](IRemoteResource::State state,
                                                  const ResourceDescriptorBundle*) {
        callback(state);
    };
}

void RemoteResourceEventHandlerCallback::SetCallback(
    std::function<void(IRemoteResource::State, const ResourceDescriptorBundle*)> callback) {
    m_callback = std::move(callback);
}

void RemoteResourceEventHandlerCallback::SetNotificationParams(
    IRemoteResource::NotificationParams params) {
    m_params = std::move(params);
}

void RemoteResourceEventHandlerCallback::RegisterWithin(IRemoteResource* resource) {
    m_resources.push_back(resource);
    resource->RegisterEventHandler(this, m_params);
}

void RemoteResourceEventHandlerCallback::OnStateChanged(IRemoteResource::State state,
                                                        const ResourceDescriptorBundle* bundle) {
    m_callback(state, bundle);
}

} // namespace Halvex::App
