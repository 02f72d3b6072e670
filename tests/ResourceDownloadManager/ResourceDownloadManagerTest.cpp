#include "ResourceDownloadManager/ResourceDownloadManager.h"

#include "ResourceDownloadManager/IEventTracer.h"
#include "ResourceDownloadManager/INetworkStateChecker.h"
#include "ResourceDownloadManager/IPostProcessor.h"
#include "ResourceDownloadManager/IProxyProvider.h"
#include "ResourceDownloadManager/IRemoteResourceScheduler.h"
#include "ResourceDownloadManager/IValidator.h"
#include "ResourceDownloadManager/OptimalThreadCount.h"
#include "ResourceDownloadManager/RemoteResourceEventHandlerCallback.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "ResourceKit/Testing/RecordingEventHandler.h"
#include "support/BackgroundCall.h"
#include "support/FakeScriptedDownloader.h"
#include "support/LogCapture.h"
#include "support/TemporaryFolder.h"
#include "support/ThreadStarts.h"
#include "support/TimedWaits.h"

#include <gmock/gmock.h>

#include <QtCore/QCoreApplication>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <iterator>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <vector>

namespace Halvex::App {
namespace {

using Error = IRemoteResource::DownloadError;
using Status = IRemoteResource::DownloadStatus;
using DownloadStatus = IResourceDownloader::Status;
using Params = ResourceDownloadManager::Params;
using Dependencies = ResourceDownloadManager::Dependencies;
using Task = IResourceDownloader::Task;
using Clock = std::chrono::steady_clock;
using Testing::AllSleep;
using Testing::BackgroundCall;
using testing::ElementsAre;
using Testing::Event;
using Testing::FakeScriptedDownloader;
using Testing::LatestTimedWait;
using Testing::LimitedThreadStarts;
using testing::NiceMock;
using testing::Return;
using Testing::ThisThread;
using Testing::ThreadsOfThisProcess;
using Testing::WaitUntil;

constexpr ISchedulableResource::SchedulePriority kNormal =
    ISchedulableResource::SchedulePriority::Normal;

/// How long something may take that would take much longer if it waited for a pause to pass.
constexpr std::chrono::seconds kWellBelowAMinute(30);

class MockTracer : public IEventTracer {
public:
    MOCK_METHOD(void, Trace, (Event, const TraceRecord&), (const, override));
    MOCK_METHOD(void, TraceString, (const std::string&), (const, override));
};

class MockNetworkStateChecker : public INetworkStateChecker {
public:
    MOCK_METHOD(State, GetState, (), (const, override));
};

class MockPostProcessor : public IPostProcessor {
public:
    MOCK_METHOD(std::int32_t, Process, (const ResourceDescriptor*), (override));
};

class MockProxyProvider : public IProxyProvider {
public:
    MOCK_METHOD(Proxy, GetSystemProxy, (const std::string&), (const, override));
};

class MockValidator : public IValidator {
public:
    MOCK_METHOD(std::int32_t, Validate, (const ResourceDescriptor*), (override));
};

Params Parallel(std::size_t threadCount) {
    Params params;
    params.useParallelExecutor = true;
    params.threadCount = threadCount;
    return params;
}

Params WithQtTaskQueue() {
    Params params;
    params.useQtTaskQueue = true;
    return params;
}

std::size_t CountNewThreads(const std::set<pid_t>& before) {
    const std::set<pid_t> now = ThreadsOfThisProcess();
    std::vector<pid_t> started;
    std::set_difference(now.begin(), now.end(), before.begin(), before.end(),
                        std::back_inserter(started));
    return started.size();
}

/// An application that uses the manager with a scripted downloader. Its resources are bundles of
/// one, known by their relative paths.
class Application {
public:
    Application() { dependencies.resourceDownloader = downloader; }
    ~Application() { manager.Abort(); }

    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

    void Init(const Params& params = {}) { manager.Init(params, dependencies); }

    /// The descriptor of a new resource: downloaded on every check unless it is changed.
    ResourceDescriptor& Describe(const std::string& relativePath) {
        m_bundles.emplace_back();
        ResourceDescriptor& descriptor = m_bundles.back().member;
        descriptor.relativePath = relativePath;
        return descriptor;
    }

    IRemoteResource* ScheduleInit(const ResourceDescriptor& descriptor) {
        return manager.GetInitScheduler()->RegisterAutoSchedule(&BundleOf(descriptor), kNormal);
    }
    IRemoteResource* ScheduleInit(const std::string& name) { return ScheduleInit(Describe(name)); }

    IRemoteResource* ScheduleMain(const ResourceDescriptor& descriptor) {
        return manager.GetMainScheduler()->RegisterAutoSchedule(&BundleOf(descriptor), kNormal);
    }
    IRemoteResource* ScheduleMain(const std::string& name) { return ScheduleMain(Describe(name)); }

    IRemoteResource* RegisterInit(const std::string& name) {
        return manager.GetInitScheduler()->Register(&BundleOf(Describe(name)));
    }
    IRemoteResource* RegisterMain(const std::string& name) {
        return manager.GetMainScheduler()->Register(&BundleOf(Describe(name)));
    }

    std::vector<std::string> Downloads() const { return downloader->Downloads(); }

    const std::shared_ptr<FakeScriptedDownloader> downloader =
        std::make_shared<FakeScriptedDownloader>();
    Dependencies dependencies;

private:
    struct Bundle {
        ResourceDescriptor member;
        ResourceDescriptorBundle descriptor{{&member}, 0};
    };

    const ResourceDescriptorBundle& BundleOf(const ResourceDescriptor& descriptor) {
        return std::find_if(m_bundles.begin(), m_bundles.end(),
                            [&](const Bundle& bundle) { return &bundle.member == &descriptor; })
            ->descriptor;
    }

    std::deque<Bundle> m_bundles;

public:
    /// Last: destroyed before what is registered with it.
    ResourceDownloadManager manager;
};

class ResourceDownloadManagerTest : public testing::Test {
protected:
    /// Starts the loop, lets it download a resource of the main scheduler and fall asleep.
    /// Answers the loop's thread.
    pid_t StartSleepingLoop() {
        m_app.ScheduleMain("first");
        m_app.manager.StartEventLoopThread();
        EXPECT_TRUE(m_app.downloader->WaitForDownloads(1));
        const pid_t loop = *m_app.downloader->DownloadThreads().begin();
        EXPECT_TRUE(WaitUntil([&] { return AllSleep({loop}); }));
        return loop;
    }

    Application m_app;
};

// Construction and Init

TEST_F(ResourceDownloadManagerTest, IsNeitherCopiedNorMoved) {
    EXPECT_FALSE(std::is_copy_constructible_v<ResourceDownloadManager>);
    EXPECT_FALSE(std::is_copy_assignable_v<ResourceDownloadManager>);
    EXPECT_FALSE(std::is_move_constructible_v<ResourceDownloadManager>);
    EXPECT_FALSE(std::is_move_assignable_v<ResourceDownloadManager>);
}

TEST_F(ResourceDownloadManagerTest, HasNoSchedulersBeforeInit) {
    EXPECT_EQ(m_app.manager.GetInitScheduler(), nullptr);
    EXPECT_EQ(m_app.manager.GetMainScheduler(), nullptr);
}

TEST_F(ResourceDownloadManagerTest, HasNothingToDoBeforeInit) {
    EXPECT_FALSE(m_app.manager.ProcessCurrentQueueQuant());
}

TEST_F(ResourceDownloadManagerTest, HasTwoSchedulersAfterInit) {
    m_app.Init();

    EXPECT_NE(m_app.manager.GetInitScheduler(), nullptr);
    EXPECT_NE(m_app.manager.GetMainScheduler(), nullptr);
    EXPECT_NE(m_app.manager.GetInitScheduler(), m_app.manager.GetMainScheduler());
}

TEST_F(ResourceDownloadManagerTest, HandsOutTheSameSchedulersEveryTime) {
    m_app.Init();

    EXPECT_EQ(m_app.manager.GetInitScheduler(), m_app.manager.GetInitScheduler());
    EXPECT_EQ(m_app.manager.GetMainScheduler(), m_app.manager.GetMainScheduler());
}

TEST_F(ResourceDownloadManagerTest, SharesTheSuppliedServicesUntilItIsDestroyed) {
    Dependencies supplied;
    supplied.eventTracer = std::make_shared<NiceMock<MockTracer>>();
    supplied.networkStateChecker = std::make_shared<NiceMock<MockNetworkStateChecker>>();
    supplied.postProcessor = std::make_shared<NiceMock<MockPostProcessor>>();
    supplied.proxyProvider = std::make_shared<NiceMock<MockProxyProvider>>();
    supplied.resourceDownloader = std::make_shared<FakeScriptedDownloader>();
    supplied.validator = std::make_shared<NiceMock<MockValidator>>();
    const auto useCounts = [&] {
        return std::vector<long>{
            supplied.eventTracer.use_count(),   supplied.networkStateChecker.use_count(),
            supplied.postProcessor.use_count(), supplied.proxyProvider.use_count(),
            supplied.validator.use_count(),     supplied.resourceDownloader.use_count()};
    };
    {
        ResourceDownloadManager manager;
        manager.Init({}, supplied);
        EXPECT_THAT(useCounts(), testing::Each(testing::Gt(1)));
    }
    EXPECT_THAT(useCounts(), testing::Each(1));
}

TEST_F(ResourceDownloadManagerTest, DropsWhatIsQueuedWhenItIsDestroyed) {
    {
        Application app;
        app.Init();
        app.ScheduleInit("a");
        app.ScheduleMain("b");
        app.downloader->SetScript([](const Task&) {
            ADD_FAILURE() << "a download has begun";
            return DownloadStatus::Ok;
        });
    }
}

TEST_F(ResourceDownloadManagerTest, WakesTheLoopAfterASecondInitToo) {
    m_app.Init();
    m_app.Init();
    StartSleepingLoop();

    m_app.ScheduleMain("second");

    EXPECT_TRUE(m_app.downloader->WaitForDownloads(2));
}

// Default services

/// The state of a resource without a valid address, fetched without a service being supplied.
IRemoteResource::State FetchInvalidAddress(const Params& params) {
    const Testing::TemporaryFolder folder;
    Application app;
    app.dependencies = {};
    app.Init(params);
    ResourceDescriptor& descriptor = app.Describe("a");
    descriptor.baseUrl = "no address";
    descriptor.tempPath = folder / "a.tmp";
    descriptor.downloadPath = folder / "a";
    IRemoteResource* resource = app.ScheduleInit(descriptor);
    app.manager.ProcessCurrentQueue();
    EXPECT_EQ(folder.List(), "");
    return resource->GetState();
}

TEST_F(ResourceDownloadManagerTest, DownloadsOverHttpByDefault) {
    const Testing::LogCapture log;

    const IRemoteResource::State state = FetchInvalidAddress({});

    EXPECT_EQ(state.status, Status::Error);
    EXPECT_EQ(state.error, Error::GeneralError);
    EXPECT_THAT(log.Infos(), ElementsAre("HTTP download=no address/a"));
    EXPECT_THAT(log.Errors(), ElementsAre(testing::StartsWith("request=no address/a failed")));
}

TEST_F(ResourceDownloadManagerTest, DownloadsOverHttpThroughTheQtClient) {
    const Testing::LogCapture log;
    Params params;
    params.useQtHttpClient = true;

    const IRemoteResource::State state = FetchInvalidAddress(params);

    EXPECT_EQ(state.status, Status::Error);
    EXPECT_EQ(state.error, Error::GeneralError);
    EXPECT_THAT(log.Infos(), ElementsAre("HTTP download=no address/a"));
}

TEST_F(ResourceDownloadManagerTest, AcceptsFilesByDefault) {
    const Testing::TemporaryFolder folder;
    m_app.Init();
    ResourceDescriptor& descriptor = m_app.Describe("a");
    descriptor.validationMode = 1;
    descriptor.localPath = folder.Write("a", "content");
    IRemoteResource* resource = m_app.ScheduleMain(descriptor);

    m_app.manager.ProcessCurrentQueue();

    EXPECT_EQ(resource->GetState().status, Status::Available);
    EXPECT_THAT(m_app.Downloads(), ElementsAre());
}

TEST_F(ResourceDownloadManagerTest, PostProcessesWithoutFailureByDefault) {
    m_app.Init();
    ResourceDescriptor& descriptor = m_app.Describe("a");
    descriptor.postProcess = 1;
    IRemoteResource* resource = m_app.ScheduleMain(descriptor);

    m_app.manager.ProcessCurrentQueue();

    EXPECT_EQ(resource->GetState().status, Status::Available);
}

// Supplied services

TEST_F(ResourceDownloadManagerTest, UsesTheSuppliedDownloaderForBothSchedulers) {
    const Testing::LogCapture log;
    m_app.Init();
    m_app.ScheduleInit("init");
    m_app.ScheduleMain("main");

    m_app.manager.ProcessCurrentQueue();

    EXPECT_THAT(m_app.Downloads(), ElementsAre("init", "main"));
    EXPECT_THAT(log.Lines(), testing::IsEmpty());
}

TEST_F(ResourceDownloadManagerTest, UsesTheSuppliedValidatorForBothSchedulers) {
    const auto validator = std::make_shared<MockValidator>();
    m_app.dependencies.validator = validator;
    m_app.Init();
    ResourceDescriptor& init = m_app.Describe("init");
    ResourceDescriptor& main = m_app.Describe("main");
    init.validationMode = 1;
    main.validationMode = 1;
    IRemoteResource* initResource = m_app.ScheduleInit(init);
    IRemoteResource* mainResource = m_app.ScheduleMain(main);

    EXPECT_CALL(*validator, Validate(&init)).WillOnce(Return(1));
    EXPECT_CALL(*validator, Validate(&main)).WillOnce(Return(1)).WillOnce(Return(0));
    m_app.manager.ProcessCurrentQueue();

    EXPECT_EQ(initResource->GetState().error, Error::Corrupted);
    EXPECT_EQ(mainResource->GetState().status, Status::Available);
}

TEST_F(ResourceDownloadManagerTest, UsesTheSuppliedPostProcessorForBothSchedulers) {
    const auto postProcessor = std::make_shared<MockPostProcessor>();
    m_app.dependencies.postProcessor = postProcessor;
    m_app.Init();
    ResourceDescriptor& init = m_app.Describe("init");
    ResourceDescriptor& main = m_app.Describe("main");
    init.postProcess = 1;
    main.postProcess = 1;
    IRemoteResource* initResource = m_app.ScheduleInit(init);
    IRemoteResource* mainResource = m_app.ScheduleMain(main);

    EXPECT_CALL(*postProcessor, Process(&init)).WillOnce(Return(-1));
    EXPECT_CALL(*postProcessor, Process(&main)).WillOnce(Return(-1)).WillOnce(Return(0));
    m_app.manager.ProcessCurrentQueue();

    EXPECT_EQ(initResource->GetState().error, Error::Corrupted);
    EXPECT_EQ(mainResource->GetState().status, Status::Available);
}

TEST_F(ResourceDownloadManagerTest, TracesBothSchedulersWithTheSuppliedTracer) {
    const auto tracer = std::make_shared<NiceMock<MockTracer>>();
    m_app.dependencies.eventTracer = tracer;
    m_app.Init();
    const auto download = [](const std::string& text) {
        return testing::Field(&IEventTracer::TraceRecord::text, text);
    };

    EXPECT_CALL(*tracer, Trace).Times(testing::AnyNumber());
    EXPECT_CALL(*tracer, Trace(IEventTracer::Event::Download, download("init"))).Times(1);
    EXPECT_CALL(*tracer, Trace(IEventTracer::Event::Download, download("main"))).Times(1);
    m_app.ScheduleInit("init");
    m_app.ScheduleMain("main");
    m_app.manager.ProcessCurrentQueue();
}

class ResourceDownloadManagerOverHttpTest : public testing::Test {
protected:
    /// A resource that cannot be fetched over HTTP, for the default downloader.
    IRemoteResource::State Fetch() {
        m_app.dependencies.resourceDownloader = nullptr;
        m_app.Init();
        ResourceDescriptor& descriptor = m_app.Describe("a");
        descriptor.baseUrl = "no address";
        descriptor.tempPath = m_folder / "a.tmp";
        descriptor.downloadPath = m_folder / "a";
        IRemoteResource* resource = m_app.ScheduleInit(descriptor);
        m_app.manager.ProcessCurrentQueue();
        return resource->GetState();
    }

    const Testing::TemporaryFolder m_folder;
    Application m_app;
};

TEST_F(ResourceDownloadManagerOverHttpTest, AsksTheSuppliedProxyProvider) {
    const auto proxyProvider = std::make_shared<MockProxyProvider>();
    m_app.dependencies.proxyProvider = proxyProvider;

    EXPECT_CALL(*proxyProvider, GetSystemProxy("no address/a"))
        .WillOnce(Return(IProxyProvider::Proxy()));
    Fetch();
}

TEST_F(ResourceDownloadManagerOverHttpTest, AsksTheSuppliedNetworkStateChecker) {
    const auto checker = std::make_shared<NiceMock<MockNetworkStateChecker>>();
    m_app.dependencies.networkStateChecker = checker;
    ON_CALL(*checker, GetState).WillByDefault(Return(INetworkStateChecker::State::Offline));

    EXPECT_EQ(Fetch().error, Error::InternetConnectionLost);
}

// Executors

TEST_F(ResourceDownloadManagerTest, RunsEverythingOnTheCallingThreadWithoutAParallelExecutor) {
    m_app.Init();
    m_app.ScheduleInit("a");
    m_app.ScheduleMain("b");
    m_app.ScheduleMain("c");

    m_app.manager.ProcessCurrentQueue();

    EXPECT_THAT(m_app.Downloads(), ElementsAre("a", "b", "c"));
    EXPECT_THAT(m_app.downloader->DownloadThreads(), ElementsAre(ThisThread()));
}

TEST_F(ResourceDownloadManagerTest, LetsExceptionsOutWithoutAParallelExecutor) {
    m_app.Init();
    m_app.downloader->SetScript(
        [](const Task&) -> DownloadStatus { throw std::runtime_error("no"); });
    m_app.ScheduleMain("a");

    EXPECT_THROW(m_app.manager.ProcessCurrentQueue(), std::runtime_error);
}

/// How many of the four threads could be started.
class ResourceDownloadManagerShortOfThreadsTest : public testing::TestWithParam<std::size_t> {};

TEST_P(ResourceDownloadManagerShortOfThreadsTest, ThrowsAndCanBeDestroyed) {
    const auto app = std::make_unique<Application>();
    app->Init(Parallel(4));
    app->ScheduleMain("a");
    const LimitedThreadStarts limit(GetParam());
    EXPECT_THROW(app->manager.ProcessCurrentQueue(), std::system_error);
}

TEST_P(ResourceDownloadManagerShortOfThreadsTest, CanBeDestroyedWithoutAbort) {
    const auto downloader = std::make_shared<FakeScriptedDownloader>();
    ResourceDownloadManager manager;
    Dependencies dependencies;
    dependencies.resourceDownloader = downloader;
    manager.Init(Parallel(4), dependencies);
    const LimitedThreadStarts limit(GetParam());
    EXPECT_THROW(manager.ProcessCurrentQueue(), std::system_error);
}

INSTANTIATE_TEST_SUITE_P(Started, ResourceDownloadManagerShortOfThreadsTest, testing::Values(0, 2));

TEST_F(ResourceDownloadManagerTest, RunsNothingOnTheCallingThreadWithAParallelExecutor) {
    m_app.Init(Parallel(2));
    m_app.ScheduleInit("a");
    m_app.ScheduleMain("b");

    m_app.manager.ProcessCurrentQueue();

    EXPECT_THAT(m_app.Downloads(), ElementsAre("a", "b"));
    EXPECT_THAT(m_app.downloader->DownloadThreads(), testing::Not(testing::Contains(ThisThread())));
}

/// How many worker threads there are while all of them are busy, and how many downloads are then
/// under way.
struct Busy {
    std::size_t workers = 0;
    std::size_t downloads = 0;
};

Busy CountWhenBusy(const Params& params, std::size_t expectedWorkers) {
    Application app;
    app.Init(params);
    Event released;
    app.downloader->SetScript([&](const Task&) {
        released.Wait();
        return DownloadStatus::Ok;
    });
    for (std::size_t i = 0; i < 2 * expectedWorkers; ++i)
        app.ScheduleMain(std::to_string(i));
    const std::set<pid_t> before = ThreadsOfThisProcess();
    std::atomic<pid_t> caller{0};
    Busy busy;
    BackgroundCall processing([&] {
        caller = ThisThread();
        app.manager.ProcessCurrentQueue();
    });
    EXPECT_TRUE(app.downloader->WaitForDownloads(expectedWorkers));
    // Once the caller sleeps it has started all workers and waits for them.
    EXPECT_TRUE(WaitUntil([&] { return AllSleep({caller.load()}); }));
    busy.workers = CountNewThreads(before) - 1;
    busy.downloads = app.downloader->DownloadCount();
    released.Set();
    EXPECT_TRUE(processing.Returns());
    EXPECT_EQ(app.downloader->DownloadCount(), 2 * expectedWorkers);
    return busy;
}

TEST_F(ResourceDownloadManagerTest, DownloadsOnAsManyThreadsAsAskedFor) {
    const Busy busy = CountWhenBusy(Parallel(3), 3);

    EXPECT_EQ(busy.workers, 3u);
    EXPECT_EQ(busy.downloads, 3u);
}

TEST_F(ResourceDownloadManagerTest, DownloadsOnTheOptimalNumberOfThreadsForZero) {
    const std::size_t optimal = ResourceDownloadManager::GetOptimalThreadCount();
    const Busy busy = CountWhenBusy(Parallel(0), optimal);

    EXPECT_EQ(busy.workers, optimal);
    EXPECT_EQ(busy.downloads, optimal);
}

TEST_F(ResourceDownloadManagerTest, TakesTheOptimalThreadCountFromTheHardware) {
    EXPECT_EQ(ResourceDownloadManager::GetOptimalThreadCount(),
              OptimalThreadCount(std::thread::hardware_concurrency()));
}

// Precedence and retries. The manager is aborted first where retries are not to be waited for:
// that ends every pause, and without a parallel executor nothing else.

TEST_F(ResourceDownloadManagerTest, ServesTheInitSchedulerFirst) {
    m_app.Init();
    m_app.ScheduleMain("main 1");
    m_app.ScheduleInit("init 1");
    m_app.ScheduleMain("main 2");
    m_app.ScheduleInit("init 2");

    m_app.manager.ProcessCurrentQueue();

    EXPECT_THAT(m_app.Downloads(), ElementsAre("init 1", "init 2", "main 1", "main 2"));
}

TEST_F(ResourceDownloadManagerTest, ServesNewInitWorkBeforeTheRetriesOfTheMainScheduler) {
    m_app.Init();
    m_app.downloader->SetScript([&](const Task& task) {
        if (task.descriptor->relativePath == "init")
            return DownloadStatus::Ok;
        if (m_app.downloader->DownloadCount() == 1)
            m_app.ScheduleInit("init");
        return DownloadStatus::Failed;
    });
    m_app.ScheduleMain("main 1");
    m_app.ScheduleMain("main 2");

    m_app.manager.ProcessCurrentQueue();

    EXPECT_THAT(m_app.Downloads(), ElementsAre("main 1", "main 2", "init", "main 1", "main 2"));
}

TEST_F(ResourceDownloadManagerTest, ServesInitWorkThatComesDuringARetryBeforeTheNextRetry) {
    m_app.Init();
    m_app.downloader->SetScript([&](const Task& task) {
        if (task.descriptor->relativePath == "init")
            return DownloadStatus::Ok;
        if (m_app.downloader->DownloadCount() == 3)
            m_app.ScheduleInit("init");
        return DownloadStatus::Failed;
    });
    m_app.ScheduleMain("main 1");
    m_app.ScheduleMain("main 2");

    m_app.manager.ProcessCurrentQueue();

    EXPECT_THAT(m_app.Downloads(), ElementsAre("main 1", "main 2", "main 1", "init", "main 2"));
}

TEST_F(ResourceDownloadManagerTest, NeverRetriesInitResources) {
    m_app.Init();
    m_app.downloader->SetStatus(DownloadStatus::NetworkFailure);
    IRemoteResource* resource = m_app.ScheduleInit("a");

    m_app.manager.ProcessCurrentQueue();

    EXPECT_THAT(m_app.Downloads(), ElementsAre("a"));
    EXPECT_EQ(resource->GetState().error, Error::InternetConnectionLost);
}

TEST_F(ResourceDownloadManagerTest, RetriesMainResourcesOnce) {
    m_app.Init();
    m_app.downloader->SetStatus(DownloadStatus::Failed);
    IRemoteResource* resource = m_app.ScheduleMain("a");

    m_app.manager.ProcessCurrentQueue();

    EXPECT_THAT(m_app.Downloads(), ElementsAre("a", "a"));
    EXPECT_EQ(resource->GetState().error, Error::GeneralError);
}

TEST_F(ResourceDownloadManagerTest, RetriesMainResourcesTwentyTimesWhileTheConnectionIsLost) {
    m_app.Init();
    m_app.manager.Abort();
    m_app.downloader->SetStatus(DownloadStatus::NetworkFailure);
    IRemoteResource* resource = m_app.ScheduleMain("a");

    m_app.manager.ProcessCurrentQueue();

    EXPECT_EQ(m_app.downloader->DownloadCount(), 21u);
    EXPECT_EQ(resource->GetState().error, Error::InternetConnectionLost);
}

TEST_F(ResourceDownloadManagerTest, DoesNotRetryWhatHasSucceeded) {
    m_app.Init();
    m_app.downloader->SetScript([&](const Task&) {
        return m_app.downloader->DownloadCount() == 1 ? DownloadStatus::NetworkFailure
                                                      : DownloadStatus::Ok;
    });
    IRemoteResource* resource = m_app.ScheduleMain("a");

    m_app.manager.ProcessCurrentQueue();

    EXPECT_THAT(m_app.Downloads(), ElementsAre("a", "a"));
    EXPECT_EQ(resource->GetState().status, Status::Available);
}

TEST_F(ResourceDownloadManagerTest, ReturnsAtOnceWhenThereIsNothingToProcess) {
    m_app.Init();

    m_app.manager.ProcessCurrentQueue();

    EXPECT_THAT(m_app.Downloads(), ElementsAre());
}

// Quanta

TEST_F(ResourceDownloadManagerTest, AQuantIsFalseWhenThereIsNothingToDo) {
    m_app.Init();

    EXPECT_FALSE(m_app.manager.ProcessCurrentQueueQuant());
}

TEST_F(ResourceDownloadManagerTest, AQuantOfInitWorkLeavesTheMainSchedulerAlone) {
    m_app.Init();
    m_app.ScheduleMain("main");
    m_app.ScheduleInit("init");

    EXPECT_TRUE(m_app.manager.ProcessCurrentQueueQuant());

    EXPECT_THAT(m_app.Downloads(), ElementsAre("init"));
}

TEST_F(ResourceDownloadManagerTest, AQuantDrainsOneScheduler) {
    m_app.Init();
    m_app.ScheduleInit("init 1");
    m_app.ScheduleInit("init 2");

    EXPECT_TRUE(m_app.manager.ProcessCurrentQueueQuant());

    EXPECT_THAT(m_app.Downloads(), ElementsAre("init 1", "init 2"));
}

TEST_F(ResourceDownloadManagerTest, AQuantServesTheMainSchedulerWhenTheInitOneIsIdle) {
    m_app.Init();
    m_app.ScheduleMain("main");

    EXPECT_TRUE(m_app.manager.ProcessCurrentQueueQuant());
    EXPECT_FALSE(m_app.manager.ProcessCurrentQueueQuant());

    EXPECT_THAT(m_app.Downloads(), ElementsAre("main"));
}

TEST_F(ResourceDownloadManagerTest, AQuantDoesNotGoOnToTheMainSchedulerAfterInitWork) {
    m_app.Init();
    m_app.ScheduleInit("init");
    m_app.ScheduleMain("main");

    EXPECT_TRUE(m_app.manager.ProcessCurrentQueueQuant());
    EXPECT_TRUE(m_app.manager.ProcessCurrentQueueQuant());
    EXPECT_FALSE(m_app.manager.ProcessCurrentQueueQuant());

    EXPECT_THAT(m_app.Downloads(), ElementsAre("init", "main"));
}

TEST_F(ResourceDownloadManagerTest, AQuantDoesNotRunWhatItsRetrierHasScheduled) {
    m_app.Init();
    m_app.downloader->SetStatus(DownloadStatus::Failed);
    m_app.ScheduleMain("a");
    ASSERT_TRUE(m_app.manager.ProcessCurrentQueueQuant());

    EXPECT_TRUE(m_app.manager.ProcessCurrentQueueQuant());
    EXPECT_THAT(m_app.Downloads(), ElementsAre("a"));
    EXPECT_TRUE(m_app.manager.ProcessCurrentQueueQuant());
    EXPECT_THAT(m_app.Downloads(), ElementsAre("a", "a"));
    EXPECT_FALSE(m_app.manager.ProcessCurrentQueueQuant());
}

TEST_F(ResourceDownloadManagerTest, AQuantSpentOnAPauseRetriesNothing) {
    m_app.Init();
    m_app.manager.Abort();
    m_app.downloader->SetStatus(DownloadStatus::NetworkFailure);
    m_app.ScheduleMain("a");
    // The first download, and three retries without a pause.
    for (int quant = 0; quant < 1 + 3 * 2; ++quant)
        ASSERT_TRUE(m_app.manager.ProcessCurrentQueueQuant());
    ASSERT_EQ(m_app.downloader->DownloadCount(), 4u);

    EXPECT_TRUE(m_app.manager.ProcessCurrentQueueQuant()) << "the pause";
    EXPECT_TRUE(m_app.manager.ProcessCurrentQueueQuant()) << "the retrier's decision";
    EXPECT_EQ(m_app.downloader->DownloadCount(), 4u);
    EXPECT_TRUE(m_app.manager.ProcessCurrentQueueQuant()) << "the retry";
    EXPECT_EQ(m_app.downloader->DownloadCount(), 5u);
}

// Pauses before retries

/// A resource of the main scheduler that keeps losing its connection, retried by the event loop.
class RetryingLoop {
public:
    RetryingLoop() {
        m_app.Init();
        m_app.downloader->SetStatus(DownloadStatus::NetworkFailure);
        ResourceDescriptor& present = m_app.Describe("present");
        present.validationMode = 2;
        present.localPath = m_folder.Write("present", "");
        m_present = m_app.ScheduleMain(present);
        m_app.ScheduleMain("lost");
        m_app.manager.StartEventLoopThread();
    }

    /// Waits until the loop pauses after so many attempts, ending earlier pauses with a task of
    /// the main scheduler.
    testing::AssertionResult PausesAfter(std::size_t attempts) {
        const bool pauses = m_app.downloader->WaitForDownloads(1) && WaitUntil([&] {
                                if (!IsAsleep())
                                    return false;
                                if (Attempts() >= attempts)
                                    return true;
                                m_present->Schedule(kNormal);
                                return false;
                            });
        return (pauses ? testing::AssertionSuccess() : testing::AssertionFailure())
               << Attempts() << " attempts";
    }

    bool IsAsleep() const { return AllSleep({Thread()}); }

    /// How long it set out to pause, in seconds.
    double Pause() const {
        return std::chrono::duration<double>(LatestTimedWait(Thread())).count();
    }

    std::size_t Attempts() const { return m_app.downloader->DownloadCount("lost"); }

    Application& App() { return m_app; }

private:
    pid_t Thread() const { return *m_app.downloader->DownloadThreads().begin(); }

    const Testing::TemporaryFolder m_folder;
    IRemoteResource* m_present = nullptr;
    Application m_app;
};

TEST_F(ResourceDownloadManagerTest, PausesForFiveSecondsWhileUnstable) {
    RetryingLoop loop;
    ASSERT_TRUE(loop.PausesAfter(5));
    EXPECT_LE(loop.Pause(), 5);
    EXPECT_GT(loop.Pause(), 4);
}

TEST_F(ResourceDownloadManagerTest, PausesForAMinuteWhileLost) {
    RetryingLoop loop;
    ASSERT_TRUE(loop.PausesAfter(12));
    EXPECT_LE(loop.Pause(), 60);
    EXPECT_GT(loop.Pause(), 59);
}

TEST_F(ResourceDownloadManagerTest, DoesNotPauseBeforeTheFirstThreeRetries) {
    RetryingLoop loop;
    ASSERT_TRUE(loop.PausesAfter(1));

    EXPECT_EQ(loop.Attempts(), 4u);
}

TEST_F(ResourceDownloadManagerTest, ATaskOfTheMainSchedulerEndsAPause) {
    const Clock::time_point start = Clock::now();
    RetryingLoop loop;

    // Seven pauses of 5 seconds and one of a minute, if they were not ended.
    EXPECT_TRUE(loop.PausesAfter(13));

    EXPECT_LT(Clock::now() - start, kWellBelowAMinute);
}

TEST_F(ResourceDownloadManagerTest, ATaskOfTheInitSchedulerDoesNotEndAPause) {
    RetryingLoop loop;
    ASSERT_TRUE(loop.PausesAfter(12));

    loop.App().ScheduleInit("init");

    EXPECT_TRUE(loop.IsAsleep());
    EXPECT_EQ(loop.App().downloader->DownloadCount("init"), 0u);
}

TEST_F(ResourceDownloadManagerTest, AbortEndsAPauseWhileUnstable) {
    RetryingLoop loop;
    ASSERT_TRUE(loop.PausesAfter(4));

    // The remaining retries would pause for minutes.
    const Clock::time_point start = Clock::now();
    loop.App().manager.Abort();
    EXPECT_LT(Clock::now() - start, kWellBelowAMinute);
}

TEST_F(ResourceDownloadManagerTest, AbortEndsAPauseWhileLost) {
    RetryingLoop loop;
    ASSERT_TRUE(loop.PausesAfter(12));

    const Clock::time_point start = Clock::now();
    loop.App().manager.Abort();
    EXPECT_LT(Clock::now() - start, kWellBelowAMinute);
}

TEST_F(ResourceDownloadManagerTest, AbortEndsAPauseOfTheApplicationsOwnLoop) {
    m_app.Init();
    m_app.downloader->SetStatus(DownloadStatus::NetworkFailure);
    m_app.ScheduleMain("a");
    BackgroundCall processing([this] { m_app.manager.ProcessCurrentQueue(); });
    ASSERT_TRUE(m_app.downloader->WaitForDownloads(4));
    ASSERT_TRUE(processing.Blocks());

    const Clock::time_point start = Clock::now();
    m_app.manager.Abort();

    EXPECT_TRUE(processing.Returns());
    EXPECT_LT(Clock::now() - start, kWellBelowAMinute);
}

// The event-loop thread

TEST_F(ResourceDownloadManagerTest, TheLoopRunsWhatWasQueuedBeforeItStarted) {
    m_app.Init();
    m_app.ScheduleMain("main");
    m_app.ScheduleInit("init");

    m_app.manager.StartEventLoopThread();

    ASSERT_TRUE(m_app.downloader->WaitForDownloads(2));
    EXPECT_THAT(m_app.Downloads(), ElementsAre("init", "main"));
    EXPECT_THAT(m_app.downloader->DownloadThreads(), ElementsAre(testing::Ne(ThisThread())));
}

TEST_F(ResourceDownloadManagerTest, TheLoopStartsWithInitWorkAlone) {
    m_app.Init();
    m_app.ScheduleInit("init");

    m_app.manager.StartEventLoopThread();

    EXPECT_TRUE(m_app.downloader->WaitForDownloads(1));
}

TEST_F(ResourceDownloadManagerTest, ATaskOfTheMainSchedulerWakesTheLoop) {
    m_app.Init();
    StartSleepingLoop();

    m_app.ScheduleMain("second");

    EXPECT_TRUE(m_app.downloader->WaitForDownloads(2));
    EXPECT_THAT(m_app.downloader->DownloadThreads(), testing::SizeIs(1));
}

TEST_F(ResourceDownloadManagerTest, ATaskOfTheInitSchedulerDoesNotWakeTheLoop) {
    m_app.Init();
    const pid_t loop = StartSleepingLoop();

    m_app.ScheduleInit("init");

    // A loop that had been woken would either not sleep, or have run the task.
    EXPECT_TRUE(AllSleep({loop}));
    EXPECT_THAT(m_app.Downloads(), ElementsAre("first"));
}

TEST_F(ResourceDownloadManagerTest, AWokenLoopServesTheInitSchedulerFirst) {
    m_app.Init();
    StartSleepingLoop();
    m_app.ScheduleInit("init");

    m_app.ScheduleMain("main");

    ASSERT_TRUE(m_app.downloader->WaitForDownloads(3));
    EXPECT_THAT(m_app.Downloads(), ElementsAre("first", "init", "main"));
}

TEST_F(ResourceDownloadManagerTest, AbortWakesTheLoopAndEndsItsThread) {
    m_app.Init();
    const pid_t loop = StartSleepingLoop();

    m_app.manager.Abort();

    EXPECT_TRUE(WaitUntil([&] { return ThreadsOfThisProcess().count(loop) == 0; }));
    EXPECT_THAT(m_app.Downloads(), ElementsAre("first"));
}

TEST_F(ResourceDownloadManagerTest, AbortReturnsWhenTheLoopHasEnded) {
    m_app.Init();
    Event released;
    m_app.downloader->SetScript([&](const Task&) {
        released.Wait();
        return DownloadStatus::Ok;
    });
    m_app.ScheduleMain("a");
    m_app.manager.StartEventLoopThread();
    ASSERT_TRUE(m_app.downloader->WaitForDownloads(1));
    BackgroundCall abort([this] { m_app.manager.Abort(); });

    EXPECT_TRUE(abort.Blocks());
    released.Set();
    EXPECT_TRUE(abort.Returns());
}

TEST_F(ResourceDownloadManagerTest, ALoopStartedAfterAbortRunsNothing) {
    m_app.Init();
    m_app.manager.Abort();
    m_app.ScheduleMain("a");

    m_app.manager.StartEventLoopThread();
    m_app.manager.JoinEventLoopThread();

    EXPECT_THAT(m_app.Downloads(), ElementsAre());
}

TEST_F(ResourceDownloadManagerTest, JoiningWithoutALoopStopsLaterLoops) {
    m_app.Init();
    m_app.ScheduleMain("a");
    m_app.manager.JoinEventLoopThread();

    m_app.manager.StartEventLoopThread();
    m_app.manager.JoinEventLoopThread();

    EXPECT_THAT(m_app.Downloads(), ElementsAre());
}

TEST_F(ResourceDownloadManagerTest, JoinReturnsOnlyAfterAbort) {
    m_app.Init();
    StartSleepingLoop();
    BackgroundCall join([this] { m_app.manager.JoinEventLoopThread(); });

    EXPECT_TRUE(join.Blocks());
    m_app.manager.Abort();
    EXPECT_TRUE(join.Returns());
}

TEST_F(ResourceDownloadManagerTest, ALoopThatIsBeingJoinedGoesOnWorking) {
    m_app.Init();
    StartSleepingLoop();
    BackgroundCall join([this] { m_app.manager.JoinEventLoopThread(); });
    EXPECT_TRUE(join.Blocks());

    m_app.ScheduleMain("second");

    EXPECT_TRUE(m_app.downloader->WaitForDownloads(2));
    m_app.manager.Abort();
}

TEST_F(ResourceDownloadManagerTest, JoinAfterAbortReturns) {
    m_app.Init();
    StartSleepingLoop();
    m_app.manager.Abort();

    BackgroundCall join([this] { m_app.manager.JoinEventLoopThread(); });

    EXPECT_TRUE(join.Returns());
}

/// The code of the error that joining the loop on its own thread ends in.
std::optional<std::error_code> JoinOnTheLoopsThread(Application& app) {
    std::optional<std::error_code> code;
    app.downloader->SetScript([&](const Task&) {
        try {
            app.manager.JoinEventLoopThread();
        } catch (const std::system_error& error) {
            code = error.code();
        }
        return DownloadStatus::Ok;
    });
    app.ScheduleMain("joins");
    EXPECT_TRUE(app.downloader->WaitForDownloads(2));
    app.manager.Abort();
    return code;
}

TEST_F(ResourceDownloadManagerTest, JoinThrowsOnTheLoopsOwnThread) {
    m_app.Init();
    StartSleepingLoop();

    EXPECT_EQ(JoinOnTheLoopsThread(m_app),
              std::make_error_code(std::errc::resource_deadlock_would_occur));
}

TEST_F(ResourceDownloadManagerTest, JoinThrowsOnTheLoopsOwnThreadWhileAnotherThreadJoins) {
    m_app.Init();
    StartSleepingLoop();
    BackgroundCall join([this] { m_app.manager.JoinEventLoopThread(); });
    EXPECT_TRUE(join.Blocks());

    EXPECT_EQ(JoinOnTheLoopsThread(m_app),
              std::make_error_code(std::errc::resource_deadlock_would_occur));
}

TEST_F(ResourceDownloadManagerTest, AbortBeforeInitDoesNothing) {
    m_app.manager.Abort();

    m_app.Init();
    StartSleepingLoop();
    EXPECT_EQ(m_app.downloader->AbortCount(), 0u);
}

TEST_F(ResourceDownloadManagerTest, JoinBeforeInitDoesNothing) {
    m_app.manager.JoinEventLoopThread();

    m_app.Init();
    StartSleepingLoop();
}

TEST_F(ResourceDownloadManagerTest, StartBeforeInitLogsAnErrorAndStartsNothing) {
    const Testing::LogCapture log;
    const std::set<pid_t> before = ThreadsOfThisProcess();

    m_app.manager.StartEventLoopThread();

    EXPECT_EQ(CountNewThreads(before), 0u);
    EXPECT_THAT(log.Errors(), ElementsAre("the event loop cannot be started before Init"));
}

class ResourceDownloadManagerDeathTest : public ResourceDownloadManagerTest {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(ResourceDownloadManagerDeathTest, StartingTwiceEndsTheProcess) {
    EXPECT_DEATH(
        {
            m_app.Init();
            m_app.manager.StartEventLoopThread();
            m_app.manager.StartEventLoopThread();
        },
        "terminate called without an active exception");
}

TEST_F(ResourceDownloadManagerDeathTest, DestroyingARunningManagerEndsTheProcess) {
    EXPECT_DEATH(
        {
            ResourceDownloadManager manager;
            manager.Init({}, {});
            manager.StartEventLoopThread();
        },
        "terminate called without an active exception");
}

TEST_F(ResourceDownloadManagerDeathTest, AnExceptionOnTheLoopsThreadEndsTheProcess) {
    EXPECT_DEATH(
        {
            m_app.Init();
            m_app.downloader->SetScript(
                [](const Task&) -> DownloadStatus { throw std::runtime_error("no"); });
            m_app.ScheduleMain("a");
            m_app.manager.StartEventLoopThread();
            m_app.manager.JoinEventLoopThread();
        },
        "terminate called after throwing an instance of 'std::runtime_error'");
}

// Notifications

/// Observes a resource and remembers the threads that it is told on of what becomes of it.
class ThreadObserver {
public:
    /// The resource is scheduled once it is observed.
    explicit ThreadObserver(IRemoteResource* resource) {
        m_callback.SetCallback([this](IRemoteResource::State state) {
            // Told inside the registration.
            if (state.status == Status::Waiting)
                return;
            const MutexLock lock(m_mutex);
            m_threads.insert(ThisThread());
            m_last = state.status;
        });
        m_callback.RegisterWithin(resource);
        resource->Schedule(kNormal);
    }

    /// The threads of the notifications of a resource that has become available by now. Runs the
    /// calling thread's Qt event loop meanwhile.
    std::set<pid_t> ThreadsWhenAvailable() {
        EXPECT_TRUE(WaitUntil([this] {
            QCoreApplication::processEvents();
            const MutexLock lock(m_mutex);
            return m_last == Status::Available;
        }));
        const MutexLock lock(m_mutex);
        return m_threads;
    }

private:
    Mutex m_mutex;
    std::set<pid_t> m_threads HALVEX_GUARDED_BY(m_mutex);
    Status m_last HALVEX_GUARDED_BY(m_mutex) = Status::Waiting;
    RemoteResourceEventHandlerCallback m_callback;
};

TEST_F(ResourceDownloadManagerTest, NotifiesOnTheWorkerByDefault) {
    m_app.Init();
    const pid_t loop = StartSleepingLoop();
    ThreadObserver observer(m_app.RegisterMain("main"));

    EXPECT_THAT(observer.ThreadsWhenAvailable(), ElementsAre(loop));
}

TEST_F(ResourceDownloadManagerTest, NotifiesOfMainResourcesOnTheThreadOfInitWithAQtTaskQueue) {
    m_app.Init(WithQtTaskQueue());
    StartSleepingLoop();
    ThreadObserver observer(m_app.RegisterMain("main"));

    EXPECT_THAT(observer.ThreadsWhenAvailable(), ElementsAre(ThisThread()));
}

TEST_F(ResourceDownloadManagerTest, DeliversNothingUntilTheQtEventLoopRuns) {
    m_app.Init(WithQtTaskQueue());
    Kit::Testing::RecordingEventHandler observer;
    IRemoteResource* resource = m_app.ScheduleMain("main");
    resource->RegisterEventHandler(&observer, {});

    m_app.manager.ProcessCurrentQueue();

    EXPECT_THAT(observer.Notifications(), testing::IsEmpty());
    QCoreApplication::processEvents();
    EXPECT_THAT(observer.Notifications(), testing::SizeIs(3));
    resource->UnregisterEventHandler(&observer);
}

TEST_F(ResourceDownloadManagerTest, NotifiesOfInitResourcesOnTheWorkerDespiteAQtTaskQueue) {
    m_app.Init(WithQtTaskQueue());
    ThreadObserver observer(m_app.RegisterInit("init"));
    m_app.manager.StartEventLoopThread();

    const std::set<pid_t> threads = observer.ThreadsWhenAvailable();

    EXPECT_THAT(threads, testing::ContainerEq(m_app.downloader->DownloadThreads()));
    EXPECT_THAT(threads, testing::Not(testing::Contains(ThisThread())));
}

// Abort

TEST_F(ResourceDownloadManagerTest, AbortCancelsTheDownloadsUnderWay) {
    m_app.Init(Parallel(2));
    m_app.downloader->SetScript([this](const Task&) {
        EXPECT_TRUE(m_app.downloader->WaitForAbort());
        return DownloadStatus::Cancelled;
    });
    IRemoteResource* first = m_app.ScheduleMain("first");
    IRemoteResource* second = m_app.ScheduleMain("second");
    m_app.manager.StartEventLoopThread();
    ASSERT_TRUE(m_app.downloader->WaitForDownloads(2));

    // The executor waits for its workers: it comes after the downloader.
    m_app.manager.Abort();

    EXPECT_EQ(m_app.downloader->AbortCount(), 1u);
    EXPECT_EQ(first->GetState().error, Error::Cancelled);
    EXPECT_EQ(second->GetState().error, Error::Cancelled);
}

TEST_F(ResourceDownloadManagerTest, AbortStopsAParallelExecutorThatIsStillBusy) {
    m_app.Init(Parallel(1));
    Event released;
    m_app.downloader->SetScript([&](const Task&) {
        released.Wait();
        return DownloadStatus::Ok;
    });
    m_app.ScheduleMain("first");
    m_app.ScheduleMain("second");
    m_app.manager.StartEventLoopThread();
    ASSERT_TRUE(m_app.downloader->WaitForDownloads(1));
    BackgroundCall abort([this] { m_app.manager.Abort(); });
    ASSERT_TRUE(WaitUntil([this] { return m_app.downloader->AbortCount() == 1; }));
    EXPECT_TRUE(abort.Blocks());

    released.Set();

    EXPECT_TRUE(abort.Returns());
    EXPECT_THAT(m_app.Downloads(), ElementsAre("first"));
}

TEST_F(ResourceDownloadManagerTest, AParallelExecutorRunsNothingAfterAbort) {
    m_app.Init(Parallel(2));
    m_app.manager.Abort();
    m_app.ScheduleInit("init");
    m_app.ScheduleMain("main");

    m_app.manager.ProcessCurrentQueue();

    EXPECT_THAT(m_app.Downloads(), ElementsAre());
}

TEST_F(ResourceDownloadManagerTest, WithoutAParallelExecutorWorkGoesOnAfterAbort) {
    m_app.Init();
    m_app.manager.Abort();
    m_app.ScheduleInit("init");
    m_app.ScheduleMain("main");

    m_app.manager.ProcessCurrentQueue();

    EXPECT_THAT(m_app.Downloads(), ElementsAre("init", "main"));
}

TEST_F(ResourceDownloadManagerTest, AbortTwiceAbortsTheDownloaderTwice) {
    m_app.Init();
    StartSleepingLoop();

    m_app.manager.Abort();
    m_app.manager.Abort();

    EXPECT_EQ(m_app.downloader->AbortCount(), 2u);
}

TEST_F(ResourceDownloadManagerTest, AbortFromTwoThreadsAtOnceEndsTheLoopOnce) {
    m_app.Init();
    Event released;
    m_app.downloader->SetScript([&](const Task&) {
        released.Wait();
        return DownloadStatus::Ok;
    });
    m_app.ScheduleMain("a");
    m_app.manager.StartEventLoopThread();
    ASSERT_TRUE(m_app.downloader->WaitForDownloads(1));
    BackgroundCall first([this] { m_app.manager.Abort(); });
    BackgroundCall second([this] { m_app.manager.Abort(); });
    EXPECT_TRUE(first.Blocks());
    EXPECT_TRUE(second.Blocks());

    released.Set();

    EXPECT_TRUE(first.Returns());
    EXPECT_TRUE(second.Returns());
}

// All together

TEST_F(ResourceDownloadManagerTest, CarriesManyResourcesFromManyThreadsToTheirEnd) {
    constexpr std::size_t kThreads = 4;
    constexpr std::size_t kResourcesPerThread = 25;
    constexpr std::size_t kInitResources = 50;
    std::deque<ResourceDescriptor> descriptors(kThreads * kResourcesPerThread);
    std::deque<ResourceDescriptorBundle> bundles(descriptors.size());
    std::atomic<std::size_t> available{0};
    const auto countAvailable = [&](IRemoteResource::State state) {
        if (state.status == Status::Available)
            ++available;
    };
    Application app;
    app.Init(Parallel(8));
    for (std::size_t i = 0; i < descriptors.size(); ++i) {
        descriptors[i].relativePath = std::to_string(i);
        bundles[i].descriptors = {&descriptors[i]};
    }
    // The second attempt is the one that succeeds, as far as there is one.
    app.downloader->SetScript([&](const Task& task) {
        const std::string& name = task.descriptor->relativePath;
        task.progressCallback(1, 2);
        return name == "init" || app.downloader->DownloadCount(name) > 1 ? DownloadStatus::Ok
                                                                         : DownloadStatus::Failed;
    });
    std::deque<RemoteResourceEventHandlerCallback> observers(kInitResources + descriptors.size());
    for (RemoteResourceEventHandlerCallback& observer : observers)
        observer.SetCallback(countAvailable);
    for (std::size_t i = 0; i < kInitResources; ++i)
        observers[descriptors.size() + i].RegisterWithin(app.ScheduleInit("init"));

    app.manager.StartEventLoopThread();
    {
        std::deque<BackgroundCall> registering;
        for (std::size_t thread = 0; thread < kThreads; ++thread)
            registering.emplace_back([&, thread] {
                for (std::size_t i = 0; i < kResourcesPerThread; ++i) {
                    const std::size_t index = thread * kResourcesPerThread + i;
                    observers[index].RegisterWithin(
                        app.manager.GetMainScheduler()->RegisterAutoSchedule(&bundles[index],
                                                                             kNormal));
                }
            });
    }

    EXPECT_TRUE(WaitUntil([&] { return available == kInitResources + descriptors.size(); }))
        << available << " are available";
    app.manager.Abort();
    EXPECT_EQ(app.downloader->DownloadCount("init"), kInitResources);
    EXPECT_EQ(app.downloader->DownloadCount(), kInitResources + 2 * descriptors.size());
}

} // namespace
} // namespace Halvex::App
