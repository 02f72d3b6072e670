#pragma once

#include "ResourceDownloadManager/IRemoteResource.h"

namespace Halvex::App {

/// An observer of bundles.
class IRemoteResourceEventHandler {
public:
    virtual ~IRemoteResourceEventHandler() = default;

    /// Called with a state that the bundle has reached. States arrive in the order in which the
    /// bundle has reached them, on whatever threads that was; GetState tells the latest one, which
    /// may be newer.
    ///
    /// Runs on the notification queue's thread: with TaskQueueQt on the thread that made the queue,
    /// with TaskQueueImmediate on the worker thread that caused the change or one after it, or on a
    /// thread that registers the observer or schedules the bundle.
    ///
    /// Runs with the bundle's delivery lock held: the callbacks of one bundle never overlap. It may
    /// ask this bundle for its state and register or unregister observers with it, itself included.
    /// It must not wait for another thread that does so, nor call another bundle whose observers
    /// call this one. With TaskQueueImmediate, where registering and scheduling call observers with
    /// the scheduler's or the resource's lock held, it must not register bundles, nor schedule
    /// resources with checkOnSchedule set, nor abort the manager, on whatever thread it runs; post
    /// that to a thread of your own.
    ///
    /// It should not throw. What it throws goes to whoever runs the notification queue: on a worker
    /// thread it ends the process, elsewhere the notifications of other observers and the end of
    /// the attempt that caused this one are lost.
    virtual void OnStateChanged(IRemoteResource::State state,
                                const ResourceDescriptorBundle* bundle) = 0;
};

} // namespace Halvex::App
