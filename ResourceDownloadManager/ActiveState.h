#pragma once

#include "Foundation/Mutex.h"
#include "ResourceDownloadManager/AggregateState.h"
#include "ResourceDownloadManager/DeliveryLock.h"
#include "ResourceDownloadManager/IEventTracer.h"
#include "ResourceDownloadManager/IRemoteResource.h"
#include "ResourceDownloadManager/ITaskQueue.h"

#include <boost/container/flat_map.hpp>
#include <boost/container/small_vector.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <vector>

namespace Halvex::App {

/// One observable state: that of a resource, or that of a bundle, which follows the states linked
/// below it. Works out which observers are due a notification and delivers it through a queue.
///
/// Thread-safe. Must outlive the notifications that it has queued, and its children.
///
/// A change is made and its notifications are collected under the lock of the state that changes
/// and, one after the other, those of its parents. They are queued after that, and delivered under
/// the delivery lock alone: an observer never holds up a change.
class ActiveState {
public:
    using State = IRemoteResource::State;
    using Callback = std::function<void(State)>;

    /// Waiting. Traces say that it is the descriptor's or the bundle's; null: it is not. All must
    /// outlive the state.
    ActiveState(const ResourceDescriptor* descriptor, const ResourceDescriptorBundle* bundle,
                ITaskQueue& notificationQueue, const IEventTracer& tracer);

    ActiveState(const ActiveState&) = delete;
    ActiveState& operator=(const ActiveState&) = delete;

    /// The latest state. Waits for an observer that is being called on another thread.
    State GetState() HALVEX_EXCLUDES(m_mutex);

    /// What the state belongs to and the state itself, a copy of which is stored in snapshot: the
    /// record's state pointer leads there.
    IEventTracer::TraceRecord GetTraceRecord(State& snapshot) const HALVEX_EXCLUDES(m_mutex);

    void SetAvailable() HALVEX_EXCLUDES(m_mutex);
    void SetError(IRemoteResource::DownloadError error) HALVEX_EXCLUDES(m_mutex);
    /// How often SetError has been called so far.
    std::uint64_t ErrorCount() const HALVEX_EXCLUDES(m_mutex);
    /// SetAvailable, for something found out when SetError had been called so often. False: it has
    /// been called again since, and nothing changed.
    bool SetAvailable(std::uint64_t errorCount) HALVEX_EXCLUDES(m_mutex);
    /// The progress of 0 of 0 is not a number.
    void SetProgress(std::uint64_t done, std::uint64_t total) HALVEX_EXCLUDES(m_mutex);

    /// Links this state below another one, which must outlive every later change of this one. To be
    /// called once per parent, and followed by CheckAllNotifications.
    void AddParent(ActiveState& parent) HALVEX_EXCLUDES(m_mutex);

    /// Adds an observer with the function to call for it, unless it has one already. Waits as
    /// GetState does; so does RemoveHandler.
    void AddHandler(IRemoteResourceEventHandler* handler, Callback callback,
                    const IRemoteResource::NotificationParams& params) HALVEX_EXCLUDES(m_mutex);
    /// Notifications on their way to the observer are dropped.
    void RemoveHandler(IRemoteResourceEventHandler* handler) HALVEX_EXCLUDES(m_mutex);

    /// Tells the parents of the present state, and every observer of this state and theirs that is
    /// due a notification.
    void CheckAllNotifications() HALVEX_EXCLUDES(m_mutex);

private:
    using Deliveries = std::vector<ITaskQueue::Task>;

    struct Notification {
        /// Grows from one to the next of a state, whoever is to be told.
        std::uint64_t number;
        bool isProgress;
        State state;
    };

    struct HandlerEntry {
        Callback callback;
        IRemoteResource::NotificationParams params;
        std::optional<State> lastNotified;
        /// What is on its way to the observer, in the order of the changes. Two threads may queue
        /// their deliveries the other way round: the first to run delivers for both.
        std::list<Notification> pending;
    };

    /// There are as many states as files, and most are never observed: this is made for the first
    /// observer, and kept.
    struct Observers {
        /// Held while one of them is called. Outside every ActiveState's m_mutex.
        DeliveryLock delivery;
        /// Both guarded by the state's m_mutex.
        boost::container::flat_map<IRemoteResourceEventHandler*, HandlerEntry, std::less<>>
            handlers;
        std::uint64_t notifications = 0;
    };

    struct Children {
        /// The last state that each of them has reported, in the order of linking.
        std::vector<State> states;
        /// Null: there is only one, whose state is the aggregate.
        std::unique_ptr<AggregateState> aggregate;
    };

    struct ParentLink {
        ActiveState* parent;
        /// Which of the parent's children this state is.
        std::size_t child;
    };

    /// Null: there has been no observer yet.
    DeliveryLock* FindDeliveryLock() const HALVEX_EXCLUDES(m_mutex);
    DeliveryLock& MakeDeliveryLock() HALVEX_EXCLUDES(m_mutex);
    IEventTracer::TraceRecord RecordOf(const State& state) const;
    void Change(State state) HALVEX_EXCLUDES(m_mutex);
    void ChangeLocked(State state, Deliveries& due) HALVEX_REQUIRES(m_mutex);
    void CheckAllNotificationsLocked(Deliveries& due) HALVEX_REQUIRES(m_mutex);
    void CheckOwnNotificationsLocked(Deliveries& due) HALVEX_REQUIRES(m_mutex);
    bool IsRepeatDueLocked(const HandlerEntry& entry) const HALVEX_REQUIRES(m_mutex);
    std::size_t AddChild() HALVEX_EXCLUDES(m_mutex);
    void UpdateChildLocked(std::size_t child, const State& state) HALVEX_REQUIRES(m_mutex);
    void Post(Deliveries due);
    /// Delivers all notifications that are on their way to the observer, up to that of this number.
    void Deliver(IRemoteResourceEventHandler* handler, std::uint64_t number)
        HALVEX_EXCLUDES(m_mutex);
    /// Delivers the next notification that is on its way to the observer, unless it comes after the
    /// one of this number. True: there is another one up to that.
    bool DeliverNext(IRemoteResourceEventHandler* handler, std::uint64_t number)
        HALVEX_EXCLUDES(m_mutex);

    const ResourceDescriptor* const m_descriptor;
    const ResourceDescriptorBundle* const m_bundle;
    ITaskQueue& m_notificationQueue;
    const IEventTracer& m_tracer;

    /// Taken with the mutex of a child held, never the other way round.
    mutable Mutex m_mutex;
    /// Null: there has been no observer yet.
    std::unique_ptr<Observers> m_observers HALVEX_GUARDED_BY(m_mutex);
    /// In the order of linking.
    boost::container::small_vector<ParentLink, 1> m_parents HALVEX_GUARDED_BY(m_mutex);
    /// Null: there are none, as in most states.
    std::unique_ptr<Children> m_children HALVEX_GUARDED_BY(m_mutex);
    State m_state HALVEX_GUARDED_BY(m_mutex);
    std::uint64_t m_errors HALVEX_GUARDED_BY(m_mutex) = 0;
};

} // namespace Halvex::App
