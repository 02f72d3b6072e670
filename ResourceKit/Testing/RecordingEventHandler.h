#pragma once

#include "Foundation/Export.h"
#include "ResourceDownloadManager/IRemoteResourceEventHandler.h"

#include <functional>
#include <memory>
#include <vector>

namespace Halvex::Kit::Testing {

/// An observer that writes down what it is told, for a test to look at or to wait for.
///
///     RecordingEventHandler observer;
///     resource->RegisterEventHandler(&observer, {});
///     resource->Schedule(ISchedulableResource::SchedulePriority::Normal);
///     EXPECT_TRUE(observer.WaitForStatus(IRemoteResource::DownloadStatus::Available));
///     resource->UnregisterEventHandler(&observer);
///
/// The waits return when another thread tells it. So a test whose notifications arrive on its own
/// event loop, with useQtTaskQueue, processes events and looks at Notifications instead.
///
/// Thread-safe. Unregister it before it is destroyed.
class HALVEX_EXPORT RecordingEventHandler : public App::IRemoteResourceEventHandler {
public:
    using State = App::IRemoteResource::State;

    struct Notification {
        State state;
        const App::ResourceDescriptorBundle* bundle = nullptr;
    };

    RecordingEventHandler();
    ~RecordingEventHandler() override;

    RecordingEventHandler(const RecordingEventHandler&) = delete;
    RecordingEventHandler& operator=(const RecordingEventHandler&) = delete;

    void OnStateChanged(State state, const App::ResourceDescriptorBundle* bundle) override;

    /// All so far, in the order of their arrival.
    std::vector<Notification> Notifications() const;

    /// Waits until it has been told of a state that is wanted, now or before. The function is
    /// called on this thread, once for each notification. False: there was none within the generous
    /// limit.
    bool WaitFor(const std::function<bool(const Notification&)>& isWanted) const;
    /// The same for any state with this status.
    bool WaitForStatus(App::IRemoteResource::DownloadStatus status) const;

private:
    struct Impl;
    const std::unique_ptr<Impl> m_impl;
};

} // namespace Halvex::Kit::Testing
