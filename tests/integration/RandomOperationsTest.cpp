#include "ResourceDownloadManager/IRemoteResourceEventHandler.h"
#include "ResourceDownloadManager/IRemoteResourceScheduler.h"
#include "ResourceDownloadManager/NetworkStateEmulator.h"
#include "ResourceDownloadManager/ResourceDownloadManager.h"
#include "integration/RandomOperationsTally.h"
#include "integration/RandomOperationsTrace.h"
#include "integration/RandomOperationsWorld.h"
#include "support/RecomputedState.h"
#include "support/Sanitizers.h"
#include "support/SleepingThreads.h"
#include "support/Waiting.h"

#include <glog/logging.h>
#include <gmock/gmock.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QEventLoop>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <thread>
#include <tuple>
#include <vector>

#include <malloc.h>

namespace Halvex::Testing {
namespace {

using namespace std::chrono_literals;
using App::IRemoteResource;
using App::IRemoteResourceScheduler;
using App::ResourceDescriptor;
using App::ResourceDescriptorBundle;
using App::ResourceDownloadManager;
using Clock = std::chrono::steady_clock;
using Descriptors = std::vector<const ResourceDescriptor*>;
using Error = IRemoteResource::DownloadError;
using Priority = App::ISchedulableResource::SchedulePriority;
using State = IRemoteResource::State;
using Status = IRemoteResource::DownloadStatus;

constexpr std::size_t kClients = 8;
constexpr std::size_t kMainFiles = 12;
constexpr std::size_t kInitFiles = 6;
constexpr std::size_t kMostThreads = 4;
/// The rounds in which a process comes to have what it then keeps.
constexpr std::size_t kWarmUpRounds = 3;
/// In which everything is bound to happen: the rarest things do in every tenth.
constexpr std::size_t kEnoughRounds = 200;
constexpr std::chrono::seconds kHangLimit(120);
/// For what is bound to come to rest; below the limit for a hang, because a failure here says more.
constexpr std::chrono::seconds kRestLimit(100);
/// By how much the memory in use may vary from round to round.
constexpr std::size_t kMemoryBytes = 1024 * 1024;

/// Ends the process when it lives too long.
class Watchdog {
public:
    explicit Watchdog(std::string what)
        : m_thread([this, what = std::move(what)] {
              if (m_over.Wait(kHangLimit))
                  return;
              std::cerr << what << " hangs" << std::endl;
              std::abort();
          }) {}
    ~Watchdog() {
        m_over.Set();
        m_thread.join();
    }

    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    Event m_over;
    std::thread m_thread;
};

/// A bundle and where it is registered.
struct Bundle {
    Bundle(Descriptors files, IRemoteResourceScheduler* where)
        : descriptor{{files.begin(), files.end()}}, scheduler(where) {}

    IRemoteResource* Register() const { return scheduler->Register(&descriptor); }

    const ResourceDescriptorBundle descriptor;
    IRemoteResourceScheduler* const scheduler;
    /// Whether an observer has left it. Read and written without order.
    mutable std::atomic<bool> hasBeenLeft{false};
};

/// What all the threads of a round share.
struct Scene {
    World& world;
    const TraceRecorder& trace;
    Tally& tally;
    ResourceDownloadManager& manager;
    /// First one for each file, in their order, then those of several.
    const std::deque<Bundle>& bundles;

    /// Fails the test when a bundle is available but has not all of its files. Says nothing when
    /// another thread downloads one of them meanwhile, which removes the file first; otherwise
    /// counts it as whole.
    void ExpectTruth(IRemoteResource& resource, Tally::Count& whole) const {
        std::vector<TraceRecorder::Quiet> quiet;
        for (const ResourceDescriptor* file : resource.GetDescriptor()->descriptors)
            quiet.emplace_back(trace, *file);
        if (resource.GetState().status != Status::Available)
            return;
        std::string missing;
        for (const ResourceDescriptor* file : resource.GetDescriptor()->descriptors) {
            if (!world.IsWhole(*file))
                missing += ' ' + file->relativePath + " (" + world.ContentInWords(*file) + ')';
        }
        const auto lasts = [](const TraceRecorder::Quiet& file) {
            return file.Lasts();
        };
        if (!std::all_of(quiet.begin(), quiet.end(), lasts))
            return;
        EXPECT_EQ(missing, "") << "is not whole, though available";
        whole.Add();
    }
};

/// Fails the test when it is called although it has left.
class Observer final : public App::IRemoteResourceEventHandler {
public:
    struct Habits {
        /// Leaves by itself when it is told for the n-th time; 0: never.
        std::size_t leavesAfter = 0;
        /// How slow it is: so that others get round to removing it meanwhile.
        std::chrono::microseconds pause{0};
    };

    Observer(const Scene& scene, const Bundle& bundle,
             const IRemoteResource::NotificationParams& params, const Habits& habits)
        : m_scene(scene), m_bundle(bundle), m_resource(bundle.Register()), m_habits(habits) {
        m_resource->RegisterEventHandler(this, params);
    }
    ~Observer() override { Leave(); }

    void Leave() {
        if (m_isBeingTold.load(std::memory_order_relaxed))
            m_scene.tally.departuresMeanwhile.Add();
        m_resource->UnregisterEventHandler(this);
        m_left = true;
        m_bundle.hasBeenLeft.store(true, std::memory_order_relaxed);
    }

    void OnStateChanged(State state, const ResourceDescriptorBundle* bundle) override {
        EXPECT_FALSE(m_left);
        m_isBeingTold.store(true, std::memory_order_relaxed);
        EXPECT_EQ(bundle, &m_bundle.descriptor);
        m_scene.tally.callbacks.Add();
        if (m_bundle.hasBeenLeft.load(std::memory_order_relaxed))
            m_scene.tally.callbacksWithoutSome.Add();
        m_lastStatus = state.status;
        ++m_calls;
        m_scene.ExpectTruth(*m_resource, m_scene.tally.wholeMeanwhile);
        std::this_thread::sleep_for(m_habits.pause);
        // Whoever removes it waits for the end of this call.
        EXPECT_FALSE(m_left);
        m_isBeingTold.store(false, std::memory_order_relaxed);
        if (m_calls == m_habits.leavesAfter)
            Leave();
    }

    /// When nothing is under way; nothing: it has not been told any.
    std::optional<Status> LastStatus() const { return m_lastStatus; }
    IRemoteResource& Resource() const { return *m_resource; }

private:
    const Scene& m_scene;
    const Bundle& m_bundle;
    IRemoteResource* const m_resource;
    const Habits m_habits;
    std::atomic<bool> m_left{false};
    /// Read and written without order.
    std::atomic<bool> m_isBeingTold{false};
    /// Touched in callbacks only, which exclude each other.
    std::size_t m_calls = 0;
    std::optional<Status> m_lastStatus;
};

/// One thread of the application. The seed determines what it does, not how that interleaves with
/// what others do.
class Client {
public:
    Client(const Scene& scene, Random random) : m_scene(scene), m_random(random) {}

    /// Aborts the manager before its n-th operation.
    void AbortBefore(std::size_t operation) { m_abortBefore = operation; }

    void Run(std::size_t operations) {
        const ApplicationThread mark;
        for (std::size_t i = 0; i < operations; ++i) {
            if (i == m_abortBefore)
                Abort();
            DoSomething();
            m_scene.tally.operations.Add();
        }
        // The others stay for the end of all work.
        if (Below(2) == 0) {
            while (!m_observers.empty())
                Unobserve();
        }
    }

private:
    static constexpr std::size_t kMostObservers = 10;

    std::size_t Below(std::size_t limit) { return m_random() % limit; }

    void Abort() {
        if (!m_scene.trace.IsDrained())
            m_scene.tally.aborts.Add();
        m_scene.manager.Abort();
    }

    void DoSomething() {
        const Bundle& bundle = m_scene.bundles[Below(m_scene.bundles.size())];
        const auto priority = static_cast<Priority>(Below(3));
        switch (Below(24)) {
        case 0:
        case 1:
            bundle.Register();
            break;
        case 2:
        case 3:
        case 4:
            bundle.scheduler->RegisterAutoSchedule(&bundle.descriptor, priority);
            break;
        case 5:
        case 6:
            bundle.Register()->Schedule(priority);
            break;
        case 7:
        case 8:
        case 9:
            Observe(bundle);
            break;
        case 10:
        case 11:
            Unobserve();
            break;
        case 12:
        case 13:
        case 14:
            m_scene.ExpectTruth(*bundle.Register(), m_scene.tally.wholeMeanwhile);
            break;
        case 15:
            m_scene.world.GoOffline();
            break;
        case 16:
        case 17:
            m_scene.world.GoOnline();
            break;
        case 18:
        case 19:
        case 20:
            m_scene.world.ChangeAnswers(Below(m_scene.world.FileCount()), m_random);
            break;
        default:
            // Lets the library get on with what it has been given.
            std::this_thread::sleep_for(std::chrono::microseconds(Below(5000)));
        }
    }

    void Observe(const Bundle& bundle) {
        if (m_observers.size() == kMostObservers)
            Unobserve();
        IRemoteResource::NotificationParams params;
        params.notifyProgress = Below(2) == 0;
        params.progressStep = static_cast<double>(Below(3)) / 20;
        for (const Status status : {Status::Waiting, Status::Dowloading, Status::Available}) {
            if (Below(4) == 0)
                params.statuses.erase(status);
        }
        Observer::Habits habits;
        if (Below(2) == 0)
            habits.leavesAfter = 1 + Below(4);
        if (Below(2) == 0)
            habits.pause = std::chrono::microseconds(Below(5000));
        m_observers.push_back(std::make_unique<Observer>(m_scene, bundle, params, habits));
    }

    /// Half of those that leave are destroyed at once, so that the sanitizers see a late call; the
    /// others stay, so that they see it themselves.
    void Unobserve() {
        if (m_observers.empty())
            return;
        std::swap(m_observers[Below(m_observers.size())], m_observers.back());
        if (Below(2) == 0) {
            m_observers.back()->Leave();
            m_gone.push_back(std::move(m_observers.back()));
        }
        m_observers.pop_back();
    }

    const Scene& m_scene;
    Random m_random;
    std::size_t m_abortBefore = std::numeric_limits<std::size_t>::max();
    std::vector<std::unique_ptr<Observer>> m_observers;
    std::vector<std::unique_ptr<Observer>> m_gone;
};

void ExpectSame(const State& actual, const State& expected, const std::string& what) {
    EXPECT_EQ(actual.status, expected.status) << what;
    EXPECT_EQ(actual.error, expected.error) << what;
    EXPECT_NEAR(actual.progress, expected.progress, 1e-12) << what;
}

/// The random numbers of one user of them in one round.
Random Stream(std::uint64_t seed, std::size_t round, std::size_t user) {
    std::seed_seq sequence{seed, seed >> 32, std::uint64_t{round}, std::uint64_t{user}};
    return Random(sequence);
}

/// A manager from its construction to its end, with eight threads that use it.
class Round {
public:
    Round(ResourceDownloadManager::Params params, const std::vector<Versions>& versions,
          std::uint64_t seed, std::size_t number, Tally& tally)
        : m_seed(seed), m_number(number), m_random(Stream(seed, number, kClients)),
          m_aborts(m_random() % 4 != 0),
          m_world(std::make_shared<World>(versions, m_aborts, m_random)), m_tally(tally) {
        params.threadCount = 1 + m_random() % kMostThreads;
        m_oneWorker = !params.useParallelExecutor || params.threadCount == 1;
        ResourceDownloadManager::Dependencies dependencies;
        dependencies.eventTracer = m_trace;
        dependencies.networkStateChecker =
            std::make_shared<App::NetworkStateEmulator>(m_world->OfflineMarker());
        dependencies.validator = m_world;
        dependencies.postProcessor = m_world;
        m_manager.Init(params, dependencies);
        MakeBundles();
    }

    void Run() {
        const ApplicationThread mark;
        WatchSomeBundles();
        ExpectNothingBegan();
        m_manager.StartEventLoopThread();
        std::deque<Client> clients;
        RunClients(clients);
        if (!m_aborts)
            Settle();
        m_manager.Abort();
        // What still waits for this event loop.
        QCoreApplication::processEvents();
        ExpectTruthAtRest();
    }

private:
    Descriptors AllFiles() const {
        Descriptors files;
        for (std::size_t i = 0; i < m_world->FileCount(); ++i)
            files.push_back(&m_world->File(i));
        return files;
    }

    void MakeBundles() {
        const Descriptors files = AllFiles();
        const auto afterMain = files.begin() + kMainFiles;
        for (const ResourceDescriptor* file : files)
            AddBundle({file}, file->userData < kMainFiles);
        for (int i = 0; i < 6; ++i)
            AddBundle(SomeOf({files.begin(), afterMain}), true);
        for (int i = 0; i < 2; ++i)
            AddBundle(SomeOf({afterMain, files.end()}), false);
    }

    Descriptors SomeOf(const Descriptors& files) {
        Descriptors some;
        for (const ResourceDescriptor* file : files) {
            if (m_random() % 3 == 0)
                some.push_back(file);
        }
        return some.empty() ? files : some;
    }

    void AddBundle(const Descriptors& files, bool isMain) {
        const auto scheduler = isMain ? m_manager.GetMainScheduler() : m_manager.GetInitScheduler();
        m_bundles.emplace_back(files, scheduler.get());
    }

    /// Before there is any work: an observer that comes later may be told of the state at its
    /// registration after it has been told of a newer one.
    void WatchSomeBundles() {
        for (const Bundle& bundle : m_bundles) {
            if (m_random() % 2 == 0)
                m_watchers.push_back(std::make_unique<Observer>(
                    m_scene, bundle, IRemoteResource::NotificationParams{}, Observer::Habits{}));
        }
    }

    void ExpectNothingBegan() {
        for (const Bundle& bundle : m_bundles) {
            ExpectSame(bundle.Register()->GetState(), State(), "a bundle that nobody scheduled");
            m_tally.untouched.Add();
        }
    }

    /// Delivers notifications meanwhile.
    void RunClients(std::deque<Client>& clients) {
        const std::size_t aborting = m_random() % kClients;
        QEventLoop loop;
        std::vector<std::thread> threads;
        for (std::size_t i = 0; i < kClients; ++i) {
            Client& client = clients.emplace_back(m_scene, Stream(m_seed, m_number, i));
            const std::size_t operations = 20 + m_random() % 60;
            if (m_aborts && i == aborting)
                client.AbortBefore(operations / 2 + m_random() % (operations / 2));
            threads.emplace_back([&client, operations] { client.Run(operations); });
        }
        std::thread waiting([&threads, &loop] {
            for (std::thread& thread : threads)
                thread.join();
            QMetaObject::invokeMethod(&loop, "quit", Qt::QueuedConnection);
        });
        loop.exec();
        waiting.join();
    }

    /// With a server that means well everything becomes available.
    void Settle() {
        m_world->AnswerWell();
        m_world->GoOnline();
        // It has no file that counts, so this is a task, which ends any pause.
        m_bundles[0].Register()->Schedule(Priority::Normal);
        // What began with the server as it was may still fail.
        ASSERT_TRUE(WaitWhileDelivering([this] { return m_trace->IsDrained(); }));
        // The tasks of the main scheduler wake those who run the others'.
        for (std::size_t i = m_world->FileCount(); i-- > 0;)
            m_bundles[i].Register()->Schedule(Priority::Normal);
        const bool isSettled = WaitWhileDelivering([this] {
            return m_trace->IsDrained() &&
                   std::all_of(m_bundles.begin(), m_bundles.end(), [](const Bundle& bundle) {
                       return bundle.Register()->GetState().status == Status::Available;
                   });
        });
        EXPECT_TRUE(isSettled);
        m_tally.settled.Add();
    }

    template <typename Condition>
    static bool WaitWhileDelivering(Condition condition) {
        return WaitUntil(
            [&condition] {
                QCoreApplication::processEvents();
                return condition();
            },
            kRestLimit);
    }

    void ExpectTruthAtRest() {
        m_world->ExpectNothingCut();
        const Descriptors files = AllFiles();
        const std::vector<TraceRecorder::Records> records = m_trace->ByThread();
        Add(ExpectEndsFitBeginnings(records));
        const auto histories =
            FollowDescriptors(files, {files.begin() + kMainFiles, files.end()}, records);
        std::map<const ResourceDescriptor*, State> states;
        for (std::size_t i = 0; i < files.size(); ++i) {
            states[files[i]] = m_bundles[i].Register()->GetState();
            const History& history = histories.at(files[i]);
            ExpectFits(*files[i], states[files[i]], history);
            Add(history, i < kMainFiles);
            m_tally.files.Add(World::IsPresent(*files[i]) ? 1 : 0);
        }
        for (const Bundle& bundle : m_bundles) {
            std::vector<State> members;
            for (const ResourceDescriptor* file : bundle.descriptor.descriptors)
                members.push_back(states[file]);
            ExpectSame(bundle.Register()->GetState(), Recomputed(members), "a bundle");
            m_tally.mixedBundles.Add(AreMixed(members) ? 1 : 0);
            m_scene.ExpectTruth(*bundle.Register(), m_tally.wholeAtRest);
        }
        if (m_oneWorker)
            ExpectLastStatusesAreFinal();
    }

    void Add(const StepsEnded& steps) {
        m_tally.checks.Add(steps.checks);
        m_tally.downloads.Add(steps.downloads);
        m_tally.statusNotifications.Add(steps.statusNotifications);
        m_tally.progressNotifications.Add(steps.progressNotifications);
    }

    void Add(const History& history, bool isRetried) {
        m_tally.generalErrors.Add(history.FailuresOf(Error::GeneralError));
        m_tally.cancellations.Add(history.FailuresOf(Error::Cancelled));
        m_tally.corruptFiles.Add(history.FailuresOf(Error::Corrupted));
        m_tally.lostConnections.Add(history.FailuresOf(Error::InternetConnectionLost));
        m_tally.outcomes.Add(history.outcomes);
        m_tally.retries.Add(history.retries);
        (isRetried ? m_tally.exhausted : m_tally.neverRetried).Add(history.unretriedFailures);
    }

    static bool AreMixed(const std::vector<State>& members) {
        return std::any_of(members.begin(), members.end(), [&](const State& member) {
            return member.status != members.front().status;
        });
    }

    /// That the state of a resource is what its last check has left.
    void ExpectFits(const ResourceDescriptor& file, const State& state, const History& history) {
        const std::string& name = file.relativePath;
        // Scheduling may have made it so without a check.
        if (file.checkOnSchedule == 1 && state.status == Status::Available)
            return;
        if (history.checks == 0) {
            ExpectSame(state, State(), name);
            m_tally.untouched.Add();
            return;
        }
        EXPECT_TRUE(state.status == Status::Available || state.status == Status::Error) << name;
        // Which one of several checks at once had the last word is not written down.
        if (history.lastCheckOverlapped)
            return;
        ExpectSame(state, history.state, name);
        m_tally.lastStates.Add();
        // An attempt that waits for the temporary path has removed nothing yet when it is
        // cancelled.
        const bool sharesTemporaryPath = file.userData < 2;
        const bool isGone = state.error == Error::GeneralError ||
                            (state.error == Error::Cancelled && !sharesTemporaryPath);
        if (!isGone)
            return;
        EXPECT_FALSE(World::IsPresent(file)) << name;
        m_tally.absences.Add();
    }

    /// Of bundles that only the one worker tells of changes.
    void ExpectLastStatusesAreFinal() {
        for (const std::unique_ptr<Observer>& watcher : m_watchers) {
            const auto& files = watcher->Resource().GetDescriptor()->descriptors;
            if (std::any_of(files.begin(), files.end(),
                            [](const auto* file) { return file->checkOnSchedule == 1; }))
                continue;
            EXPECT_EQ(watcher->LastStatus().value_or(Status::Waiting),
                      watcher->Resource().GetState().status);
            m_tally.lastStatuses.Add(watcher->LastStatus() ? 1 : 0);
        }
    }

    const std::uint64_t m_seed;
    const std::size_t m_number;
    Random m_random;
    /// Otherwise it comes to rest by itself.
    const bool m_aborts;
    bool m_oneWorker = false;
    const std::shared_ptr<World> m_world;
    const std::shared_ptr<TraceRecorder> m_trace = std::make_shared<TraceRecorder>(AllFiles());
    Tally& m_tally;
    std::deque<Bundle> m_bundles;
    ResourceDownloadManager m_manager;
    const Scene m_scene{*m_world, *m_trace, m_tally, m_manager, m_bundles};
    std::vector<std::unique_ptr<Observer>> m_watchers;
};

/// What a process has that is to be given back.
struct Level {
    std::size_t descriptors = 0;
    std::size_t threads = 0;
    std::size_t memory = 0;

    static Level Now() {
        Level level;
        level.descriptors = static_cast<std::size_t>(
            std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
        level.threads = ThreadsOfThisProcess().size();
        if (!kSanitized) {
            ::malloc_trim(0);
            const auto heap = ::mallinfo2();
            level.memory = heap.uordblks + heap.hblkhd;
        }
        return level;
    }

    bool IsNotAbove(const Level& other) const {
        return descriptors <= other.descriptors && threads <= other.threads &&
               memory <= other.memory + kMemoryBytes;
    }
};

std::ostream& operator<<(std::ostream& stream, const Level& level) {
    return stream << level.descriptors << " descriptors, " << level.threads << " threads, "
                  << level.memory << " bytes";
}

std::uint64_t Seed() {
    const char* given = std::getenv("HALVEX_SEED");
    return given != nullptr ? std::stoull(given) : std::random_device()();
}

std::chrono::duration<double> DurationOfATest() {
    const char* seconds = std::getenv("HALVEX_RANDOM_SECONDS");
    return std::chrono::duration<double>(seconds != nullptr ? std::stod(seconds) : 2);
}

/// Whether the parallel executor is used, and whether notifications come through Qt.
class RandomOperations : public testing::TestWithParam<std::tuple<bool, bool>> {
protected:
    RandomOperations() {
        // The lock of the log would put the library's threads in order.
        FLAGS_minloglevel = google::GLOG_FATAL;
        std::cout << "HALVEX_SEED=" << seed << std::endl;
        RecordProperty("seed", std::to_string(seed));
    }
    ~RandomOperations() override { FLAGS_minloglevel = m_logLevelBefore; }

    void RunRound(std::size_t number) {
        std::ostringstream name;
        name << "round " << number << " of HALVEX_SEED=" << seed;
        const Watchdog watchdog(name.str());
        ResourceDownloadManager::Params params;
        std::tie(params.useParallelExecutor, params.useQtTaskQueue) = GetParam();
        Round(params, versions, seed, number, tally).Run();
        // Not all failures are on a thread that could say so.
        if (HasFailure())
            ADD_FAILURE() << "in " << name.str();
    }

    const std::uint64_t seed = Seed();
    const std::vector<Versions> versions = MakeVersions(kMainFiles + kInitFiles, seed);
    Tally tally;

private:
    const int m_logLevelBefore = FLAGS_minloglevel;
};

std::string NameOf(const testing::TestParamInfo<std::tuple<bool, bool>>& info) {
    const auto [parallel, qt] = info.param;
    return std::string(parallel ? "Parallel" : "Blocking") + (qt ? "Qt" : "Immediate");
}

INSTANTIATE_TEST_SUITE_P(Kinds, RandomOperations,
                         testing::Combine(testing::Bool(), testing::Bool()), &NameOf);

} // namespace

TEST_P(RandomOperations, LeaveNothingUntrueUnfinishedOrOpen) {
    const auto end = Clock::now() + DurationOfATest();
    Level before;
    std::size_t rounds = 0;
    // A loaded machine does little in a short time: what is still missing is given rounds.
    const auto isOver = [&] {
        return rounds > kWarmUpRounds && Clock::now() >= end &&
               (tally.Missing().empty() || rounds >= kEnoughRounds);
    };
    for (; !HasFailure() && !isOver(); ++rounds) {
        RunRound(rounds);
        if (rounds < kWarmUpRounds) {
            before = Level::Now();
            continue;
        }
        EXPECT_TRUE(WaitUntil([&] { return Level::Now().IsNotAbove(before); }))
            << Level::Now() << " after round " << rounds << ", " << before << " before";
        tally.levels.Add();
    }
    std::cout << rounds << " rounds, " << tally << std::endl;
    EXPECT_THAT(tally.Missing(), testing::IsEmpty());
}

} // namespace Halvex::Testing
