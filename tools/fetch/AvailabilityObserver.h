#pragma once

#include "Foundation/Mutex.h"
#include "ResourceDownloadManager/IRemoteResourceEventHandler.h"
#include "Signals.h"

#include <cstddef>
#include <vector>

namespace Halvex::Fetch {

/// Hears from the library which bundles have become available, and wakes the thread that reports
/// it. Thread-safe.
class AvailabilityObserver : public App::IRemoteResourceEventHandler {
public:
    /// For so many bundles, whose userData are their numbers. Borrows the wake-up, which must
    /// outlive this.
    AvailabilityObserver(std::size_t bundles, const Wakeup& wakeup);

    /// The states that this is to be told of.
    static App::IRemoteResource::NotificationParams Params();

    void OnStateChanged(App::IRemoteResource::State state,
                        const App::ResourceDescriptorBundle* bundle) override;

    /// The bundles that have become available since the last call, each once.
    std::vector<std::size_t> TakeAvailable();
    bool AreAllAvailable() const;

private:
    const Wakeup& m_wakeup;
    mutable Mutex m_mutex;
    std::vector<bool> m_available HALVEX_GUARDED_BY(m_mutex);
    std::size_t m_missing HALVEX_GUARDED_BY(m_mutex);
    std::vector<std::size_t> m_newlyAvailable HALVEX_GUARDED_BY(m_mutex);
};

} // namespace Halvex::Fetch
