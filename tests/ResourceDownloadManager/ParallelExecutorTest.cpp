#include "ResourceDownloadManager/ParallelExecutor.h"

#include "Foundation/Mutex.h"
#include "ResourceDownloadManager/ITaskQueueEventHandler.h"
#include "ResourceDownloadManager/TaskQueue.h"
#include "support/HeldBackWait.h"
#include "support/SleepingThreads.h"
#include "support/ThreadStarts.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace Halvex::App {
namespace {

using QueueEvent = ITaskQueueEventHandler::QueueEvent;
using Result = IExecutor::Result;
using Testing::AllSleep;
using testing::ElementsAre;
using Testing::Event;
using Testing::HeldBackWait;
using Testing::LimitedThreadStarts;
using Testing::ThisThread;
using Testing::WaitUntil;

/// A queue that writes down what an executor and its workers do with it: "register", "run" (a task
/// was run), "empty" (nothing was found), "end" (a thread that has looked ended), "unregister".
///
/// Thread-safe.
class ObservedQueue : public ITaskQueue {
public:
    bool ExecOne() override {
        BeginLook();
        const bool ran = m_queue.ExecOne();
        EndLook(ran);
        if (!ran && m_afterNextEmptyLook)
            std::exchange(m_afterNextEmptyLook, nullptr)();
        return ran;
    }

    void AddTask(Task task, Priority priority) override {
        m_queue.AddTask(std::move(task), priority);
    }

    void RegisterEventHandler(ITaskQueueEventHandler* handler) override {
        m_queue.RegisterEventHandler(handler);
        Note("register");
        m_handler = handler;
        if (m_announcesOnRegistration)
            handler->OnQueueEvent(QueueEvent::QueueNotEmpty);
    }

    void UnregisterEventHandler(ITaskQueueEventHandler* handler) override {
        EXPECT_EQ(handler, m_handler.load());
        m_queue.UnregisterEventHandler(handler);
        Note("unregister");
    }

    /// Adds several tasks before any thread finds the first of them.
    void AddTogether(const std::vector<Task>& tasks) {
        const MutexLock lock(m_adding);
        for (const Task& task : tasks)
            m_queue.AddTask(task, ITaskQueue::Middle);
    }

    /// What the thread does that is the next to find nothing, before it is told so. For queues that
    /// one thread at a time finds empty.
    void AfterNextEmptyLook(std::function<void()> action) {
        m_afterNextEmptyLook = std::move(action);
    }

    void AnnounceOnRegistration() { m_announcesOnRegistration = true; }
    /// Tells the handler that was registered last of an event.
    void Announce(QueueEvent event) { m_handler.load()->OnQueueEvent(event); }

    /// Runs a task that is left; false if there is none.
    bool RunLeftTask() { return m_queue.ExecOne(); }

    std::vector<std::string> Log() const {
        const MutexLock lock(m_mutex);
        return m_log;
    }

    std::size_t Count(const std::string& entry) const {
        const MutexLock lock(m_mutex);
        return static_cast<std::size_t>(std::count(m_log.begin(), m_log.end(), entry));
    }

    /// How many different threads have looked for tasks.
    std::size_t ThreadCount() const {
        const MutexLock lock(m_mutex);
        return m_threads.size();
    }

    /// Waits until so many workers, and no more, have found nothing and sleep.
    bool WaitUntilParked(std::size_t workers) const {
        return WaitUntil([this, workers] {
            const std::vector<pid_t> idle = IdleThreads();
            return idle.size() == workers && AllSleep(idle);
        });
    }

    bool WaitUntilEnded(std::size_t workers) const {
        return WaitUntil([this, workers] { return Count("end") == workers; });
    }

private:
    /// Tells the queue of the end of a thread that has looked into it.
    struct ThreadEnd {
        ObservedQueue* queue = nullptr;

        ThreadEnd() = default;
        ThreadEnd(const ThreadEnd&) = delete;
        ThreadEnd& operator=(const ThreadEnd&) = delete;
        ~ThreadEnd() {
            if (queue != nullptr)
                queue->NoteEnd();
        }
    };

    void BeginLook() {
        thread_local ThreadEnd end;
        end.queue = this;
        {
            const MutexLock lock(m_mutex);
            m_threads.insert(ThisThread());
            m_idle.erase(ThisThread());
        }
        // Waits for tasks that are being added together.
        const MutexLock adding(m_adding);
    }

    void EndLook(bool ran) {
        const MutexLock lock(m_mutex);
        m_log.emplace_back(ran ? "run" : "empty");
        if (!ran)
            m_idle.insert(ThisThread());
    }

    void NoteEnd() {
        const MutexLock lock(m_mutex);
        m_log.emplace_back("end");
        m_idle.erase(ThisThread());
    }

    void Note(const std::string& entry) {
        const MutexLock lock(m_mutex);
        m_log.push_back(entry);
    }

    std::vector<pid_t> IdleThreads() const {
        const MutexLock lock(m_mutex);
        return {m_idle.begin(), m_idle.end()};
    }

    TaskQueue m_queue;
    Mutex m_adding;
    std::function<void()> m_afterNextEmptyLook;
    std::atomic<bool> m_announcesOnRegistration{false};
    std::atomic<ITaskQueueEventHandler*> m_handler{nullptr};
    mutable Mutex m_mutex;
    std::vector<std::string> m_log HALVEX_GUARDED_BY(m_mutex);
    std::set<pid_t> m_threads HALVEX_GUARDED_BY(m_mutex);
    /// Those that have found nothing when they looked last, and have not ended.
    std::set<pid_t> m_idle HALVEX_GUARDED_BY(m_mutex);
};

/// A place where so many threads wait for each other.
class Meeting {
public:
    explicit Meeting(std::size_t size) : m_missing(size) {}

    /// False: not all have come within the limit.
    bool Arrive() {
        if (--m_missing == 0)
            m_complete.Set();
        return m_complete.Wait();
    }

private:
    std::atomic<std::size_t> m_missing;
    Event m_complete;
};

/// Something that a thread of its own does. Waits for it at the end.
class Background {
public:
    explicit Background(std::function<void()> work)
        : m_thread([this, work = std::move(work)] {
              m_id = ThisThread();
              work();
              m_done.Set();
          }) {}
    ~Background() { m_thread.join(); }

    bool IsDone() { return m_done.IsSet(); }
    bool WaitUntilDone() { return m_done.Wait(); }
    /// Waits until it sleeps, because others hold it up; false: it has come to its end instead.
    bool WaitUntilHeldUp() {
        EXPECT_TRUE(WaitUntil([this] { return IsDone() || (m_id != 0 && AllSleep({m_id})); }));
        return !IsDone();
    }

private:
    std::atomic<pid_t> m_id{0};
    Event m_done;
    std::thread m_thread;
};

class ParallelExecutorTest : public testing::Test {
protected:
    void Add(ITaskQueue::Task task) { m_queue.AddTask(std::move(task), ITaskQueue::Middle); }

    void AddCounted(int count) {
        for (int i = 0; i < count; ++i)
            Add([this] { ++m_runs; });
    }

    /// Adds a task that runs until m_release is set.
    void AddBlocking() {
        Add([this] {
            m_blocking.Set();
            EXPECT_TRUE(m_release.Wait());
            m_blockingEnded = true;
        });
    }

    /// Tasks that each wait until all of them, and the caller, run at once.
    static std::vector<ITaskQueue::Task> TasksThatMeet(const std::shared_ptr<Meeting>& meeting,
                                                       std::size_t count) {
        return std::vector<ITaskQueue::Task>(count, [meeting] { EXPECT_TRUE(meeting->Arrive()); });
    }

    ObservedQueue m_queue;
    std::atomic<int> m_runs{0};
    Event m_blocking;
    Event m_release;
    std::atomic<bool> m_blockingEnded{false};
};

TEST_F(ParallelExecutorTest, RunsNothingForAnEmptyQueue) {
    ParallelExecutor executor(4);
    EXPECT_EQ(executor.ExecQueue(m_queue), Result::NothingExecuted);
}

TEST_F(ParallelExecutorTest, LooksIntoAnEmptyQueueOnceOnEachThread) {
    ParallelExecutor executor(4);
    executor.ExecQueue(m_queue);
    EXPECT_EQ(m_queue.ThreadCount(), 4U);
    EXPECT_EQ(m_queue.Count("empty"), 4U);
}

TEST_F(ParallelExecutorTest, JoinsItsThreadsBeforeItReturns) {
    ParallelExecutor executor(4);
    executor.ExecQueue(m_queue);
    EXPECT_EQ(m_queue.Count("end"), 4U);
}

TEST_F(ParallelExecutorTest, StartsFreshThreadsForEachCall) {
    ParallelExecutor executor(4);
    executor.ExecQueue(m_queue);
    executor.ExecQueue(m_queue);
    EXPECT_EQ(m_queue.Count("end"), 8U);
}

TEST_F(ParallelExecutorTest, IsRegisteredWithTheQueueWhileItsThreadsLive) {
    ParallelExecutor executor(1);
    AddCounted(1);
    executor.ExecQueue(m_queue);
    EXPECT_THAT(m_queue.Log(), ElementsAre("register", "run", "empty", "end", "unregister"));
}

TEST_F(ParallelExecutorTest, UnregistersWhenAllItsThreadsHaveEnded) {
    ParallelExecutor executor(4);
    AddCounted(3);
    executor.ExecQueue(m_queue);
    EXPECT_EQ(m_queue.Log().front(), "register");
    EXPECT_EQ(m_queue.Log().back(), "unregister");
    EXPECT_EQ(m_queue.Count("register"), 1U);
    EXPECT_EQ(m_queue.Count("unregister"), 1U);
}

TEST_F(ParallelExecutorTest, RunsAllTasks) {
    ParallelExecutor executor(4);
    AddCounted(100);
    EXPECT_EQ(executor.ExecQueue(m_queue), Result::TasksExecuted);
    EXPECT_EQ(m_runs, 100);
    EXPECT_FALSE(m_queue.RunLeftTask());
}

TEST_F(ParallelExecutorTest, SaysThatTasksWereExecutedWhenOneThreadOfSeveralHasRunOne) {
    ParallelExecutor executor(4);
    AddCounted(1);
    EXPECT_EQ(executor.ExecQueue(m_queue), Result::TasksExecuted);
}

TEST_F(ParallelExecutorTest, SpeaksOfTheLatestCallOnly) {
    ParallelExecutor executor(2);
    AddCounted(1);
    EXPECT_EQ(executor.ExecQueue(m_queue), Result::TasksExecuted);
    EXPECT_EQ(executor.ExecQueue(m_queue), Result::NothingExecuted);
    AddCounted(1);
    EXPECT_EQ(executor.ExecQueue(m_queue), Result::TasksExecuted);
}

TEST_F(ParallelExecutorTest, RunsTasksOnItsOwnThreads) {
    ParallelExecutor executor(1);
    std::thread::id runner = std::this_thread::get_id();
    Add([&] { runner = std::this_thread::get_id(); });
    executor.ExecQueue(m_queue);
    EXPECT_NE(runner, std::this_thread::get_id());
}

TEST_F(ParallelExecutorTest, RunsAsManyTasksAtOnceAsItHasThreads) {
    ParallelExecutor executor(4);
    for (const auto& task : TasksThatMeet(std::make_shared<Meeting>(4), 4))
        Add(task);
    executor.ExecQueue(m_queue);
    EXPECT_EQ(m_queue.Count("run"), 4U);
}

TEST_F(ParallelExecutorTest, UsesNoMoreThreadsThanItHas) {
    ParallelExecutor executor(2);
    AddCounted(100);
    executor.ExecQueue(m_queue);
    EXPECT_LE(m_queue.ThreadCount(), 2U);
}

TEST_F(ParallelExecutorTest, RunsTheTasksThatATaskAddsInTheSameCall) {
    ParallelExecutor executor(4);
    Add([this] { AddCounted(2); });
    executor.ExecQueue(m_queue);
    EXPECT_EQ(m_runs, 2);
}

TEST_F(ParallelExecutorTest, RunsTheTasksThatATaskAddsWhenTheOthersAreParked) {
    ParallelExecutor executor(4);
    Add([this] {
        EXPECT_TRUE(m_queue.WaitUntilParked(3));
        AddCounted(2);
    });
    EXPECT_EQ(executor.ExecQueue(m_queue), Result::TasksExecuted);
    EXPECT_EQ(m_runs, 2);
}

TEST_F(ParallelExecutorTest, ParkedWorkersResumeForTheTasksThatATaskAdds) {
    ParallelExecutor executor(4);
    const auto meeting = std::make_shared<Meeting>(4);
    Add([&] {
        EXPECT_TRUE(m_queue.WaitUntilParked(3));
        m_queue.AddTogether(TasksThatMeet(meeting, 3));
        EXPECT_TRUE(meeting->Arrive());
    });
    executor.ExecQueue(m_queue);
    EXPECT_EQ(m_queue.Count("run"), 4U);
}

TEST_F(ParallelExecutorTest, ResumedWorkersParkAndResumeAgain) {
    ParallelExecutor executor(4);
    Add([&] {
        for (int round = 0; round < 3; ++round) {
            const auto meeting = std::make_shared<Meeting>(4);
            EXPECT_TRUE(m_queue.WaitUntilParked(3));
            m_queue.AddTogether(TasksThatMeet(meeting, 3));
            EXPECT_TRUE(meeting->Arrive());
        }
    });
    executor.ExecQueue(m_queue);
    EXPECT_EQ(m_queue.Count("run"), 10U);
    EXPECT_EQ(m_queue.ThreadCount(), 4U);
}

TEST_F(ParallelExecutorTest, AParkedWorkerResumesForATaskOfAnotherThread) {
    ParallelExecutor executor(2);
    AddBlocking();
    Background call([&] { executor.ExecQueue(m_queue); });
    EXPECT_TRUE(m_queue.WaitUntilParked(1));
    Event ran;
    Add([&] { ran.Set(); });
    EXPECT_TRUE(ran.Wait());
    EXPECT_FALSE(m_blockingEnded);
    m_release.Set();
}

TEST_F(ParallelExecutorTest, AWorkerThatHasFoundNothingRunsATaskThatComesBeforeItParks) {
    ParallelExecutor executor(2);
    AddBlocking();
    Event ran;
    m_queue.AfterNextEmptyLook([&] { Add([&] { ran.Set(); }); });
    Background call([&] { executor.ExecQueue(m_queue); });
    EXPECT_TRUE(ran.Wait());
    EXPECT_FALSE(m_blockingEnded);
    m_release.Set();
}

TEST_F(ParallelExecutorTest, ACallRunsATaskThatComesBeforeItsLastWorkerParks) {
    ParallelExecutor executor(1);
    m_queue.AfterNextEmptyLook([this] { AddCounted(1); });
    EXPECT_EQ(executor.ExecQueue(m_queue), Result::TasksExecuted);
    EXPECT_EQ(m_runs, 1);
}

TEST_F(ParallelExecutorTest, ParkedWorkersStayForAsLongAsATaskRuns) {
    ParallelExecutor executor(4);
    AddBlocking();
    Background call([&] { executor.ExecQueue(m_queue); });
    EXPECT_TRUE(m_queue.WaitUntilParked(3));
    EXPECT_EQ(m_queue.Count("empty"), 3U);
    EXPECT_EQ(m_queue.Count("end"), 0U);
    m_release.Set();
}

TEST_F(ParallelExecutorTest, TheLastWorkerThatFindsNothingReleasesTheParkedOnes) {
    ParallelExecutor executor(4);
    Add([this] { EXPECT_TRUE(m_queue.WaitUntilParked(3)); });
    Background call([&] { executor.ExecQueue(m_queue); });
    EXPECT_TRUE(call.WaitUntilDone());
    EXPECT_EQ(m_queue.Count("empty"), 4U);
    EXPECT_EQ(m_queue.Count("end"), 4U);
}

TEST_F(ParallelExecutorTest, ParkedWorkersDoNotResumeWhenTheQueueIsAnnouncedAsEmpty) {
    ParallelExecutor executor(3);
    Add([this] {
        EXPECT_TRUE(m_queue.WaitUntilParked(2));
        m_queue.Announce(QueueEvent::QueueEmpty);
        EXPECT_TRUE(m_queue.WaitUntilParked(2));
    });
    executor.ExecQueue(m_queue);
    EXPECT_EQ(m_queue.Count("empty"), 3U);
}

TEST_F(ParallelExecutorTest, ParkedWorkersLookAgainWhenTasksAreAnnounced) {
    ParallelExecutor executor(3);
    Add([this] {
        EXPECT_TRUE(m_queue.WaitUntilParked(2));
        m_queue.Announce(QueueEvent::QueueNotEmpty);
        EXPECT_TRUE(WaitUntil([this] { return m_queue.Count("empty") > 2; }));
    });
    executor.ExecQueue(m_queue);
    EXPECT_EQ(m_queue.Count("run"), 1U);
}

// Whoever finds the queue empty takes the announcement back, so that nobody goes on looking.
TEST_F(ParallelExecutorTest, AnAnnouncementBeforeTheWorkersLookIsForgottenWhenTheyFindNothing) {
    ParallelExecutor executor(4);
    m_queue.AnnounceOnRegistration();
    Background call([&] { EXPECT_EQ(executor.ExecQueue(m_queue), Result::NothingExecuted); });
    EXPECT_TRUE(call.WaitUntilDone());
    EXPECT_EQ(m_queue.Count("empty"), 4U);
}

TEST_F(ParallelExecutorTest, AnAnnouncementBetweenTwoCallsIsForgottenWhenTheWorkersFindNothing) {
    ParallelExecutor executor(4);
    executor.ExecQueue(m_queue);
    m_queue.Announce(QueueEvent::QueueNotEmpty);
    Background call([&] { EXPECT_EQ(executor.ExecQueue(m_queue), Result::NothingExecuted); });
    EXPECT_TRUE(call.WaitUntilDone());
    EXPECT_EQ(m_queue.Count("empty"), 8U);
}

TEST_F(ParallelExecutorTest, DrainsOneQueueAfterTheOther) {
    ParallelExecutor executor(2);
    ObservedQueue other;
    int runs = 0;
    other.AddTask([&] { ++runs; }, ITaskQueue::Middle);
    AddCounted(1);
    executor.ExecQueue(m_queue);
    EXPECT_EQ(runs, 0);
    executor.ExecQueue(other);
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(m_queue.Count("register"), 1U);
}

TEST_F(ParallelExecutorTest, CallsOnOneExecutorWaitForEachOther) {
    ParallelExecutor executor(2);
    AddBlocking();
    Background first([&] { executor.ExecQueue(m_queue); });
    EXPECT_TRUE(m_blocking.Wait());
    ObservedQueue other;
    Background second([&] { executor.ExecQueue(other); });
    EXPECT_TRUE(second.WaitUntilHeldUp());
    EXPECT_TRUE(other.Log().empty());
    m_release.Set();
    EXPECT_TRUE(second.WaitUntilDone());
    EXPECT_EQ(other.Count("empty"), 2U);
}

TEST_F(ParallelExecutorTest, WithoutThreadsLeavesTheQueueUntouched) {
    ParallelExecutor executor(0);
    AddCounted(1);
    EXPECT_EQ(executor.ExecQueue(m_queue), Result::NothingExecuted);
    EXPECT_EQ(m_queue.ThreadCount(), 0U);
    EXPECT_EQ(m_runs, 0);
    EXPECT_TRUE(m_queue.RunLeftTask());
}

TEST_F(ParallelExecutorTest, WithoutThreadsIsNotLeftRegistered) {
    ParallelExecutor executor(0);
    executor.ExecQueue(m_queue);
    EXPECT_EQ(m_queue.Count("register"), m_queue.Count("unregister"));
}

TEST_F(ParallelExecutorTest, AfterAbortRunsNothing) {
    ParallelExecutor executor(4);
    AddCounted(1);
    executor.Abort();
    EXPECT_EQ(executor.ExecQueue(m_queue), Result::NothingExecuted);
    EXPECT_EQ(m_queue.Count("run") + m_queue.Count("empty"), 0U);
    EXPECT_TRUE(m_queue.RunLeftTask());
}

TEST_F(ParallelExecutorTest, AfterAbortStartsNoThreads) {
    ParallelExecutor executor(4);
    executor.Abort();
    const LimitedThreadStarts limit(0);
    EXPECT_EQ(executor.ExecQueue(m_queue), Result::NothingExecuted);
}

TEST_F(ParallelExecutorTest, StaysAborted) {
    ParallelExecutor executor(4);
    AddCounted(1);
    executor.Abort();
    EXPECT_EQ(executor.ExecQueue(m_queue), Result::NothingExecuted);
    EXPECT_EQ(executor.ExecQueue(m_queue), Result::NothingExecuted);
    EXPECT_EQ(m_runs, 0);
}

TEST_F(ParallelExecutorTest, AfterAbortIsNotLeftRegistered) {
    ParallelExecutor executor(4);
    executor.Abort();
    executor.ExecQueue(m_queue);
    EXPECT_EQ(m_queue.Count("register"), m_queue.Count("unregister"));
}

TEST_F(ParallelExecutorTest, IsAbortedAgainWithoutEffect) {
    ParallelExecutor executor(4);
    executor.Abort();
    executor.Abort();
    EXPECT_EQ(executor.ExecQueue(m_queue), Result::NothingExecuted);
}

TEST_F(ParallelExecutorTest, AbortReleasesParkedWorkersWhileATaskRuns) {
    ParallelExecutor executor(4);
    AddBlocking();
    Background call([&] { executor.ExecQueue(m_queue); });
    EXPECT_TRUE(m_queue.WaitUntilParked(3));
    Background abort([&] { executor.Abort(); });
    EXPECT_TRUE(m_queue.WaitUntilEnded(3));
    EXPECT_FALSE(m_blockingEnded);
    m_release.Set();
    EXPECT_TRUE(abort.WaitUntilDone());
}

TEST_F(ParallelExecutorTest, AbortReturnsAfterTheCallThatIsUnderWay) {
    ParallelExecutor executor(2);
    AddBlocking();
    Background call([&] { executor.ExecQueue(m_queue); });
    EXPECT_TRUE(m_queue.WaitUntilParked(1));
    std::vector<std::string> logWhenAborted;
    Background abort([&] {
        executor.Abort();
        logWhenAborted = m_queue.Log();
    });
    EXPECT_TRUE(m_queue.WaitUntilEnded(1));
    // Its effect is there, and it has every chance to return too early.
    for (int i = 0; i < 1000 && !abort.IsDone(); ++i)
        std::this_thread::yield();
    EXPECT_FALSE(abort.IsDone());
    m_release.Set();
    EXPECT_TRUE(abort.WaitUntilDone());
    EXPECT_EQ(logWhenAborted.back(), "unregister");
}

// It has seen that nobody has aborted, and misses what is announced before it waits.
TEST_F(ParallelExecutorTest, AbortReachesAWorkerThatIsAboutToWait) {
    ParallelExecutor executor(2);
    AddBlocking();
    HeldBackWait wait;
    Background call([&] { executor.ExecQueue(m_queue); });
    EXPECT_TRUE(wait.WaitUntilHeldBack());
    const std::size_t broadcasts = HeldBackWait::Broadcasts();
    Background abort([&] { executor.Abort(); });
    EXPECT_TRUE(WaitUntil([&] { return HeldBackWait::Broadcasts() > broadcasts; }));
    wait.Release();
    EXPECT_TRUE(m_queue.WaitUntilEnded(1));
    EXPECT_FALSE(m_blockingEnded);
    m_release.Set();
}

TEST_F(ParallelExecutorTest, AbortLetsTheRunningTaskEndAndStartsNoOther) {
    ParallelExecutor executor(2);
    AddBlocking();
    Background call([&] { EXPECT_EQ(executor.ExecQueue(m_queue), Result::TasksExecuted); });
    EXPECT_TRUE(m_queue.WaitUntilParked(1));
    Background abort([&] { executor.Abort(); });
    EXPECT_TRUE(m_queue.WaitUntilEnded(1));
    AddCounted(1);
    m_release.Set();
    EXPECT_TRUE(abort.WaitUntilDone());
    EXPECT_TRUE(m_blockingEnded);
    EXPECT_EQ(m_runs, 0);
    EXPECT_TRUE(m_queue.RunLeftTask());
}

TEST_F(ParallelExecutorTest, CallsThatWaitForAnAbortedCallRunNothing) {
    ParallelExecutor executor(2);
    AddBlocking();
    Background first([&] { executor.ExecQueue(m_queue); });
    EXPECT_TRUE(m_queue.WaitUntilParked(1));
    ObservedQueue other;
    other.AddTask([this] { ++m_runs; }, ITaskQueue::Middle);
    Background second([&] { EXPECT_EQ(executor.ExecQueue(other), Result::NothingExecuted); });
    EXPECT_TRUE(second.WaitUntilHeldUp());
    Background abort([&] { executor.Abort(); });
    EXPECT_TRUE(m_queue.WaitUntilEnded(1));
    m_release.Set();
    EXPECT_TRUE(second.WaitUntilDone());
    EXPECT_EQ(m_runs, 0);
}

TEST_F(ParallelExecutorTest, ItsEndIsAnAbort) {
    auto executor = std::make_unique<ParallelExecutor>(2);
    AddBlocking();
    Background call([&, running = executor.get()] { running->ExecQueue(m_queue); });
    EXPECT_TRUE(m_queue.WaitUntilParked(1));
    std::vector<std::string> logWhenDestroyed;
    Background destruction([&] {
        executor.reset();
        logWhenDestroyed = m_queue.Log();
    });
    EXPECT_TRUE(m_queue.WaitUntilEnded(1));
    AddCounted(1);
    m_release.Set();
    EXPECT_TRUE(destruction.WaitUntilDone());
    EXPECT_EQ(logWhenDestroyed.back(), "unregister");
    EXPECT_EQ(m_runs, 0);
}

TEST_F(ParallelExecutorTest, ThrowsWhenNoThreadCanBeStarted) {
    ParallelExecutor executor(4);
    AddCounted(1);
    const LimitedThreadStarts limit(0);
    try {
        executor.ExecQueue(m_queue);
        FAIL() << "has started threads";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), std::errc::resource_unavailable_try_again);
    }
    EXPECT_TRUE(m_queue.RunLeftTask());
}

TEST_F(ParallelExecutorTest, StaysRegisteredWhenThreadsCannotBeStarted) {
    ParallelExecutor executor(4);
    const LimitedThreadStarts limit(0);
    EXPECT_THROW(executor.ExecQueue(m_queue), std::system_error);
    EXPECT_THAT(m_queue.Log(), ElementsAre("register"));
}

TEST_F(ParallelExecutorTest, WorksWhenThreadsCanBeStartedAgain) {
    ParallelExecutor executor(4);
    AddCounted(1);
    {
        const LimitedThreadStarts limit(0);
        EXPECT_THROW(executor.ExecQueue(m_queue), std::system_error);
        EXPECT_THROW(executor.ExecQueue(m_queue), std::system_error);
    }
    EXPECT_EQ(executor.ExecQueue(m_queue), Result::TasksExecuted);
    EXPECT_EQ(m_runs, 1);
    EXPECT_EQ(m_queue.ThreadCount(), 4U);
    EXPECT_EQ(m_queue.Log().back(), "unregister");
}

TEST_F(ParallelExecutorTest, CanBeAbortedWhenThreadsCannotBeStarted) {
    ParallelExecutor executor(4);
    {
        const LimitedThreadStarts limit(0);
        EXPECT_THROW(executor.ExecQueue(m_queue), std::system_error);
    }
    executor.Abort();
    EXPECT_EQ(executor.ExecQueue(m_queue), Result::NothingExecuted);
}

/// Executors of four threads of which two could be started.
class ParallelExecutorHalfStartedTest : public ParallelExecutorTest {
protected:
    void StartHalf() {
        const LimitedThreadStarts limit(2);
        EXPECT_THROW(m_executor->ExecQueue(m_queue), std::system_error);
    }

    /// Does something with the executor while one of the two threads runs a task and the other is
    /// about to wait, and lets that one wait when nothing but the threads holds it up.
    void WithAThreadAboutToWait(const std::function<void()>& action) {
        Event otherRelease;
        AddBlocking();
        Add([&] { EXPECT_TRUE(otherRelease.Wait()); });
        StartHalf();
        HeldBackWait wait;
        otherRelease.Set();
        EXPECT_TRUE(wait.WaitUntilHeldBack());
        Background background(action);
        EXPECT_TRUE(background.WaitUntilHeldUp());
        wait.Release();
        EXPECT_TRUE(m_queue.WaitUntilEnded(1));
        m_release.Set();
        EXPECT_TRUE(background.WaitUntilDone());
    }

    std::unique_ptr<ParallelExecutor> m_executor = std::make_unique<ParallelExecutor>(4);
};

// They do not wait for the others, which will never find the queue empty.
TEST_F(ParallelExecutorHalfStartedTest, TheStartedThreadsDrainTheQueueAndEnd) {
    AddCounted(10);
    StartHalf();
    EXPECT_TRUE(m_queue.WaitUntilEnded(2));
    EXPECT_EQ(m_runs, 10);
}

TEST_F(ParallelExecutorHalfStartedTest, TheStartedThreadsStillShareFollowUpTasks) {
    const auto meeting = std::make_shared<Meeting>(2);
    Add([&] {
        EXPECT_TRUE(m_queue.WaitUntilParked(1));
        m_queue.AddTogether(TasksThatMeet(meeting, 1));
        EXPECT_TRUE(meeting->Arrive());
    });
    StartHalf();
    EXPECT_TRUE(m_queue.WaitUntilEnded(2));
    EXPECT_EQ(m_queue.Count("run"), 2U);
}

TEST_F(ParallelExecutorHalfStartedTest, TheNextCallWaitsForTheStartedThreads) {
    AddBlocking();
    StartHalf();
    EXPECT_TRUE(m_queue.WaitUntilParked(1));
    Background call([&] { m_executor->ExecQueue(m_queue); });
    EXPECT_TRUE(call.WaitUntilHeldUp());
    EXPECT_EQ(m_queue.Count("register"), 1U);
    m_release.Set();
    EXPECT_TRUE(call.WaitUntilDone());
    EXPECT_EQ(m_queue.Count("end"), 6U);
    EXPECT_EQ(m_queue.Log().back(), "unregister");
}

TEST_F(ParallelExecutorHalfStartedTest, TheNextCallRunsTasksOnAllThreads) {
    StartHalf();
    EXPECT_TRUE(m_queue.WaitUntilEnded(2));
    for (const auto& task : TasksThatMeet(std::make_shared<Meeting>(4), 4))
        Add(task);
    EXPECT_EQ(m_executor->ExecQueue(m_queue), Result::TasksExecuted);
    EXPECT_EQ(m_queue.Count("run"), 4U);
}

TEST_F(ParallelExecutorHalfStartedTest, TheNextCallDoesNotSpeakOfTheStartedThreadsTasks) {
    AddCounted(1);
    StartHalf();
    EXPECT_TRUE(m_queue.WaitUntilEnded(2));
    EXPECT_EQ(m_executor->ExecQueue(m_queue), Result::NothingExecuted);
}

TEST_F(ParallelExecutorHalfStartedTest, TheNextCallUnregistersItFromTheQueueOfTheStartedThreads) {
    StartHalf();
    ObservedQueue other;
    m_executor->ExecQueue(other);
    EXPECT_EQ(m_queue.Log().back(), "unregister");
}

TEST_F(ParallelExecutorHalfStartedTest, AbortWaitsForTheStartedThreads) {
    AddBlocking();
    StartHalf();
    EXPECT_TRUE(m_queue.WaitUntilParked(1));
    Background abort([&] { m_executor->Abort(); });
    EXPECT_TRUE(abort.WaitUntilHeldUp());
    m_release.Set();
    EXPECT_TRUE(abort.WaitUntilDone());
    EXPECT_EQ(m_queue.Count("end"), 2U);
    EXPECT_EQ(m_queue.Log().back(), "unregister");
}

TEST_F(ParallelExecutorHalfStartedTest, ItsEndWaitsForTheStartedThreads) {
    AddBlocking();
    StartHalf();
    EXPECT_TRUE(m_queue.WaitUntilParked(1));
    Background destruction([&] { m_executor.reset(); });
    EXPECT_TRUE(destruction.WaitUntilHeldUp());
    EXPECT_TRUE(m_queue.WaitUntilEnded(1));
    AddCounted(1);
    m_release.Set();
    EXPECT_TRUE(destruction.WaitUntilDone());
    EXPECT_EQ(m_queue.Count("end"), 2U);
    EXPECT_EQ(m_runs, 0);
}

// A queue that announces tasks later must not find an executor that is gone.
TEST_F(ParallelExecutorHalfStartedTest, ItsEndUnregistersIt) {
    StartHalf();
    EXPECT_EQ(m_queue.Count("unregister"), 0U);
    m_executor.reset();
    EXPECT_EQ(m_queue.Log().back(), "unregister");
}

TEST_F(ParallelExecutorHalfStartedTest, ItsEndReachesAThreadThatIsAboutToWait) {
    WithAThreadAboutToWait([this] { m_executor.reset(); });
    EXPECT_EQ(m_queue.Count("end"), 2U);
}

TEST_F(ParallelExecutorHalfStartedTest, AbortReachesAThreadThatIsAboutToWait) {
    WithAThreadAboutToWait([this] { m_executor->Abort(); });
    EXPECT_EQ(m_queue.Count("end"), 2U);
}

TEST(ParallelExecutorDeathTest, WhatATaskThrowsEndsTheProcess) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto runTaskThatThrows = [] {
        TaskQueue queue;
        queue.AddTask([] { throw std::logic_error("thrown by a task"); }, ITaskQueue::Middle);
        ParallelExecutor(1).ExecQueue(queue);
    };
    EXPECT_DEATH(runTaskThatThrows(), "thrown by a task");
}

} // namespace
} // namespace Halvex::App
