#pragma once

#include "Foundation/Export.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

namespace Halvex::App {
class IRemoteResource;
}

namespace Halvex::Kit {

/// Waits for a bundle: whether an application may go on with it, must make do with what it has, or
/// must do without.
///
///     auto* startUp = manager.GetInitScheduler()->RegisterAutoSchedule(&bundle, priority);
///     manager.StartEventLoopThread();
///     const auto answer = Kit::ResourceWatch::WaitUntilAvailable(
///         startUp, std::chrono::steady_clock::now() + std::chrono::seconds(20),
///         Kit::ResourceWatch::Errors::AreFinal);
///
/// or, with a ResourceWatch, is told of the answer while it does something else.
///
/// Both ask the resource for its state every 10 milliseconds instead of observing it. So they work
/// whatever the notification queue is, and while the event loop that would deliver notifications is
/// the one that waits. The price is that asking waits while an observer of the bundle is being
/// called (IRemoteResource::GetState): the answer comes later by as long as that takes, and must
/// not be waited for inside an observer of the same bundle; see the destructor too.
class HALVEX_EXPORT ResourceWatch {
public:
    /// How the waiting has ended. Decided from the last state that the resource was in and, unless
    /// that was Available, by a look at the disk: a usable file is a regular one that can be opened
    /// for reading. Its content is not judged, as the validator of the new version would reject the
    /// old one.
    enum class Answer : std::int32_t {
        /// The state was Available, or there are no files in the bundle; the disk is not looked at.
        Available,
        /// It was not, but there is a usable file at the localPath of every descriptor, of whatever
        /// version. A descriptor whose downloadPath is its localPath loses it as soon as its next
        /// download begins; to rely on this answer, let the two differ.
        StaleUsable,
        /// A usable file is missing, and the state was not Error: the deadline has come before the
        /// resource, which may still come.
        Missing,
        /// A usable file is missing, and the state was Error: the last attempt of some member has
        /// failed, and is final, or nothing better has come of it by the deadline.
        GivenUp,
    };

    /// What the state Error means. Whether a failed resource is tried again is known to the retry
    /// policy of its scheduler only, which tells nobody and takes many minutes over a bad
    /// connection; so it is up to whoever knows the scheduler.
    enum class Errors : std::int32_t {
        /// A retry may follow, as from the main scheduler: an error ends the waiting at the
        /// deadline only.
        MayPass,
        /// The first error ends the waiting, although other members may still be under way: the
        /// bundle becomes Available no more. True of the init scheduler, which never retries. An
        /// error of an earlier scheduling that is there at the beginning counts as well.
        AreFinal,
    };

    using Deadline = std::chrono::steady_clock::time_point;
    using Callback = std::function<void(Answer)>;

    /// Blocks until there is an answer. A deadline that has passed gets one at once;
    /// Deadline::max() means none. Any thread but one that the bundle needs to get on: one that
    /// runs the work, or is inside an observer of the bundle. The resource must not be null.
    static Answer WaitUntilAvailable(App::IRemoteResource* resource, Deadline deadline,
                                     Errors errors = Errors::MayPass);

    /// Waits on a thread of its own and calls the function there, once, when there is an answer,
    /// which may be before this has returned. The function must be set and must not throw; it may
    /// destroy the watch, though not before this has returned. The resource must not be null and
    /// must outlive the watch. Throws std::system_error if the thread cannot be started.
    ResourceWatch(App::IRemoteResource* resource, Deadline deadline, Errors errors,
                  Callback callback);
    /// The function is not called after this has returned: a call that is under way on the watch's
    /// thread is waited for, unless it is the caller. Any thread, but not inside an observer of the
    /// same bundle: the watch's thread may be waiting for that observer to return.
    ~ResourceWatch();

    ResourceWatch(const ResourceWatch&) = delete;
    ResourceWatch& operator=(const ResourceWatch&) = delete;

private:
    struct Stop;
    const std::shared_ptr<Stop> m_stop;
    std::thread m_thread;
};

} // namespace Halvex::Kit
