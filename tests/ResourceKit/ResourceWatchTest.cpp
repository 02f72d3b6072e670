#include "ResourceKit/ResourceWatch.h"

#include "ResourceDownloadManager/IRemoteResource.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "integration/Application.h"
#include "support/BackgroundCall.h"
#include "support/ScriptedHttpServer.h"
#include "support/SleepingThreads.h"
#include "support/TemporaryFolder.h"
#include "support/ThreadStarts.h"
#include "support/TimeLimit.h"
#include "support/Waiting.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <system_error>
#include <thread>
#include <utility>

#include <sys/stat.h>

namespace Halvex::Kit {
namespace {

using App::IRemoteResource;
using App::ISchedulableResource;
using App::ResourceDescriptor;
using Testing::AllSleep;
using Testing::Application;
using Testing::BackgroundCall;
using Testing::Event;
using Testing::LimitedThreadStarts;
using Testing::Reply;
using Testing::ScriptedHttpServer;
using Testing::TemporaryFolder;
using Testing::ThisThread;
using Testing::TimeLimit;
using Testing::WaitForState;
using Testing::WaitUntil;
using Answer = ResourceWatch::Answer;
using Clock = std::chrono::steady_clock;
using Errors = ResourceWatch::Errors;
using Status = IRemoteResource::DownloadStatus;

constexpr auto kNoDeadline = ResourceWatch::Deadline::max();
/// Long ago.
constexpr auto kPassed = ResourceWatch::Deadline{};

/// A bundle in a state of the test's choice. Whoever goes on asking it for too long fails the test,
/// and hears that it is available: that ends the waits that have missed their own end.
class FakeResource : public IRemoteResource {
public:
    /// Called inside GetState, before the state is read.
    std::function<void()> onGetState = [] {
    };

    void Set(Status status) { m_status = status; }
    int Questions() const { return m_questions; }

    ResourceDescriptor& AddFile(const ioPath& localPath) {
        ResourceDescriptor& descriptor = m_descriptors.emplace_back();
        descriptor.localPath = localPath;
        m_bundle.descriptors.insert(&descriptor);
        return descriptor;
    }

    State GetState() override {
        ++m_questions;
        onGetState();
        if (Clock::now() > m_end) {
            if (!m_isOverdue.exchange(true))
                ADD_FAILURE() << "asked for too long";
            return {Status::Available, DownloadError::NoError, 1.0};
        }
        return {m_status, DownloadError::NoError, 0.0};
    }
    const App::ResourceDescriptorBundle* GetDescriptor() override { return &m_bundle; }
    void Schedule(SchedulePriority) override {}
    void RegisterEventHandler(App::IRemoteResourceEventHandler*,
                              const NotificationParams&) override {
        ADD_FAILURE() << "deliveries may come late";
    }
    void UnregisterEventHandler(App::IRemoteResourceEventHandler*) override {}

private:
    std::atomic<Status> m_status{Status::Waiting};
    std::atomic<int> m_questions{0};
    std::atomic<bool> m_isOverdue{false};
    const Clock::time_point m_end = Clock::now() + Testing::kGenerousLimit;
    std::deque<ResourceDescriptor> m_descriptors;
    App::ResourceDescriptorBundle m_bundle;
};

class ResourceWatchTest : public testing::Test {
protected:
    ResourceWatchTest() { m_resource.AddFile(m_folder.Write("other", "")); }

    Answer Wait(ResourceWatch::Deadline deadline, Errors errors = Errors::MayPass) {
        return ResourceWatch::WaitUntilAvailable(&m_resource, deadline, errors);
    }

    Answer AnswerAtTheDeadline(Status status) {
        m_resource.Set(status);
        return Wait(kPassed);
    }

    /// Waits until a watch has asked so often.
    bool IsAsked(int questions) {
        return WaitUntil([=] { return m_resource.Questions() >= questions; });
    }

    /// For a watch that does not even ask.
    const TimeLimit m_limit;
    const TemporaryFolder m_folder;
    FakeResource m_resource;
};

// The answer

TEST_F(ResourceWatchTest, AnswersAvailableWithoutALookAtTheDisk) {
    m_resource.AddFile(m_folder / "missing");
    m_resource.Set(Status::Available);
    EXPECT_EQ(Wait(kNoDeadline), Answer::Available);
    EXPECT_EQ(Wait(kPassed), Answer::Available);
    EXPECT_EQ(m_resource.Questions(), 2);
}

TEST_F(ResourceWatchTest, AnswersAvailableOfAnEmptyBundle) {
    FakeResource empty;
    EXPECT_EQ(ResourceWatch::WaitUntilAvailable(&empty, kNoDeadline), Answer::Available);
    EXPECT_EQ(ResourceWatch::WaitUntilAvailable(&empty, kPassed), Answer::Available);
}

TEST_F(ResourceWatchTest, TellsMissingFromGivenUpByTheLastState) {
    m_resource.AddFile(m_folder / "missing");
    EXPECT_EQ(AnswerAtTheDeadline(Status::Waiting), Answer::Missing);
    EXPECT_EQ(AnswerAtTheDeadline(Status::Dowloading), Answer::Missing);
    EXPECT_EQ(AnswerAtTheDeadline(Status::Error), Answer::GivenUp);
}

TEST_F(ResourceWatchTest, FindsFilesThatCanBeUsedWhateverTheState) {
    m_resource.AddFile(m_folder.Write("file", "old"));
    m_resource.AddFile(m_folder.Write("empty", ""));
    EXPECT_EQ(AnswerAtTheDeadline(Status::Waiting), Answer::StaleUsable);
    EXPECT_EQ(AnswerAtTheDeadline(Status::Dowloading), Answer::StaleUsable);
    EXPECT_EQ(AnswerAtTheDeadline(Status::Error), Answer::StaleUsable);
}

TEST_F(ResourceWatchTest, NeedsAFileForEveryDescriptor) {
    m_resource.AddFile(m_folder.Write("first", "old"));
    m_resource.AddFile(m_folder / "second");
    m_resource.AddFile(m_folder.Write("third", "old"));
    EXPECT_EQ(AnswerAtTheDeadline(Status::Error), Answer::GivenUp);
    m_folder.Write("second", "old");
    EXPECT_EQ(AnswerAtTheDeadline(Status::Error), Answer::StaleUsable);
}

TEST_F(ResourceWatchTest, LooksForTheFileAtTheLocalPath) {
    ResourceDescriptor& descriptor = m_resource.AddFile(m_folder / "local");
    descriptor.downloadPath = m_folder.Write("download", "new");
    descriptor.tempPath = m_folder.Write("temp", "new");
    EXPECT_EQ(AnswerAtTheDeadline(Status::Waiting), Answer::Missing);
}

TEST_F(ResourceWatchTest, CannotUseWhatIsNoRegularFile) {
    std::filesystem::create_directory((m_folder / "folder").string());
    ASSERT_EQ(::mkfifo((m_folder / "pipe").string().c_str(), 0600), 0);
    ResourceDescriptor& descriptor = m_resource.AddFile(m_folder / "folder");
    EXPECT_EQ(AnswerAtTheDeadline(Status::Waiting), Answer::Missing);
    descriptor.localPath = m_folder / "pipe";
    EXPECT_EQ(AnswerAtTheDeadline(Status::Waiting), Answer::Missing);
}

// The waiting

TEST_F(ResourceWatchTest, WaitsUntilTheStateIsAvailable) {
    std::atomic<Answer> answer{Answer::Missing};
    BackgroundCall wait([&] { answer = Wait(kNoDeadline); });
    EXPECT_TRUE(IsAsked(3));
    m_resource.Set(Status::Available);
    EXPECT_TRUE(wait.Returns());
    EXPECT_EQ(answer, Answer::Available);
}

TEST_F(ResourceWatchTest, WaitsForTheDeadlineAndNoLonger) {
    m_resource.AddFile(m_folder / "missing");
    const auto deadline = Clock::now() + std::chrono::milliseconds(35);
    EXPECT_EQ(Wait(deadline), Answer::Missing);
    EXPECT_GE(Clock::now(), deadline);
    // Once per ten milliseconds, and at the deadline.
    EXPECT_LE(m_resource.Questions(), 5);
}

TEST_F(ResourceWatchTest, LooksWhenTheDeadlineComesHoweverSoonThatIs) {
    m_resource.AddFile(m_folder / "missing");
    EXPECT_EQ(Wait(Clock::now() + std::chrono::microseconds(1)), Answer::Missing);
    EXPECT_GE(m_resource.Questions(), 1);
}

TEST_F(ResourceWatchTest, SitsAnErrorOutThatMayPass) {
    m_resource.AddFile(m_folder.Write("file", "old"));
    m_resource.Set(Status::Error);
    std::atomic<Answer> answer{Answer::Missing};
    BackgroundCall wait([&] { answer = Wait(kNoDeadline, Errors::MayPass); });
    EXPECT_TRUE(IsAsked(3));
    m_resource.Set(Status::Available);
    EXPECT_TRUE(wait.Returns());
    EXPECT_EQ(answer, Answer::Available);
}

TEST_F(ResourceWatchTest, EndsWithAFinalError) {
    m_resource.AddFile(m_folder / "file");
    std::atomic<Answer> answer{Answer::Missing};
    BackgroundCall wait([&] { answer = Wait(kNoDeadline, Errors::AreFinal); });
    EXPECT_TRUE(IsAsked(2));
    m_resource.Set(Status::Dowloading);
    EXPECT_TRUE(IsAsked(m_resource.Questions() + 2));
    m_resource.Set(Status::Error);
    EXPECT_TRUE(wait.Returns());
    EXPECT_EQ(answer, Answer::GivenUp);
}

TEST_F(ResourceWatchTest, MakesDoWithWhatIsThereAfterAFinalError) {
    m_resource.AddFile(m_folder.Write("file", "old"));
    m_resource.Set(Status::Error);
    EXPECT_EQ(Wait(kNoDeadline, Errors::AreFinal), Answer::StaleUsable);
}

// With a callback

TEST_F(ResourceWatchTest, CallsOnceOnAThreadOfItsOwn) {
    Event called;
    std::atomic<int> calls{0};
    std::atomic<Answer> answer{Answer::Missing};
    std::thread::id thread;
    {
        const ResourceWatch watch(&m_resource, kNoDeadline, Errors::MayPass, [&](Answer given) {
            ++calls;
            answer = given;
            thread = std::this_thread::get_id();
            called.Set();
        });
        EXPECT_TRUE(IsAsked(2));
        EXPECT_EQ(calls, 0);
        m_resource.Set(Status::Available);
        EXPECT_TRUE(called.Wait());
    }
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(answer, Answer::Available);
    EXPECT_NE(thread, std::this_thread::get_id());
}

TEST_F(ResourceWatchTest, TellsOfTheDeadlineAndOfAFinalError) {
    m_resource.AddFile(m_folder / "missing");
    const auto answer = [&](ResourceWatch::Deadline deadline, Errors errors) {
        Event called;
        std::atomic<Answer> result{Answer::Available};
        const ResourceWatch watch(&m_resource, deadline, errors, [&](Answer given) {
            result = given;
            called.Set();
        });
        EXPECT_TRUE(called.Wait());
        return result.load();
    };
    EXPECT_EQ(answer(Clock::now() + std::chrono::milliseconds(15), Errors::MayPass),
              Answer::Missing);
    m_resource.Set(Status::Error);
    EXPECT_EQ(answer(kNoDeadline, Errors::AreFinal), Answer::GivenUp);
}

TEST_F(ResourceWatchTest, ThrowsWhenItsThreadCannotBeStarted) {
    const LimitedThreadStarts limit(0);
    EXPECT_THROW(ResourceWatch(&m_resource, kNoDeadline, Errors::MayPass, [](Answer) {}),
                 std::system_error);
    EXPECT_EQ(m_resource.Questions(), 0);
}

TEST_F(ResourceWatchTest, DoesNotCallWhenItIsDestroyedFirst) {
    std::atomic<bool> isCalled{false};
    {
        const ResourceWatch watch(&m_resource, kNoDeadline, Errors::MayPass,
                                  [&](Answer) { isCalled = true; });
        EXPECT_TRUE(IsAsked(1));
    }
    const int questions = m_resource.Questions();
    m_resource.Set(Status::Available);
    EXPECT_FALSE(isCalled);
    EXPECT_EQ(m_resource.Questions(), questions);
}

TEST_F(ResourceWatchTest, IsGoneBeforeItWouldAskAgain) {
    constexpr std::chrono::milliseconds kInterval(10);
    std::atomic<pid_t> thread{0};
    Clock::time_point lastQuestion;
    m_resource.onGetState = [&] {
        lastQuestion = Clock::now();
        thread = ThisThread();
    };
    // Again if the machine was so slow that it was time to ask anyway, but not until the resource
    // has been asked for too long.
    const auto isGoneBefore = [&] {
        thread = 0;
        const int questions = m_resource.Questions();
        auto watch = std::make_unique<ResourceWatch>(&m_resource, kNoDeadline, Errors::MayPass,
                                                     [](Answer) {});
        EXPECT_TRUE(WaitUntil([&] { return thread != 0 && AllSleep({thread.load()}); }));
        watch.reset();
        return m_resource.Questions() == questions + 1 && Clock::now() < lastQuestion + kInterval;
    };
    EXPECT_TRUE(WaitUntil(isGoneBefore, Testing::kGenerousLimit / 2));
}

TEST_F(ResourceWatchTest, DoesNotCallWhenItIsDestroyedBetweenTheQuestionAndTheAnswer) {
    Event isAsking;
    Event mayAnswer;
    m_resource.onGetState = [&] {
        isAsking.Set();
        mayAnswer.Wait();
    };
    std::atomic<bool> isCalled{false};
    auto watch = std::make_unique<ResourceWatch>(&m_resource, kNoDeadline, Errors::MayPass,
                                                 [&](Answer) { isCalled = true; });
    ASSERT_TRUE(isAsking.Wait());
    m_resource.Set(Status::Available);
    BackgroundCall destruction([&] { watch.reset(); });
    EXPECT_TRUE(destruction.Blocks());
    mayAnswer.Set();
    EXPECT_TRUE(destruction.Returns());
    EXPECT_FALSE(isCalled);
}

TEST_F(ResourceWatchTest, WaitsForACallUnderWayBeforeItIsGone) {
    Event isCalled;
    Event mayReturn;
    std::atomic<bool> hasReturned{false};
    m_resource.Set(Status::Available);
    auto watch =
        std::make_unique<ResourceWatch>(&m_resource, kNoDeadline, Errors::MayPass, [&](Answer) {
            isCalled.Set();
            mayReturn.Wait();
            hasReturned = true;
        });
    ASSERT_TRUE(isCalled.Wait());
    BackgroundCall destruction([&] {
        watch.reset();
        EXPECT_TRUE(hasReturned);
    });
    EXPECT_TRUE(destruction.Blocks());
    mayReturn.Set();
    EXPECT_TRUE(destruction.Returns());
}

TEST_F(ResourceWatchTest, MayBeDestroyedByItsCallback) {
    Event isMade;
    Event isDestroyed;
    const auto token = std::make_shared<int>();
    auto resource = std::make_unique<FakeResource>();
    resource->Set(Status::Available);
    std::unique_ptr<ResourceWatch> watch;
    watch = std::make_unique<ResourceWatch>(resource.get(), kNoDeadline, Errors::MayPass,
                                            [&, token](Answer answer) {
                                                isMade.Wait();
                                                watch.reset();
                                                // It goes on with what it has captured.
                                                EXPECT_EQ(answer, Answer::Available);
                                                EXPECT_EQ(token.use_count(), 2);
                                                isDestroyed.Set();
                                            });
    isMade.Set();
    ASSERT_TRUE(isDestroyed.Wait());
    EXPECT_EQ(watch, nullptr);
    // Nothing asks it any more.
    resource.reset();
    EXPECT_TRUE(WaitUntil([&] { return token.use_count() == 1; }));
}

TEST_F(ResourceWatchTest, HasDestroyedTheCallbackWhenItIsGone) {
    const auto token = std::make_shared<int>();
    {
        const ResourceWatch watch(&m_resource, kNoDeadline, Errors::MayPass, [token](Answer) {});
        EXPECT_EQ(token.use_count(), 2);
    }
    EXPECT_EQ(token.use_count(), 1);
}

TEST_F(ResourceWatchTest, IsNeverHeardOfOnceItIsGoneWheneverThatIs) {
    for (int round = 0; round < 200; ++round) {
        m_resource.Set(Status::Waiting);
        std::atomic<bool> isGone{false};
        std::atomic<bool> isHeardTooLate{false};
        auto watch =
            std::make_unique<ResourceWatch>(&m_resource, kNoDeadline, Errors::MayPass, [&](Answer) {
                std::this_thread::yield();
                isHeardTooLate = isHeardTooLate || isGone;
            });
        if (round % 2 == 0) {
            const int questions = m_resource.Questions();
            ASSERT_TRUE(WaitUntil([&] { return m_resource.Questions() > questions; }));
        }
        std::thread change([&] { m_resource.Set(Status::Available); });
        watch.reset();
        isGone = true;
        change.join();
        EXPECT_FALSE(isHeardTooLate);
    }
}

// With a real manager

/// Two bundles: one that is needed at start-up, and the rest.
class ResourceWatchAtStartUpTest : public testing::Test {
protected:
    static Application::Params Parameters() {
        Application::Params params;
        params.useParallelExecutor = true;
        params.threadCount = 2;
        params.useQtTaskQueue = true;
        return params;
    }

    IRemoteResource* ScheduleAtStartUp() {
        return m_application.manager.GetInitScheduler()->RegisterAutoSchedule(
            &m_application.AddBundle({&m_startUp}), ISchedulableResource::SchedulePriority::Normal);
    }

    static Answer Wait(IRemoteResource* resource, Errors errors = Errors::MayPass) {
        return ResourceWatch::WaitUntilAvailable(resource, kNoDeadline, errors);
    }

    const TimeLimit m_limit;
    Event m_mayGoOn;
    ScriptedHttpServer m_server;
    Application m_application{Parameters()};
    ResourceDescriptor& m_startUp = m_application.AddFile(m_server.Url(""), "start-up");
    ResourceDescriptor& m_rest = m_application.AddFile(m_server.Url(""), "rest");
};

TEST_F(ResourceWatchAtStartUpTest, LetsTheApplicationBeginWhileTheRestGoesOn) {
    m_server.On("/start-up", Reply::Generated(100'000));
    m_server.On("/rest", Reply::Generated(100'000).StallAt(50'000, m_mayGoOn));
    IRemoteResource* startUp = ScheduleAtStartUp();
    IRemoteResource* rest = m_application.Schedule({&m_rest});
    m_application.manager.StartEventLoopThread();
    EXPECT_EQ(Wait(startUp, Errors::AreFinal), Answer::Available);
    EXPECT_TRUE(m_startUp.localPath.exists());
    EXPECT_TRUE(Testing::WaitForProgress(rest));
    EXPECT_EQ(ResourceWatch::WaitUntilAvailable(rest, Clock::now()), Answer::Missing);
    m_mayGoOn.Set();
    EXPECT_EQ(Wait(rest), Answer::Available);
}

TEST_F(ResourceWatchAtStartUpTest, IsToldInTheBackgroundToo) {
    m_server.On("/start-up", Reply::Ok("body"));
    IRemoteResource* startUp = ScheduleAtStartUp();
    Event isAvailable;
    const ResourceWatch watch(startUp, kNoDeadline, Errors::AreFinal, [&](Answer answer) {
        EXPECT_EQ(answer, Answer::Available);
        isAvailable.Set();
    });
    m_application.manager.StartEventLoopThread();
    EXPECT_TRUE(isAvailable.Wait());
}

TEST_F(ResourceWatchAtStartUpTest, DoesNotWaitForWhatTheInitSchedulerWillNotRetry) {
    IRemoteResource* startUp = ScheduleAtStartUp();
    m_application.manager.StartEventLoopThread();
    EXPECT_EQ(Wait(startUp, Errors::AreFinal), Answer::GivenUp);
    EXPECT_EQ(m_server.RequestCount("/start-up"), 1U);
}

TEST_F(ResourceWatchAtStartUpTest, OffersTheOldCopyThatADownloadBesideItHasLeft) {
    m_startUp.downloadPath = m_application.folder / "start-up.new";
    m_startUp.localPath = m_application.folder.Write("start-up", "old");
    m_startUp.validationMode = 0;
    IRemoteResource* startUp = ScheduleAtStartUp();
    m_application.manager.StartEventLoopThread();
    EXPECT_EQ(Wait(startUp, Errors::AreFinal), Answer::StaleUsable);
    EXPECT_EQ(Testing::ReadFile(m_startUp.localPath), "old");
}

TEST_F(ResourceWatchAtStartUpTest, SitsOutAnErrorThatTheMainSchedulerRetries) {
    m_server.On("/rest", {Reply::Status(503), Reply::Ok("body").StallAt(0, m_mayGoOn)});
    IRemoteResource* rest = m_application.Schedule({&m_rest});
    m_application.manager.StartEventLoopThread();
    BackgroundCall release([&] {
        EXPECT_TRUE(m_server.WaitForRequests("/rest", 2));
        m_mayGoOn.Set();
    });
    // On the thread whose event loop would have to deliver notifications.
    EXPECT_EQ(Wait(rest), Answer::Available);
}

TEST_F(ResourceWatchAtStartUpTest, KnowsWhatHasBeenAborted) {
    m_server.On("/rest", Reply::Silence());
    IRemoteResource* rest = m_application.Schedule({&m_rest});
    m_application.manager.StartEventLoopThread();
    ASSERT_TRUE(m_server.WaitForRequests("/rest"));
    m_application.manager.Abort();
    EXPECT_EQ(ResourceWatch::WaitUntilAvailable(rest, Clock::now()), Answer::GivenUp);
}

} // namespace
} // namespace Halvex::Kit
