#include "Foundation/Mutex.h"
#include "integration/Application.h"
#include "support/ChildProcess.h"
#include "support/Sanitizers.h"
#include "support/ScriptedHttpServer.h"
#include "support/SilentPort.h"
#include "support/SleepingThreads.h"
#include "support/TemporaryFolder.h"
#include "support/TestAuthority.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <execinfo.h>
#include <malloc.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Halvex::App {
namespace {

using namespace std::chrono_literals;
using Testing::Application;
using Testing::kSanitized;
using testing::Lt;
using Testing::Outcome;
using Testing::ReadFile;
using Testing::Reply;
using Testing::ScriptedHttpServer;
using Testing::WaitUntil;
using Clock = std::chrono::steady_clock;
using Priority = ISchedulableResource::SchedulePriority;

// Shutting down again and again

/// Ends the process, with the stacks of all its threads on the error output, when what it watches
/// takes too long between two signs of life.
class Watchdog {
public:
    explicit Watchdog(Clock::duration limit)
        : m_limit(limit.count()), m_lastSign(Now()), m_thread([this] { Watch(); }) {}
    ~Watchdog() {
        m_ended.Set();
        m_thread.join();
    }

    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    void SignOfLife() { m_lastSign = Now(); }

private:
    static Clock::rep Now() { return Clock::now().time_since_epoch().count(); }

    void Watch() {
        while (!m_ended.Wait(100ms)) {
            if (Now() - m_lastSign > m_limit)
                EndProcess();
        }
    }

    /// Called in each thread. Not all of this may be called by a signal handler; it is the last
    /// thing that the process does.
    static void WriteStack(int) {
        std::array<void*, 64> frames;
        const int count = ::backtrace(frames.data(), static_cast<int>(frames.size()));
        ::dprintf(STDERR_FILENO, "thread %d:\n", Testing::ThisThread());
        ::backtrace_symbols_fd(frames.data(), count, STDERR_FILENO);
        s_written = true;
    }

    [[noreturn]] static void EndProcess() {
        std::signal(SIGUSR2, &WriteStack);
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
            s_written = false;
            ::syscall(SYS_tgkill, ::getpid(), std::stoi(entry.path().filename().string()), SIGUSR2);
            WaitUntil([] { return s_written.load(); }, 1s);
        }
        ::dprintf(STDERR_FILENO, "it hangs\n");
        std::abort();
    }

    static inline std::atomic<bool> s_written{false};
    const Clock::rep m_limit;
    std::atomic<Clock::rep> m_lastSign;
    Testing::Event m_ended;
    std::thread m_thread;
};

TEST(WatchdogDeathTest, ShowsTheStacksOfAllThreads) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            const Watchdog watchdog(10ms);
            Testing::Event never;
            std::thread other([&] { never.Wait(); });
            never.Wait();
        },
        "thread(.|\n)*thread(.|\n)*thread(.|\n)*it hangs");
}

std::uint64_t NumberFromEnvironment(const char* name, std::uint64_t otherwise) {
    const char* text = std::getenv(name);
    return text != nullptr ? std::stoull(text) : otherwise;
}

std::size_t Entries(const char* folder) {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

/// What a process holds that it can fail to give back.
struct Holdings {
    std::size_t descriptors = Entries("/proc/self/fd");
    std::size_t threads = Entries("/proc/self/task");
    std::int64_t bytes = ResidentBytes();

    static std::int64_t ResidentBytes() {
        ::malloc_trim(0);
        std::ifstream file("/proc/self/statm");
        std::int64_t all = 0;
        std::int64_t resident = 0;
        file >> all >> resident;
        return resident * ::sysconf(_SC_PAGESIZE);
    }
};

const std::string& Body() {
    static const std::string body = Testing::GeneratedBytes(0, 100'000);
    return body;
}

/// A file that an application asks for: the body, unless the server has other ideas.
struct ServedFile {
    const char* name;
    std::vector<Reply> replies;
};

std::vector<ServedFile> ServedFiles() {
    const Reply whole = Reply::Generated(Body().size());
    Reply cut = whole;
    Reply reset = whole;
    Reply versioned = whole;
    Reply chunked = whole;
    Reply stalled = whole;
    const Reply endless = Reply::Generated(10'000'000'000).Drip(4096, 1ms);
    return {{"whole", {whole}},
            {"chunked", {chunked.Chunked(1000)}},
            {"cut", {cut.CutAfter(50'000), whole}},
            {"reset", {reset.ResetAfter(50'000), whole}},
            {"resumed", {versioned.Header("ETag", "\"1\"").CutAfter(50'000)}},
            {"busy", {Reply::Status(503), whole}},
            {"missing", {Reply::Status(404)}},
            {"elsewhere", {Reply::Redirect("/whole")}},
            {"loop", {Reply::Redirect("/loop")}},
            {"noise", {Reply::Raw("\1\2\3")}},
            {"silent", {Reply::Silence()}},
            {"headStalls", {Reply::Raw("HTTP/1.1 200 OK\r\nContent-Le").StallAt(26)}},
            {"bodyStalls", {stalled.StallAt(50'000)}},
            {"endless", {endless}}};
}

/// Whether the parallel executor is used is the parameter.
class Shutdown : public testing::TestWithParam<bool> {
protected:
    using Random = std::mt19937_64;

    static std::size_t Below(std::size_t end, Random& random) {
        return std::uniform_int_distribution<std::size_t>(0, end - 1)(random);
    }

    static Application::Params Parameters(Random& random) {
        Application::Params params;
        params.useParallelExecutor = GetParam();
        params.threadCount = 1 + Below(4, random);
        params.useQtTaskQueue = Below(2, random) == 0;
        return params;
    }

    /// So many applications, one after the other.
    void RunAndExpectEverythingBack(std::uint64_t rounds);

    /// An application starts some downloads, aborts them at some moment and ends.
    void RunOnce(Random& random) {
        ScriptedHttpServer server;
        Application application(Parameters(random));
        const std::vector<ServedFile> served = ServedFiles();
        std::set<const ResourceDescriptor*> files;
        for (std::size_t count = Below(6, random) + 1; count != 0; --count) {
            const ServedFile& file = served[Below(served.size(), random)];
            server.On(std::string("/") + file.name, file.replies);
            ResourceDescriptor& descriptor =
                application.AddFile(server.Url(""), std::to_string(count));
            descriptor.relativePath = file.name;
            if (Below(10, random) == 0)
                descriptor.baseUrl = "http://" + m_deadPort.Address();
            files.insert(&descriptor);
        }
        server.On("/whole", served.front().replies);

        const bool ownThread = Below(2, random) == 0;
        const bool startsFirst = Below(2, random) == 0;
        if (ownThread && startsFirst)
            application.manager.StartEventLoopThread();
        IRemoteResource* resource = application.Schedule(files);
        const Testing::StatusLog log(resource);
        std::thread worker;
        if (!ownThread)
            worker = std::thread([&] { application.manager.ProcessCurrentQueue(); });
        else if (!startsFirst)
            application.manager.StartEventLoopThread();

        // At most an eighth of a second, however long each turn of a loaded machine takes.
        const std::chrono::microseconds moment(Below(std::size_t{1} << Below(18, random), random));
        const auto abortAt = Clock::now() + moment;
        while (Clock::now() < abortAt &&
               resource->GetState().status != IRemoteResource::DownloadStatus::Available)
            std::this_thread::yield();
        std::thread second;
        if (Below(4, random) == 0)
            second = std::thread([&] { application.manager.Abort(); });
        application.manager.Abort();
        if (second.joinable())
            second.join();
        if (worker.joinable())
            worker.join();
        if (Below(2, random) == 0)
            QCoreApplication::processEvents();
        ExpectWholeFilesOnly(files);
    }

    static void ExpectWholeFilesOnly(const std::set<const ResourceDescriptor*>& files) {
        for (const ResourceDescriptor* file : files) {
            EXPECT_FALSE(file->tempPath.exists());
            if (file->downloadPath.exists()) {
                EXPECT_TRUE(ReadFile(file->downloadPath) == Body());
            }
        }
    }

    /// Nobody listens there.
    const Testing::LoopbackPort m_deadPort;
};

INSTANTIATE_TEST_SUITE_P(Executors, Shutdown, testing::Bool(), Testing::ExecutorName);

void Shutdown::RunAndExpectEverythingBack(std::uint64_t rounds) {
    constexpr std::uint64_t kWarmUp = 30;
    // 10,000 rounds were seen to add 3 MiB.
    constexpr std::int64_t kMostGrowthBytes = 16 * 1024 * 1024;
    const std::uint64_t seed = NumberFromEnvironment("HALVEX_SEED", std::random_device{}());
    std::cout << "HALVEX_SEED=" << seed << std::endl;
    std::optional<Holdings> before;
    {
        Watchdog watchdog(60s);
        for (std::uint64_t round = 0; round < rounds; ++round) {
            if (round == std::min(kWarmUp, rounds - 1))
                before.emplace();
            SCOPED_TRACE("HALVEX_SEED=" + std::to_string(seed + round));
            Random random(seed + round);
            RunOnce(random);
            watchdog.SignOfLife();
            ASSERT_FALSE(HasFailure());
        }
    }
    // The watchdog's was counted. One that has been joined may be seen for a moment longer.
    EXPECT_TRUE(WaitUntil([&] { return Holdings().threads + 1 <= before->threads; }));
    const Holdings after;
    EXPECT_EQ(after.descriptors, before->descriptors);
    std::cout << "resident: " << before->bytes << " -> " << after.bytes << std::endl;
    if (!kSanitized) {
        EXPECT_THAT(after.bytes - before->bytes, Lt(kMostGrowthBytes));
    }
}

TEST_P(Shutdown, AtAnyMomentEndsAndGivesEverythingBack) {
    RunAndExpectEverythingBack(NumberFromEnvironment("HALVEX_SHUTDOWNS", 100));
}

TEST_P(Shutdown, TenThousandTimesEndsAndGivesEverythingBack) {
    RunAndExpectEverythingBack(10'000);
}

// In time

/// Where the files are that an application has begun to download when it is aborted.
struct Place {
    ScriptedHttpServer server;
    ScriptedHttpServer secure{Testing::TestAuthority::ForLoopback()};
    const Testing::LoopbackPort deadPort;
    const Testing::SilentPort silentPort;
    std::string baseUrl = server.Url("");

    /// What all paths of the fronts and of the queue have.
    void Serve(const std::vector<Reply>& replies) {
        for (const char* path : {"/0", "/1", "/2", "/3", "/queued"})
            server.On(path, replies);
    }
};

/// The files that are being downloaded, one for each thread.
struct Front {
    Place& place;
    Application& application;
    IRemoteResource* resource;
    std::size_t size;
};

/// One thing that a server does, and how to tell that it is doing it.
struct Hostility {
    const char* name;
    std::function<void(Place&)> prepare;
    std::function<bool(const Front&)> isUnderWay;
    /// Whether what is downloaded meanwhile may be more than there is room for in memory.
    bool isBig = false;
};

bool IsRequested(const Front& front) {
    return front.place.server.Requests().size() >= front.size;
}
bool IsConnected(const Front& front) {
    return front.place.server.ConnectionCount() >= static_cast<int>(front.size);
}
bool HasProgress(const Front& front) {
    return front.resource->GetState().progress > 0;
}
bool HasFailed(const Front& front) {
    return front.resource->GetState().status == IRemoteResource::DownloadStatus::Error;
}
bool HasTemporaryFiles(const Front& front) {
    return Entries(front.application.folder.Path().c_str()) >= front.size;
}
bool IsGoingInCircles(const Front& front) {
    return front.place.server.Requests().size() >= 3 * front.size;
}

/// A body that is cut behind each byte, where the client may ask for the rest.
std::vector<Reply> OneByteAtATime() {
    constexpr std::size_t kSize = 1000;
    std::vector<Reply> replies{
        Reply::Ok(std::string(kSize, 'x')).Header("ETag", "\"1\"").CutAfter(1)};
    for (std::size_t sent = 1; sent < kSize; ++sent)
        replies.push_back(Reply::Status(206, "x")
                              .Announcing(kSize - sent)
                              .Header("ETag", "\"1\"")
                              .Header("Content-Range", "bytes " + std::to_string(sent) + "-" +
                                                           std::to_string(kSize - 1) + "/" +
                                                           std::to_string(kSize)));
    return replies;
}

const std::vector<Hostility>& Hostilities() {
    const auto serves = [](const std::vector<Reply>& replies) {
        return [replies](Place& place) {
            place.Serve(replies);
        };
    };
    constexpr std::uint64_t kEndless = 10'000'000'000;
    static const std::vector<Hostility> all{
        {"Silence", serves({Reply::Silence()}), IsRequested},
        {"StallInTheHead", serves({Reply::Raw("HTTP/1.1 200 OK\r\n").StallAt(17)}), IsRequested},
        {"StallInTheBody", serves({Reply::Generated(kEndless).StallAt(100'000)}), HasProgress},
        {"Drip", serves({Reply::Generated(kEndless).Drip(100, 10ms)}), HasProgress},
        {"DrippingHead", serves({Reply::Flood("HTTP/1.1 200 OK\r\n", "X-A: b\r\n").Drip(8, 10ms)}),
         IsRequested},
        {"EndlessBody", serves({Reply::Generated(kEndless)}), HasProgress, true},
        {"EndlessErrorPage", serves({Reply::Flood("HTTP/1.1 500 Oh\r\n\r\n", "no").Drip(2, 10ms)}),
         IsRequested},
        {"Redirects",
         [](Place& place) {
             for (const char* path : {"/0", "/1", "/2", "/3", "/queued"})
                 place.server.On(path, Reply::Redirect(path));
         },
         IsGoingInCircles},
        {"BusyForEver", serves({Reply::Status(503)}), IsGoingInCircles},
        {"ResumeLoop", serves(OneByteAtATime()), IsGoingInCircles},
        {"CutLoop",
         serves({Reply::Ok("hello").Header("ETag", "\"1\"").CutAfter(3), Reply::Raw("")}),
         IsGoingInCircles},
        {"RefusedPort", [](Place& place) { place.baseUrl = "http://" + place.deadPort.Address(); },
         HasFailed},
        {"FullListenQueue",
         [](Place& place) { place.baseUrl = "http://" + place.silentPort.Address(); },
         HasTemporaryFiles},
        {"StallInTheHandshake",
         [](Place& place) {
             place.server.AnswerAnything(Reply::Silence());
             place.baseUrl = "https://127.0.0.1:" + std::to_string(place.server.Port());
         },
         IsConnected},
        {"UntrustedServer", [](Place& place) { place.baseUrl = place.secure.Url(""); }, HasFailed},
    };
    return all;
}

/// What the server does, and whether the parallel executor is used.
class AbortWithAQueue : public testing::TestWithParam<std::tuple<const Hostility*, bool>> {
protected:
    AbortWithAQueue() {
        if (!std::get<0>(GetParam())->isBig)
            m_inMemory.emplace();
    }

    static constexpr std::size_t kThreads = 4;
    static constexpr std::size_t kQueuedForParallel = 10'000;
    /// The blocking executor goes through what is queued, twice, as if nothing had happened.
    static constexpr std::size_t kQueuedForBlocking = 1'000;

    /// How long Abort takes while the server does what it does.
    static std::chrono::milliseconds TimeAbort() {
        const Hostility& hostility = *std::get<0>(GetParam());
        const bool isParallel = std::get<1>(GetParam());
        Place place;
        hostility.prepare(place);
        Application::Params params;
        params.useParallelExecutor = isParallel;
        params.threadCount = kThreads;
        Application application(params);
        std::set<const ResourceDescriptor*> fronts;
        const std::size_t frontSize = isParallel ? kThreads : 1;
        while (fronts.size() < frontSize)
            fronts.insert(&application.AddFile(place.baseUrl, std::to_string(fronts.size())));
        std::set<const ResourceDescriptor*> queued;
        while (queued.size() < (isParallel ? kQueuedForParallel : kQueuedForBlocking)) {
            ResourceDescriptor& file =
                application.AddFile(place.baseUrl, "queued" + std::to_string(queued.size()));
            file.relativePath = "queued";
            queued.insert(&file);
        }
        const auto scheduler = application.manager.GetMainScheduler();
        IRemoteResource* resource =
            scheduler->RegisterAutoSchedule(&application.AddBundle(fronts), Priority::High);
        scheduler->RegisterAutoSchedule(&application.AddBundle(queued), Priority::Normal);
        application.manager.StartEventLoopThread();
        const Front front{place, application, resource, frontSize};
        EXPECT_TRUE(WaitUntil([&] { return hostility.isUnderWay(front); }));
        const std::chrono::milliseconds elapsed = application.TimedAbort();
        EXPECT_EQ(application.folder.List(), "");
        return elapsed;
    }

private:
    /// The temporary files of what is queued come and go while Abort goes through it.
    std::optional<Testing::FoldersInMemory> m_inMemory;
};

std::string NameOf(const testing::TestParamInfo<AbortWithAQueue::ParamType>& info) {
    const auto& [hostility, isParallel] = info.param;
    return std::string(hostility->name) + (isParallel ? "_Parallel" : "_Blocking");
}

std::vector<const Hostility*> PointersToHostilities() {
    std::vector<const Hostility*> pointers;
    for (const Hostility& hostility : Hostilities())
        pointers.push_back(&hostility);
    return pointers;
}

INSTANTIATE_TEST_SUITE_P(Servers, AbortWithAQueue,
                         testing::Combine(testing::ValuesIn(PointersToHostilities()),
                                          testing::Bool()),
                         &NameOf);

TEST_P(AbortWithAQueue, TakesTwoSecondsAtMost) {
    // Two of three, so that it is not what else the machine does that is measured. The sanitizers
    // make everything several times slower.
    constexpr int kMostMilliseconds = kSanitized ? 10'000 : 2000;
    int prompt = 0;
    int slow = 0;
    while (prompt < 2 && slow < 2)
        ++(TimeAbort().count() < kMostMilliseconds ? prompt : slow);
    EXPECT_EQ(prompt, 2);
}

// In every order

/// What an observer hears, and what it hears after it is to hear nothing any more.
struct Ear {
    using Bundle = const ResourceDescriptorBundle*;

    void Leave(Bundle bundle) {
        const MutexLock lock(mutex);
        left.insert(bundle);
    }
    bool IsLate(Bundle bundle) {
        const MutexLock lock(mutex);
        return closed || left.count(bundle) != 0;
    }

    Mutex mutex;
    /// The bundles that it is not registered with any more.
    std::set<Bundle> left HALVEX_GUARDED_BY(mutex);
    std::atomic<bool> closed{false};
    std::atomic<int> calls{0};
    std::atomic<int> lateCalls{0};
};

/// An observer that can be ended in both ways.
class Observer {
public:
    /// Told of all progress, and however little.
    Observer() : m_callback(std::make_unique<RemoteResourceEventHandlerCallback>()) {
        IRemoteResource::NotificationParams params;
        params.progressStep = 0;
        m_callback->SetNotificationParams(params);
        m_callback->SetCallback([ear = m_ear](IRemoteResource::State, Ear::Bundle bundle) {
            ++(ear->IsLate(bundle) ? ear->lateCalls : ear->calls);
        });
    }

    void RegisterWithin(IRemoteResource* resource) { m_callback->RegisterWithin(resource); }
    void Destroy() {
        m_callback.reset();
        m_ear->closed = true;
    }
    void UnregisterWithin(IRemoteResource* resource) {
        resource->UnregisterEventHandler(m_callback.get());
        m_ear->Leave(resource->GetDescriptor());
    }

    /// While it lives: waits until it is told something more.
    bool IsTold() const {
        const int before = m_ear->calls;
        return WaitUntil([&] {
            QCoreApplication::processEvents();
            return m_ear->calls != before;
        });
    }
    int Calls() const { return m_ear->calls; }
    int LateCalls() const { return m_ear->lateCalls; }

private:
    const std::shared_ptr<Ear> m_ear = std::make_shared<Ear>();
    std::unique_ptr<RemoteResourceEventHandlerCallback> m_callback;
};

/// A manager that ends before what it was given.
class Lifetimes {
public:
    explicit Lifetimes(const Application::Params& params) {
        m_server.On("/file", Reply::Generated(10'000'000'000).Drip(1000, 1ms));
        m_manager.emplace();
        m_manager->Init(params, {});
    }
    ~Lifetimes() {
        if (m_manager)
            m_manager->Abort();
    }

    Lifetimes(const Lifetimes&) = delete;
    Lifetimes& operator=(const Lifetimes&) = delete;

    ResourceDownloadManager& Manager() { return *m_manager; }
    void DestroyManager() { m_manager.reset(); }

    /// A bundle of one file that takes for ever.
    const ResourceDescriptorBundle& AddBundle() {
        ResourceDescriptor& file = m_files.emplace_back();
        file.baseUrl = m_server.Url("");
        file.relativePath = "file";
        file.downloadPath = m_folder / std::to_string(m_files.size());
        file.localPath = file.downloadPath;
        file.tempPath = ioPath(file.downloadPath.string() + ".part");
        file.validationMode = 2;
        return m_bundles.emplace_back(ResourceDescriptorBundle{{&file}});
    }
    /// The file is there, and that is seen when it is scheduled.
    const ResourceDescriptorBundle& AddPresentBundle() {
        const ResourceDescriptorBundle& bundle = AddBundle();
        m_files.back().checkOnSchedule = 1;
        m_folder.Write(std::to_string(m_files.size()), "present");
        return bundle;
    }

    std::size_t RequestCount() const { return m_server.Requests().size(); }

private:
    ScriptedHttpServer m_server;
    const Testing::TemporaryFolder m_folder;
    std::deque<ResourceDescriptor> m_files;
    std::deque<ResourceDescriptorBundle> m_bundles;
    std::optional<ResourceDownloadManager> m_manager;
};

/// The moments between the things that happen to a manager, in their order.
enum class Moment { BeforeScheduling, DuringTheTransfer, AfterAbort, AfterTheManager };

struct ObserversLife {
    Moment begin;
    Moment end;
    bool isDestroyed;
    bool usesParallelExecutor;
    bool usesQtTaskQueue;
};

/// All that the interface allows: no observer may be registered when the manager is destroyed.
std::vector<ObserversLife> LegalLives() {
    using M = Moment;
    std::vector<ObserversLife> lives;
    for (const auto& [begin, end] :
         {std::pair(M::BeforeScheduling, M::BeforeScheduling),
          std::pair(M::BeforeScheduling, M::DuringTheTransfer),
          std::pair(M::BeforeScheduling, M::AfterAbort),
          std::pair(M::DuringTheTransfer, M::DuringTheTransfer),
          std::pair(M::DuringTheTransfer, M::AfterAbort), std::pair(M::AfterAbort, M::AfterAbort),
          std::pair(M::AfterTheManager, M::AfterTheManager)}) {
        for (int bits = 0; bits < 8; ++bits)
            lives.push_back({begin, end, (bits & 1) != 0, (bits & 2) != 0, (bits & 4) != 0});
    }
    return lives;
}

std::string NameOfLife(const testing::TestParamInfo<ObserversLife>& info) {
    constexpr std::array kNames{"BeforeScheduling", "DuringTheTransfer", "AfterAbort",
                                "AfterTheManager"};
    const ObserversLife& life = info.param;
    return std::string("Registered") + kNames.at(static_cast<std::size_t>(life.begin)) +
           (life.isDestroyed ? "_Destroyed" : "_Unregistered") +
           kNames.at(static_cast<std::size_t>(life.end)) +
           (life.usesParallelExecutor ? "_Parallel" : "_Blocking") +
           (life.usesQtTaskQueue ? "_Qt" : "_Immediate");
}

void PrintTo(const ObserversLife& life, std::ostream* stream) {
    *stream << NameOfLife({life, 0});
}

class ObserverThatEnds : public testing::TestWithParam<ObserversLife> {
protected:
    static Application::Params Parameters() {
        Application::Params params;
        params.useParallelExecutor = GetParam().usesParallelExecutor;
        params.useQtTaskQueue = GetParam().usesQtTaskQueue;
        return params;
    }

    /// What happens to the observer at a moment. With the event loop, notifications are on their
    /// way to it when it ends.
    void Pass(Moment moment) {
        const ObserversLife& life = GetParam();
        if (moment == life.begin) {
            m_observer.RegisterWithin(m_resource);
            m_observer.RegisterWithin(m_other);
        }
        if (moment != life.end)
            return;
        if (life.isDestroyed) {
            m_observer.Destroy();
        } else {
            m_observer.UnregisterWithin(m_resource);
            m_observer.UnregisterWithin(m_other);
        }
    }

    bool MovesOn() const {
        const double before = m_resource->GetState().progress;
        return Testing::WaitForState(m_resource,
                                     [&](const auto& state) { return state.progress > before; });
    }

    Lifetimes m_lifetimes{Parameters()};
    const std::shared_ptr<IRemoteResourceScheduler> m_scheduler =
        m_lifetimes.Manager().GetMainScheduler();
    IRemoteResource* const m_resource = m_scheduler->Register(&m_lifetimes.AddBundle());
    IRemoteResource* const m_other = m_scheduler->Register(&m_lifetimes.AddBundle());
    Observer m_observer;
};

INSTANTIATE_TEST_SUITE_P(Lives, ObserverThatEnds, testing::ValuesIn(LegalLives()), &NameOfLife);

TEST_P(ObserverThatEnds, HearsNothingAfterwards) {
    Pass(Moment::BeforeScheduling);
    m_resource->Schedule(Priority::High);
    m_other->Schedule(Priority::Low);
    m_lifetimes.Manager().StartEventLoopThread();
    ASSERT_TRUE(MovesOn());
    Pass(Moment::DuringTheTransfer);
    EXPECT_TRUE(MovesOn());
    m_lifetimes.Manager().Abort();
    Pass(Moment::AfterAbort);
    QCoreApplication::processEvents();
    m_lifetimes.DestroyManager();
    Pass(Moment::AfterTheManager);
    QCoreApplication::processEvents();
    EXPECT_EQ(m_observer.LateCalls(), 0);
}

/// Three observers of two bundles. The parameter is the order in which they end.
class ObserversThatEnd : public testing::TestWithParam<std::array<std::size_t, 3>> {};

std::string NameOfOrder(const testing::TestParamInfo<std::array<std::size_t, 3>>& info) {
    std::string name;
    for (const std::size_t index : info.param)
        name += std::to_string(index + 1);
    return name;
}

INSTANTIATE_TEST_SUITE_P(Orders, ObserversThatEnd,
                         testing::ValuesIn(std::vector<std::array<std::size_t, 3>>{
                             {0, 1, 2}, {0, 2, 1}, {1, 0, 2}, {1, 2, 0}, {2, 0, 1}, {2, 1, 0}}),
                         &NameOfOrder);

TEST_P(ObserversThatEnd, DoSoInAnyOrderAndLeaveTheOthersInPeace) {
    Application::Params params;
    params.useParallelExecutor = true;
    Lifetimes lifetimes(params);
    const auto scheduler = lifetimes.Manager().GetMainScheduler();
    IRemoteResource* first = scheduler->Register(&lifetimes.AddBundle());
    IRemoteResource* second = scheduler->Register(&lifetimes.AddBundle());
    std::array<Observer, 3> observers;
    observers[0].RegisterWithin(first);
    for (Observer& observer : observers)
        observer.RegisterWithin(second);
    observers[1].RegisterWithin(first);
    first->Schedule(Priority::Normal);
    second->Schedule(Priority::Normal);
    lifetimes.Manager().StartEventLoopThread();
    std::vector<std::size_t> left(GetParam().begin(), GetParam().end());
    while (!left.empty()) {
        for (const std::size_t index : left)
            EXPECT_TRUE(observers.at(index).IsTold());
        observers.at(left.front()).Destroy();
        left.erase(left.begin());
    }
    lifetimes.Manager().Abort();
    for (const Observer& observer : observers)
        EXPECT_EQ(observer.LateCalls(), 0);
}

/// What a scheduler has is there for as long as the scheduler is, but nobody works on it any more.
/// Whether it is the one for what is needed at start-up, and whether notifications go through the
/// event loop, are the parameters.
class SchedulerBeyondItsManager : public testing::TestWithParam<std::tuple<bool, bool>> {
protected:
    SchedulerBeyondItsManager() {
        m_resource->Schedule(Priority::Normal);
        m_lifetimes.Manager().StartEventLoopThread();
        // Only a task of the main scheduler wakes the loop: this one was there before it.
        EXPECT_TRUE(Testing::WaitForProgress(m_resource));
        m_lifetimes.Manager().Abort();
        m_lifetimes.DestroyManager();
        m_requestsBefore = m_lifetimes.RequestCount();
    }

    static Application::Params Parameters() {
        Application::Params params;
        params.useParallelExecutor = true;
        params.useQtTaskQueue = std::get<1>(GetParam());
        return params;
    }

    std::shared_ptr<IRemoteResourceScheduler> Scheduler() {
        const bool isForStart = std::get<0>(GetParam());
        return isForStart ? m_lifetimes.Manager().GetInitScheduler()
                          : m_lifetimes.Manager().GetMainScheduler();
    }

    Lifetimes m_lifetimes{Parameters()};
    std::shared_ptr<IRemoteResourceScheduler> m_scheduler = Scheduler();
    const ResourceDescriptorBundle& m_bundle = m_lifetimes.AddBundle();
    IRemoteResource* const m_resource = m_scheduler->Register(&m_bundle);
    std::size_t m_requestsBefore = 0;
};

std::string NameOfScheduler(const testing::TestParamInfo<std::tuple<bool, bool>>& info) {
    const auto& [isForStart, usesQtTaskQueue] = info.param;
    return std::string(isForStart ? "Init" : "Main") + (usesQtTaskQueue ? "_Qt" : "_Immediate");
}

INSTANTIATE_TEST_SUITE_P(Schedulers, SchedulerBeyondItsManager,
                         testing::Combine(testing::Bool(), testing::Bool()), &NameOfScheduler);

TEST_P(SchedulerBeyondItsManager, KnowsWhatItWasGiven) {
    EXPECT_EQ(m_scheduler->Register(&m_bundle), m_resource);
    EXPECT_EQ(m_scheduler->RegisterAutoSchedule(&m_bundle, Priority::Low), m_resource);
    EXPECT_EQ(m_resource->GetDescriptor(), &m_bundle);
    EXPECT_EQ(Outcome(m_resource->GetState()), "Error Cancelled");
}

TEST_P(SchedulerBeyondItsManager, TakesNewBundles) {
    IRemoteResource* resource = m_scheduler->Register(&m_lifetimes.AddBundle());
    EXPECT_NE(resource, m_resource);
    EXPECT_EQ(Outcome(resource->GetState()), "Waiting NoError");
}

TEST_P(SchedulerBeyondItsManager, QueuesChecksThatNobodyRuns) {
    const std::set<pid_t> threads = Testing::ThreadsOfThisProcess();
    IRemoteResource* resource =
        m_scheduler->RegisterAutoSchedule(&m_lifetimes.AddBundle(), Priority::High);
    resource->Schedule(Priority::Normal);
    m_resource->Schedule(Priority::Low);
    QCoreApplication::processEvents();
    // Without a thread that works on them, nothing is to be waited for.
    EXPECT_THAT(Testing::ThreadsOfThisProcess(), testing::IsSubsetOf(threads));
    EXPECT_EQ(Outcome(resource->GetState()), "Waiting NoError");
    EXPECT_EQ(Outcome(m_resource->GetState()), "Error Cancelled");
    EXPECT_EQ(m_lifetimes.RequestCount(), m_requestsBefore);
}

TEST_P(SchedulerBeyondItsManager, StillSeesAFileThatIsThere) {
    IRemoteResource* resource =
        m_scheduler->RegisterAutoSchedule(&m_lifetimes.AddPresentBundle(), Priority::Normal);
    EXPECT_EQ(Outcome(resource->GetState()), "Available NoError");
}

TEST_P(SchedulerBeyondItsManager, StillTellsObservers) {
    IRemoteResource* resource = m_scheduler->Register(&m_lifetimes.AddPresentBundle());
    Observer observer;
    observer.RegisterWithin(resource);
    QCoreApplication::processEvents();
    EXPECT_EQ(observer.Calls(), 1);
    resource->Schedule(Priority::Normal);
    QCoreApplication::processEvents();
    EXPECT_EQ(observer.Calls(), 2);
}

TEST_P(SchedulerBeyondItsManager, MayEndWithChecksAndNotificationsUnderWay) {
    IRemoteResource* resource = m_scheduler->Register(&m_lifetimes.AddPresentBundle());
    Observer observer;
    observer.RegisterWithin(resource);
    resource->Schedule(Priority::Normal);
    m_resource->Schedule(Priority::Normal);
    observer.Destroy();
    m_scheduler.reset();
    QCoreApplication::processEvents();
    EXPECT_EQ(observer.LateCalls(), 0);
}

} // namespace
} // namespace Halvex::App
