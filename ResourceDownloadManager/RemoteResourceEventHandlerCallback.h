#pragma once

#include "Foundation/Export.h"
#include "ResourceDownloadManager/IRemoteResourceEventHandler.h"

#include <functional>
#include <list>

namespace Halvex::App {

/// An observer that calls a function, and unregisters from everything when it is destroyed.
///
///     RemoteResourceEventHandlerCallback observer;
///     observer.SetCallback([](IRemoteResource::State state) { ... });
///     observer.RegisterWithin(resource);
///
/// One thread at a time, caller synchronises: set it up before RegisterWithin, or on the thread
/// that delivers notifications. The function runs on the notification queue's thread, under the
/// rules of IRemoteResourceEventHandler::OnStateChanged. Destroy it before the resources it is
/// registered with; after that no call arrives.
class HALVEX_EXPORT RemoteResourceEventHandlerCallback : public IRemoteResourceEventHandler {
public:
    /// No function, and the default NotificationParams.
    RemoteResourceEventHandlerCallback();
    /// Unregisters from every resource, in the order of registration.
    ~RemoteResourceEventHandlerCallback() override;

    /// A copy is registered with nothing, and receives nothing until it is. Copying does not change
    /// what either object is registered with; the copied list only makes the copy's end unregister
    /// the copy there, so it too must be destroyed before those resources.
    RemoteResourceEventHandlerCallback(const RemoteResourceEventHandlerCallback& other);
    RemoteResourceEventHandlerCallback& operator=(const RemoteResourceEventHandlerCallback& other);

    /// Replaces the function. To be called before RegisterWithin: a notification that finds no
    /// function throws std::bad_function_call into the notifying code. So does an empty function
    /// given here.
    void SetCallback(std::function<void(IRemoteResource::State)> callback);
    /// The same for a function that also wants to know which bundle changed.
    void SetCallback(
        std::function<void(IRemoteResource::State, const ResourceDescriptorBundle*)> callback);

    /// Replaces the parameters for later calls of RegisterWithin; resources registered with before
    /// keep theirs.
    void SetNotificationParams(IRemoteResource::NotificationParams params);

    /// Registers with a resource. Once is enough: the second time changes no parameters.
    void RegisterWithin(IRemoteResource* resource);

    void OnStateChanged(IRemoteResource::State state,
                        const ResourceDescriptorBundle* bundle) override;

private:
    std::function<void(IRemoteResource::State, const ResourceDescriptorBundle*)> m_callback;
    IRemoteResource::NotificationParams m_params;
    std::list<IRemoteResource*> m_resources;
};

} // namespace Halvex::App
