#include "ResourceDownloadManager/ActiveState.h"

#include <exception>
#include <utility>

namespace Halvex::App {

namespace {

using Status = IRemoteResource::DownloadStatus;
using Error = IRemoteResource::DownloadError;
using Event = IEventTracer::Event;

} // namespace

ActiveState::ActiveState(const ResourceDescriptor* descriptor,
                         const ResourceDescriptorBundle* bundle, ITaskQueue& notificationQueue,
                         const IEventTracer& tracer)
    : m_descriptor(descriptor), m_bundle(bundle), m_notificationQueue(notificationQueue),
      m_tracer(tracer) {}

ActiveState::State ActiveState::GetState() {
    if (DeliveryLock* delivery = FindDeliveryLock()) {
        const DeliveryScope scope(*delivery);
        const MutexLock lock(m_mutex);
        return m_state;
    }
    const MutexLock lock(m_mutex);
    return m_state;
}

DeliveryLock* ActiveState::FindDeliveryLock() const {
    const MutexLock lock(m_mutex);
    return m_observers ? &m_observers->delivery : nullptr;
}

IEventTracer::TraceRecord ActiveState::GetTraceRecord(State& snapshot) const {
    {
        const MutexLock lock(m_mutex);
        snapshot = m_state;
    }
    return RecordOf(snapshot);
}

IEventTracer::TraceRecord ActiveState::RecordOf(const State& state) const {
    return {m_descriptor, m_bundle, &state, {}};
}

DeliveryLock& ActiveState::MakeDeliveryLock() {
    const MutexLock lock(m_mutex);
    if (!m_observers)
        m_observers = std::make_unique<Observers>();
    return m_observers->delivery;
}

void ActiveState::SetAvailable() {
    Change({Status::Available, Error::NoError, 1.0});
}

std::uint64_t ActiveState::ErrorCount() const {
    const MutexLock lock(m_mutex);
    return m_errors;
}

bool ActiveState::SetAvailable(std::uint64_t errorCount) {
    Deliveries due;
    {
        const MutexLock lock(m_mutex);
        if (m_errors != errorCount)
            return false;
        ChangeLocked({Status::Available, Error::NoError, 1.0}, due);
    }
    Post(std::move(due));
    return true;
}

void ActiveState::SetError(Error error) {
    Deliveries due;
    {
        const MutexLock lock(m_mutex);
        ++m_errors;
        ChangeLocked({Status::Error, error, 0.0}, due);
    }
    Post(std::move(due));
}

void ActiveState::SetProgress(std::uint64_t done, std::uint64_t total) {
    Change({Status::Dowloading, Error::NoError,
            static_cast<double>(done) / static_cast<double>(total)});
}

void ActiveState::AddParent(ActiveState& parent) {
    const std::size_t child = parent.AddChild();
    const MutexLock lock(m_mutex);
    m_parents.push_back({&parent, child});
}

std::size_t ActiveState::AddChild() {
    const MutexLock lock(m_mutex);
    if (!m_children)
        m_children = std::make_unique<Children>();
    auto& [states, aggregate] = *m_children;
    if (!aggregate && !states.empty()) {
        aggregate = std::make_unique<AggregateState>();
        aggregate->Add(states.front());
    }
    states.emplace_back();
    if (aggregate)
        aggregate->Add(states.back());
    return states.size() - 1;
}

void ActiveState::AddHandler(IRemoteResourceEventHandler* handler, Callback callback,
                             const IRemoteResource::NotificationParams& params) {
    const DeliveryScope scope(MakeDeliveryLock());
    const MutexLock lock(m_mutex);
    auto& handlers = m_observers->handlers;
    if (handlers.count(handler) == 0)
        handlers.emplace(handler, HandlerEntry{std::move(callback), params, std::nullopt, {}});
}

void ActiveState::RemoveHandler(IRemoteResourceEventHandler* handler) {
    // Dies last: what the entry holds is the application's.
    std::optional<HandlerEntry> removed;
    DeliveryLock* delivery = FindDeliveryLock();
    if (delivery == nullptr)
        return;
    const DeliveryScope scope(*delivery);
    const MutexLock lock(m_mutex);
    auto& handlers = m_observers->handlers;
    const auto found = handlers.find(handler);
    if (found == handlers.end())
        return;
    removed = std::move(found->second);
    handlers.erase(found);
}

void ActiveState::CheckAllNotifications() {
    Deliveries due;
    {
        const MutexLock lock(m_mutex);
        CheckAllNotificationsLocked(due);
    }
    Post(std::move(due));
}

void ActiveState::Change(State state) {
    Deliveries due;
    {
        const MutexLock lock(m_mutex);
        ChangeLocked(state, due);
    }
    Post(std::move(due));
}

void ActiveState::ChangeLocked(State state, Deliveries& due) {
    m_state = state;
    CheckAllNotificationsLocked(due);
}

void ActiveState::CheckAllNotificationsLocked(Deliveries& due) {
    CheckOwnNotificationsLocked(due);
    for (const ParentLink& link : m_parents) {
        ActiveState& parent = *link.parent;
        const MutexLock lock(parent.m_mutex);
        parent.UpdateChildLocked(link.child, m_state);
        parent.CheckAllNotificationsLocked(due);
    }
}

void ActiveState::CheckOwnNotificationsLocked(Deliveries& due) {
    if (!m_observers)
        return;
    for (auto& [handler, entry] : m_observers->handlers) {
        if (entry.params.statuses.count(m_state.status) == 0)
            continue;
        const bool isRepeat = entry.lastNotified && entry.lastNotified->status == m_state.status;
        if (isRepeat && !IsRepeatDueLocked(entry))
            continue;
        entry.lastNotified = m_state;
        const std::uint64_t number = ++m_observers->notifications;
        entry.pending.push_back({number, isRepeat, m_state});
        due.push_back([this, handler = handler, number] { Deliver(handler, number); });
    }
}

bool ActiveState::IsRepeatDueLocked(const HandlerEntry& entry) const {
    // Negated, so that a difference that is not a number counts as large enough.
    return m_state.status == Status::Dowloading && entry.params.notifyProgress &&
           !(m_state.progress - entry.lastNotified->progress < entry.params.progressStep);
}

void ActiveState::UpdateChildLocked(std::size_t child, const State& state) {
    auto& [states, aggregate] = *m_children;
    if (!aggregate) {
        m_state = states[child] = state;
        return;
    }
    aggregate->Remove(states[child]);
    aggregate->Add(states[child] = state);
    m_state = aggregate->Result();
}

void ActiveState::Post(Deliveries due) {
    for (ITaskQueue::Task& delivery : due)
        m_notificationQueue.AddTask(std::move(delivery), ITaskQueue::Middle);
}

/// What the observer throws keeps nothing from it that comes after: the first exception leaves when
/// all is delivered.
void ActiveState::Deliver(IRemoteResourceEventHandler* handler, std::uint64_t number) {
    std::exception_ptr thrown;
    bool areMore = true;
    while (areMore) {
        try {
            areMore = DeliverNext(handler, number);
        } catch (...) {
            thrown = thrown ? thrown : std::current_exception();
        }
    }
    if (thrown)
        std::rethrow_exception(thrown);
}

bool ActiveState::DeliverNext(IRemoteResourceEventHandler* handler, std::uint64_t number) {
    // A copy, because the observer may unregister while it is called; then this is the last one and
    // dies after the unlock.
    Callback callback;
    const DeliveryScope scope(*FindDeliveryLock());
    Notification next;
    State lastNotified;
    bool areMore = false;
    {
        const MutexLock lock(m_mutex);
        auto& handlers = m_observers->handlers;
        const auto found = handlers.find(handler);
        if (found == handlers.end())
            return false;
        HandlerEntry& entry = found->second;
        const auto isDue = [&] {
            return !entry.pending.empty() && entry.pending.front().number <= number;
        };
        if (!isDue())
            return false;
        next = entry.pending.front();
        entry.pending.pop_front();
        areMore = isDue();
        callback = entry.callback;
        lastNotified = *entry.lastNotified;
    }
    const IEventTracer::TraceRecord record = RecordOf(lastNotified);
    m_tracer.Trace(next.isProgress ? Event::ProgressNotification : Event::StatusNotification,
                   record);
    callback(next.state);
    m_tracer.Trace(next.isProgress ? Event::ProgressNotificationEnd : Event::StatusNotificationEnd,
                   record);
    return areMore;
}

} // namespace Halvex::App
