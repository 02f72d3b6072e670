#pragma once

#include "Foundation/Export.h"

#include <cstddef>
#include <memory>

namespace Halvex::App {

class IEventTracer;
class INetworkStateChecker;
class IPostProcessor;
class IProxyProvider;
class IRemoteResourceScheduler;
class IResourceDownloader;
class IValidator;

/// The library's entry point: builds everything from parameters and the services that the
/// application brings, offers two schedulers, and runs the work.
///
/// Constructed --Init--> initialised --StartEventLoopThread, or calls of ProcessCurrentQueue-->
/// running --Abort--> stopped. Init comes first and once. Either the manager's own thread or one
/// thread of the application's runs the work, never both.
///
///     ResourceDownloadManager manager;
///     manager.Init({}, {});
///     IRemoteResource* resource = manager.GetMainScheduler()->RegisterAutoSchedule(
///         &bundle, ISchedulableResource::SchedulePriority::Normal);
///     manager.ProcessCurrentQueue(); // or StartEventLoopThread() ... Abort()
///
/// Resources of the init scheduler are served before all others and never retried; those of the
/// main scheduler are retried by DownloadRetrier, with pauses of 5 and 60 seconds while the
/// connection is bad. Abort may be called from any thread but those that run the work, and not
/// while StartEventLoopThread is being called; everything else from one thread at a time.
class HALVEX_EXPORT ResourceDownloadManager {
public:
    struct Params {
        /// True: checks and downloads run on a ParallelExecutor; false: on the thread that runs the
        /// work.
        bool useParallelExecutor = false;
        /// The threads of the ParallelExecutor; 0: GetOptimalThreadCount.
        std::size_t threadCount = 0;
        /// True: observers of the main scheduler's resources are called on the Qt event loop of the
        /// thread that calls Init; false: on the thread on which the change happens.
        bool useQtTaskQueue = false;
        /// True: HTTP through Networking::QtHttpClient; false: through the native client.
        bool useQtHttpClient = false;
    };

    /// The services that the application brings; an empty one means the default.
    struct Dependencies {
        std::shared_ptr<IEventTracer> eventTracer;                 ///< default: no tracing
        std::shared_ptr<INetworkStateChecker> networkStateChecker; ///< default: always online
        std::shared_ptr<IPostProcessor> postProcessor;             ///< default: does nothing
        std::shared_ptr<IProxyProvider> proxyProvider;             ///< default: QtProxyProvider
        std::shared_ptr<IResourceDownloader> resourceDownloader;   ///< default: over HTTP
        std::shared_ptr<IValidator> validator;                     ///< default: accepts all files
    };

    ResourceDownloadManager();
    /// A loop that StartEventLoopThread has started must have been stopped with Abort: a manager
    /// destroyed while it runs ends the process. Observers must be unregistered or destroyed by
    /// then; with useQtTaskQueue, on the thread that called Init.
    ~ResourceDownloadManager();

    ResourceDownloadManager(const ResourceDownloadManager&) = delete;
    ResourceDownloadManager& operator=(const ResourceDownloadManager&) = delete;

    /// Builds everything. Touches no file and sends nothing.
    void Init(const Params& params, const Dependencies& dependencies);

    /// For resources needed at start-up: served before all others, never retried. Empty before
    /// Init.
    std::shared_ptr<IRemoteResourceScheduler> GetInitScheduler() const;
    /// For all other resources. Empty before Init.
    std::shared_ptr<IRemoteResourceScheduler> GetMainScheduler() const;

    /// Half of the hardware threads, but at least 2 and at most 8.
    static std::size_t GetOptimalThreadCount();

    /// Starts a thread that runs the work until Abort, and sleeps while there is none. Only a task
    /// of the main scheduler wakes it: resources of the init scheduler are to be scheduled before,
    /// or along with main ones. Throws std::system_error if the thread cannot be started. Starting
    /// it twice ends the process.
    void StartEventLoopThread();
    /// Waits for that thread to end, which it does only after Abort. Throws std::system_error on
    /// the thread itself.
    void JoinEventLoopThread();

    /// Runs the work on the calling thread until there is none and nothing is left to retry; pauses
    /// before retries included.
    void ProcessCurrentQueue();
    /// A part of it: one run of the executor over one scheduler's queue, or one decision of its
    /// retrier with the pause that it asks for. False: there was nothing to do.
    bool ProcessCurrentQueueQuant();

    /// Cancels the transfers under way, stops the executor and the loop for good, and returns when
    /// the event-loop thread has ended. May be called twice, and before Init. A BlockingExecutor
    /// still runs what is queued, where every download is cancelled at once.
    ///
    /// Not from inside an observer whose notifications come on the threads where the changes
    /// happen: a worker that has to notify the same bundle would wait for the observer, and this
    /// for the worker. Inside one that is called on a Qt event loop it may be called.
    void Abort();

private:
    struct Impl;
    const std::unique_ptr<Impl> m_impl;
};

} // namespace Halvex::App
