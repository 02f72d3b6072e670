#include "ResourceDownloadManager/ResourceDownloadManager.h"

#include "Foundation/HttpClientFactory.h"
#include "Foundation/Mutex.h"
#include "Networking/QtHttpClient.h"
#include "ResourceDownloadManager/BlockingExecutor.h"
#include "ResourceDownloadManager/DownloadRetrier.h"
#include "ResourceDownloadManager/DownloadRetrierStub.h"
#include "ResourceDownloadManager/Downloader/ResourceDownloaderHttp.h"
#include "ResourceDownloadManager/EventTracerStub.h"
#include "ResourceDownloadManager/NetworkStateCheckerStub.h"
#include "ResourceDownloadManager/OptimalThreadCount.h"
#include "ResourceDownloadManager/ParallelExecutor.h"
#include "ResourceDownloadManager/PostProcessorStub.h"
#include "ResourceDownloadManager/QtProxyProvider.h"
#include "ResourceDownloadManager/RemoteResourceScheduler.h"
#include "ResourceDownloadManager/TaskQueue.h"
#include "ResourceDownloadManager/TaskQueueImmediate.h"
#include "ResourceDownloadManager/TaskQueueQt.h"
#include "ResourceDownloadManager/TaskQueueWatcher.h"
#include "ResourceDownloadManager/ValidatorStub.h"

#include <glog/logging.h>

#include <atomic>
#include <system_error>
#include <thread>

namespace Halvex::App {

namespace {

constexpr std::int64_t kPauseWhenUnstableSeconds = 5;
constexpr std::int64_t kPauseWhenLostSeconds = 60;

/// A scheduler and what it works with. Destroyed in reverse: the watcher before its queue.
struct SchedulerSet {
    std::shared_ptr<ITaskQueue> checkQueue = std::make_shared<TaskQueue>();
    std::shared_ptr<ITaskQueue> notificationQueue = std::make_shared<TaskQueueImmediate>();
    std::shared_ptr<IDownloadRetrier> retrier = std::make_shared<DownloadRetrierStub>();
    std::shared_ptr<IRemoteResourceScheduler> scheduler;
    std::unique_ptr<TaskQueueWatcher> watcher;

    void Watch() { watcher = std::make_unique<TaskQueueWatcher>(*checkQueue); }

    void Deactivate() {
        if (watcher)
            watcher->Deactivate();
    }

    void PauseBeforeRetry() {
        switch (retrier->GetState()) {
        case IDownloadRetrier::ConnectionState::Unstable:
            watcher->WaitForTasks(kPauseWhenUnstableSeconds);
            break;
        case IDownloadRetrier::ConnectionState::Lost:
            watcher->WaitForTasks(kPauseWhenLostSeconds);
            break;
        case IDownloadRetrier::ConnectionState::Good:
            break;
        }
    }
};

template <typename Default, typename Interface>
void FillIn(std::shared_ptr<Interface>& service) {
    if (!service)
        service = std::make_shared<Default>();
}

} // namespace

struct HALVEX_HIDDEN ResourceDownloadManager::Impl {
    std::shared_ptr<IExecutor> executor = std::make_shared<BlockingExecutor>();
    std::shared_ptr<Networking::IHttpClient> httpClient;
    Dependencies dependencies;
    SchedulerSet initSet;
    SchedulerSet mainSet;
    /// Held while the thread is joined: Abort comes while another thread waits for the loop.
    Mutex joinMutex;
    /// The thread that is inside RunEventLoop.
    std::atomic<std::thread::id> runningLoop{std::thread::id()};
    std::thread eventLoopThread;

    ~Impl() {
        // Workers of a call that could not start them all may still have to do with the queues.
        // A loop that was never joined may be in a call: its thread's end stops the process.
        if (!eventLoopThread.joinable())
            executor->Abort();
    }

    void FillInDependencies() {
        FillIn<EventTracerStub>(dependencies.eventTracer);
        FillIn<QtProxyProvider>(dependencies.proxyProvider);
        FillIn<NetworkStateCheckerStub>(dependencies.networkStateChecker);
        FillIn<ValidatorStub>(dependencies.validator);
        FillIn<PostProcessorStub>(dependencies.postProcessor);
        if (!dependencies.resourceDownloader)
            dependencies.resourceDownloader = std::make_shared<ResourceDownloaderHttp>(
                httpClient, dependencies.proxyProvider, dependencies.networkStateChecker);
    }

    std::unique_ptr<IRemoteResourceScheduler> MakeScheduler(const SchedulerSet& set) const {
        return std::make_unique<RemoteResourceScheduler>(
            dependencies.resourceDownloader, set.checkQueue, set.notificationQueue,
            dependencies.postProcessor, dependencies.validator, dependencies.eventTracer,
            set.retrier);
    }

    /// One pass over a set; whether there may be more to do.
    bool RunSetOnce(SchedulerSet& set) {
        if (executor->ExecQueue(*set.checkQueue) == IExecutor::Result::TasksExecuted)
            return true;
        switch (set.retrier->Check()) {
        case IDownloadRetrier::Result::Retried:
            return true;
        case IDownloadRetrier::Result::NothingToRetry:
            return false;
        case IDownloadRetrier::Result::Wait:
            break;
        }
        set.PauseBeforeRetry();
        return true;
    }

    void ProcessCurrentQueue() {
        while (RunSetOnce(initSet) || RunSetOnce(mainSet)) {
        }
    }

    void RunEventLoop() {
        runningLoop = std::this_thread::get_id();
        while (mainSet.watcher->IsActive()) {
            ProcessCurrentQueue();
            mainSet.watcher->WaitForTasks(0);
        }
        runningLoop = std::thread::id();
    }

    void DeactivateWatchers() {
        initSet.Deactivate();
        mainSet.Deactivate();
    }

    void JoinEventLoopThread() HALVEX_EXCLUDES(joinMutex) {
        // Without the mutex, which is held by whoever waits for this very thread.
        if (runningLoop.load() == std::this_thread::get_id())
            throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur));
        const MutexLock lock(joinMutex);
        // Before the watchers are told: a running loop ends by Abort, not by being waited for.
        if (eventLoopThread.joinable())
            eventLoopThread.join();
        DeactivateWatchers();
    }
};

ResourceDownloadManager::ResourceDownloadManager() : m_impl(std::make_unique<Impl>()) {}

ResourceDownloadManager::~ResourceDownloadManager() = default;

void ResourceDownloadManager::Init(const Params& params, const Dependencies& dependencies) {
    if (params.useParallelExecutor)
        m_impl->executor = std::make_shared<ParallelExecutor>(
            params.threadCount != 0 ? params.threadCount : GetOptimalThreadCount());
    if (params.useQtTaskQueue)
        m_impl->mainSet.notificationQueue = std::make_shared<TaskQueueQt>();
    if (params.useQtHttpClient)
        m_impl->httpClient = std::make_shared<Networking::QtHttpClient>();
    else
        m_impl->httpClient = Networking::createHttpClient(Networking::HttpClientType::Native);
    m_impl->dependencies = dependencies;
    m_impl->FillInDependencies();
    m_impl->initSet.Watch();
    m_impl->mainSet.Watch();
    m_impl->mainSet.retrier = std::make_shared<DownloadRetrier>();
    m_impl->initSet.scheduler = m_impl->MakeScheduler(m_impl->initSet);
    m_impl->mainSet.scheduler = m_impl->MakeScheduler(m_impl->mainSet);
}

std::shared_ptr<IRemoteResourceScheduler> ResourceDownloadManager::GetInitScheduler() const {
    return m_impl->initSet.scheduler;
}

std::shared_ptr<IRemoteResourceScheduler> ResourceDownloadManager::GetMainScheduler() const {
    return m_impl->mainSet.scheduler;
}

std::size_t ResourceDownloadManager::GetOptimalThreadCount() {
    return OptimalThreadCount(std::thread::hardware_concurrency());
}

void ResourceDownloadManager::StartEventLoopThread() {
    if (!m_impl->mainSet.watcher) {
        LOG(ERROR) << "the event loop cannot be started before Init";
        return;
    }
    Impl* impl = m_impl.get();
    m_impl->eventLoopThread = std::thread([impl] { impl->RunEventLoop(); });
}

void ResourceDownloadManager::JoinEventLoopThread() {
    m_impl->JoinEventLoopThread();
}

void ResourceDownloadManager::ProcessCurrentQueue() {
    m_impl->ProcessCurrentQueue();
}

bool ResourceDownloadManager::ProcessCurrentQueueQuant() {
    return m_impl->RunSetOnce(m_impl->initSet) || m_impl->RunSetOnce(m_impl->mainSet);
}

void ResourceDownloadManager::Abort() {
    if (m_impl->dependencies.resourceDownloader)
        m_impl->dependencies.resourceDownloader->Abort();
    m_impl->executor->Abort();
    m_impl->DeactivateWatchers();
    m_impl->JoinEventLoopThread();
}

} // namespace Halvex::App
