#include "ResourceDownloadManager/TaskQueue.h"

#include "ResourceDownloadManager/ITaskQueueEventHandler.h"
#include "support/SleepingThreads.h"
#include "support/VirtualSlot.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace Halvex::App {
namespace {

using QueueEvent = ITaskQueueEventHandler::QueueEvent;
using Testing::AllSleep;
using testing::ElementsAre;
using Testing::Event;
using testing::IsEmpty;
using testing::StrictMock;
using Testing::ThisThread;
using Testing::VirtualSlot;
using Testing::WaitUntil;

class MockHandler : public ITaskQueueEventHandler {
public:
    MOCK_METHOD(void, OnQueueEvent, (QueueEvent), (override));
};

class FunctionHandler : public ITaskQueueEventHandler {
public:
    explicit FunctionHandler(std::function<void(QueueEvent)> onEvent)
        : m_onEvent(std::move(onEvent)) {}

    void OnQueueEvent(QueueEvent event) override { m_onEvent(event); }

private:
    const std::function<void(QueueEvent)> m_onEvent;
};

/// Another thread's attempt to use a queue. Joins it at the end.
class OtherThreadsUse {
public:
    explicit OtherThreadsUse(TaskQueue& queue)
        : m_thread([this, &queue] {
              m_id = ThisThread();
              queue.UnregisterEventHandler(nullptr);
              m_done = true;
          }) {}
    ~OtherThreadsUse() { m_thread.join(); }

    /// Waits until the attempt has come through or is stuck; true: it has come through.
    bool ComesThrough() {
        EXPECT_TRUE(WaitUntil([this] { return m_done || (m_id != 0 && AllSleep({m_id})); }));
        return m_done;
    }

private:
    std::atomic<pid_t> m_id{0};
    std::atomic<bool> m_done{false};
    std::thread m_thread;
};

/// Captured by a task, tells of the task's end.
class Captured {
public:
    explicit Captured(std::function<void()> onDestruction)
        : m_state(nullptr, [onDestruction = std::move(onDestruction)](void*) { onDestruction(); }) {
    }

private:
    std::shared_ptr<void> m_state;
};

/// A task that counts how often it is copied.
class CountingTask {
public:
    explicit CountingTask(int& copies) : m_copies(&copies) {}
    CountingTask(const CountingTask& other) : m_copies(other.m_copies) { ++*m_copies; }
    CountingTask(CountingTask&&) = default;
    CountingTask& operator=(const CountingTask&) = delete;

    void operator()() const {}

private:
    int* m_copies;
};

class TaskQueueTest : public testing::Test {
protected:
    void Add(int priority, const std::string& name) {
        m_queue.AddTask([this, name] { m_order += name + " "; },
                        static_cast<ITaskQueue::Priority>(priority));
    }

    void Add() {
        m_queue.AddTask([] {}, ITaskQueue::Middle);
    }

    /// Runs all tasks; their names in the order in which they ran.
    std::string Drain() {
        while (m_queue.ExecOne()) {
        }
        return m_order;
    }

    TaskQueue m_queue;
    std::string m_order;
};

TEST_F(TaskQueueTest, RunsSmallerPrioritiesFirst) {
    Add(ITaskQueue::Middle, "middle");
    Add(ITaskQueue::Lowest, "lowest");
    Add(ITaskQueue::Highest, "highest");
    Add(ITaskQueue::Lower, "lower");
    Add(ITaskQueue::Higher, "higher");
    EXPECT_EQ(Drain(), "highest higher middle lower lowest ");
}

TEST_F(TaskQueueTest, RunsTasksOfOnePriorityInTheOrderOfAdding) {
    Add(ITaskQueue::Middle, "first");
    Add(ITaskQueue::Middle, "second");
    Add(ITaskQueue::Highest, "highest");
    EXPECT_EQ(Drain(), "highest first second ");
}

TEST_F(TaskQueueTest, AcceptsAnyIntegerAsAPriority) {
    Add(ITaskQueue::Lowest, "lowest");
    Add(7, "seven");
    Add(ITaskQueue::Highest, "highest");
    Add(-1, "minus-one");
    EXPECT_EQ(Drain(), "minus-one highest lowest seven ");
}

TEST_F(TaskQueueTest, ChoosesTheMostUrgentTaskAnewEachTime) {
    Add(ITaskQueue::Middle, "first");
    Add(ITaskQueue::Middle, "second");
    m_queue.ExecOne();
    Add(ITaskQueue::Higher, "urgent");
    EXPECT_EQ(Drain(), "first urgent second ");
}

TEST_F(TaskQueueTest, UsesAPriorityAgainThatHasRunEmpty) {
    Add(ITaskQueue::Middle, "first");
    Drain();
    Add(ITaskQueue::Lower, "lower");
    Add(ITaskQueue::Middle, "second");
    EXPECT_EQ(Drain(), "first second lower ");
}

TEST_F(TaskQueueTest, RunsOneTaskPerCall) {
    Add(ITaskQueue::Middle, "first");
    Add(ITaskQueue::Middle, "second");
    EXPECT_TRUE(m_queue.ExecOne());
    EXPECT_EQ(m_order, "first ");
}

TEST_F(TaskQueueTest, AnswersFalseWhenThereIsNothing) {
    EXPECT_FALSE(m_queue.ExecOne());
    Add();
    EXPECT_TRUE(m_queue.ExecOne());
    EXPECT_FALSE(m_queue.ExecOne());
}

TEST_F(TaskQueueTest, RunsNothingWhenATaskIsAdded) {
    Add(ITaskQueue::Middle, "first");
    EXPECT_EQ(m_order, "");
}

TEST_F(TaskQueueTest, RunsATaskOnTheThreadThatExecutes) {
    std::thread::id runner;
    m_queue.AddTask([&] { runner = std::this_thread::get_id(); }, ITaskQueue::Middle);
    std::thread::id executing;
    std::thread([&] {
        executing = std::this_thread::get_id();
        m_queue.ExecOne();
    }).join();
    EXPECT_EQ(runner, executing);
}

TEST_F(TaskQueueTest, DoesNotCopyTasks) {
    int copies = 0;
    ITaskQueue::Task task{CountingTask(copies)};
    copies = 0;
    m_queue.AddTask(std::move(task), ITaskQueue::Middle);
    m_queue.ExecOne();
    EXPECT_EQ(copies, 0);
}

TEST_F(TaskQueueTest, LetsATaskAddTasksToItsOwnQueue) {
    m_queue.AddTask([this] { Add(ITaskQueue::Middle, "inner"); }, ITaskQueue::Middle);
    EXPECT_EQ(Drain(), "inner ");
}

TEST_F(TaskQueueTest, LetsATaskExecuteItsOwnQueue) {
    m_queue.AddTask([this] { EXPECT_TRUE(m_queue.ExecOne()); }, ITaskQueue::Middle);
    Add(ITaskQueue::Middle, "inner");
    EXPECT_TRUE(m_queue.ExecOne());
    EXPECT_EQ(m_order, "inner ");
}

TEST_F(TaskQueueTest, RunsTasksWithTheLockReleased) {
    bool free = false;
    m_queue.AddTask([&] { free = OtherThreadsUse(m_queue).ComesThrough(); }, ITaskQueue::Middle);
    m_queue.ExecOne();
    EXPECT_TRUE(free);
}

TEST_F(TaskQueueTest, DestroysATaskBeforeExecOneReturns) {
    auto state = std::make_shared<int>(0);
    const std::weak_ptr<int> observed = state;
    bool aliveWhileRunning = false;
    ITaskQueue::Task task = [state = std::move(state), &observed, &aliveWhileRunning] {
        aliveWhileRunning = !observed.expired();
    };
    m_queue.AddTask(std::move(task), ITaskQueue::Middle);
    m_queue.ExecOne();
    EXPECT_TRUE(aliveWhileRunning);
    EXPECT_TRUE(observed.expired());
}

TEST_F(TaskQueueTest, DestroysATaskThatHasRunWithTheLockReleased) {
    bool free = false;
    m_queue.AddTask(
        [captured = Captured([&] { free = OtherThreadsUse(m_queue).ComesThrough(); })] {},
        ITaskQueue::Middle);
    m_queue.ExecOne();
    EXPECT_TRUE(free);
}

TEST_F(TaskQueueTest, PassesOnWhatATaskThrowsAndForgetsTheTask) {
    m_queue.AddTask([] { throw std::logic_error("task"); }, ITaskQueue::Middle);
    EXPECT_THROW(m_queue.ExecOne(), std::logic_error);
    EXPECT_FALSE(m_queue.ExecOne());
}

TEST_F(TaskQueueTest, KeepsTheOtherTasksWhenOneThrows) {
    m_queue.AddTask([] { throw std::logic_error("task"); }, ITaskQueue::Middle);
    Add(ITaskQueue::Middle, "second");
    EXPECT_THROW(m_queue.ExecOne(), std::logic_error);
    EXPECT_EQ(Drain(), "second ");
}

TEST_F(TaskQueueTest, DestroysATaskThatThrows) {
    auto state = std::make_shared<int>(0);
    const std::weak_ptr<int> observed = state;
    m_queue.AddTask([state = std::move(state)] { throw std::logic_error("task"); },
                    ITaskQueue::Middle);
    EXPECT_THROW(m_queue.ExecOne(), std::logic_error);
    EXPECT_TRUE(observed.expired());
}

TEST_F(TaskQueueTest, AcceptsAnEmptyTaskAndThrowsWhenItsTurnComes) {
    EXPECT_NO_THROW(m_queue.AddTask({}, ITaskQueue::Middle));
    EXPECT_THROW(m_queue.ExecOne(), std::bad_function_call);
    EXPECT_FALSE(m_queue.ExecOne());
}

TEST_F(TaskQueueTest, AnnouncesSeveralTasksOnce) {
    StrictMock<MockHandler> handler;
    m_queue.RegisterEventHandler(&handler);
    EXPECT_CALL(handler, OnQueueEvent(QueueEvent::QueueNotEmpty)).Times(1);
    Add();
    Add();
    Add();
}

TEST_F(TaskQueueTest, AnnouncesTasksWhenTheyAreAdded) {
    std::string order;
    FunctionHandler handler([&](QueueEvent) { order += "announced "; });
    m_queue.RegisterEventHandler(&handler);
    Add();
    order += "added ";
    EXPECT_EQ(order, "announced added ");
}

TEST_F(TaskQueueTest, AnnouncesNothingWhileTasksAreTaken) {
    Add();
    Add();
    Add();
    StrictMock<MockHandler> handler;
    m_queue.RegisterEventHandler(&handler);
    EXPECT_TRUE(m_queue.ExecOne());
    EXPECT_TRUE(m_queue.ExecOne());
    EXPECT_TRUE(m_queue.ExecOne());
}

TEST_F(TaskQueueTest, AnnouncesOnceThatNothingWasFound) {
    Add();
    EXPECT_TRUE(m_queue.ExecOne());
    StrictMock<MockHandler> handler;
    m_queue.RegisterEventHandler(&handler);
    EXPECT_CALL(handler, OnQueueEvent(QueueEvent::QueueEmpty)).Times(1);
    EXPECT_FALSE(m_queue.ExecOne());
    EXPECT_FALSE(m_queue.ExecOne());
}

TEST_F(TaskQueueTest, AnnouncesNothingWhenANewQueueIsFoundEmpty) {
    StrictMock<MockHandler> handler;
    m_queue.RegisterEventHandler(&handler);
    EXPECT_FALSE(m_queue.ExecOne());
}

// The queue has run out of tasks, but nobody has found it empty.
TEST_F(TaskQueueTest, DoesNotAnnounceATaskThatComesBeforeTheQueueWasFoundEmpty) {
    Add();
    StrictMock<MockHandler> handler;
    m_queue.RegisterEventHandler(&handler);
    EXPECT_TRUE(m_queue.ExecOne());
    Add();
}

TEST_F(TaskQueueTest, AnnouncesTasksAgainAfterItWasFoundEmpty) {
    std::vector<QueueEvent> events;
    FunctionHandler handler([&](QueueEvent event) { events.push_back(event); });
    m_queue.RegisterEventHandler(&handler);
    Add();
    Drain();
    Add();
    Drain();
    EXPECT_THAT(events, ElementsAre(QueueEvent::QueueNotEmpty, QueueEvent::QueueEmpty,
                                    QueueEvent::QueueNotEmpty, QueueEvent::QueueEmpty));
}

TEST_F(TaskQueueTest, DoesNotTellANewHandlerThePresentState) {
    Add();
    StrictMock<MockHandler> handler;
    m_queue.RegisterEventHandler(&handler);
    Add();
}

TEST_F(TaskQueueTest, TellsAHandlerOnceThatWasRegisteredTwice) {
    StrictMock<MockHandler> handler;
    m_queue.RegisterEventHandler(&handler);
    m_queue.RegisterEventHandler(&handler);
    EXPECT_CALL(handler, OnQueueEvent(QueueEvent::QueueNotEmpty)).Times(1);
    Add();
}

TEST_F(TaskQueueTest, TellsAHandlerNothingAfterItWasUnregistered) {
    StrictMock<MockHandler> handler;
    m_queue.RegisterEventHandler(&handler);
    m_queue.RegisterEventHandler(&handler);
    m_queue.UnregisterEventHandler(&handler);
    Add();
    Drain();
}

TEST_F(TaskQueueTest, IgnoresTheUnregisteringOfAHandlerThatIsNotRegistered) {
    StrictMock<MockHandler> handler;
    MockHandler stranger;
    m_queue.RegisterEventHandler(&handler);
    m_queue.UnregisterEventHandler(&stranger);
    EXPECT_CALL(handler, OnQueueEvent(QueueEvent::QueueNotEmpty)).Times(1);
    Add();
}

TEST_F(TaskQueueTest, TellsHandlersInTheOrderOfTheirAddresses) {
    std::array<std::unique_ptr<FunctionHandler>, 4> handlers;
    std::vector<ITaskQueueEventHandler*> told;
    for (auto& handler : handlers)
        handler = std::make_unique<FunctionHandler>(
            [&told, &handler](QueueEvent) { told.push_back(handler.get()); });
    for (const std::size_t index : {2U, 0U, 3U, 1U})
        m_queue.RegisterEventHandler(handlers[index].get());
    Add();
    EXPECT_EQ(told.size(), handlers.size());
    EXPECT_TRUE(std::is_sorted(told.begin(), told.end(), std::less<>()));
}

TEST_F(TaskQueueTest, TellsHandlersOnTheThreadThatCausesTheEvent) {
    std::vector<std::thread::id> threads;
    FunctionHandler handler([&](QueueEvent) { threads.push_back(std::this_thread::get_id()); });
    m_queue.RegisterEventHandler(&handler);
    std::thread::id adder;
    std::thread([&] {
        adder = std::this_thread::get_id();
        Add();
    }).join();
    Drain();
    EXPECT_THAT(threads, ElementsAre(adder, std::this_thread::get_id()));
}

TEST_F(TaskQueueTest, TellsHandlersOfTasksWithTheLockHeld) {
    std::unique_ptr<OtherThreadsUse> use;
    bool free = true;
    FunctionHandler handler([&](QueueEvent) {
        use = std::make_unique<OtherThreadsUse>(m_queue);
        free = use->ComesThrough();
    });
    m_queue.RegisterEventHandler(&handler);
    Add();
    EXPECT_FALSE(free);
    EXPECT_TRUE(use->ComesThrough());
}

TEST_F(TaskQueueTest, TellsHandlersOfEmptinessWithTheLockHeld) {
    Add();
    m_queue.ExecOne();
    std::unique_ptr<OtherThreadsUse> use;
    bool free = true;
    FunctionHandler handler([&](QueueEvent) {
        use = std::make_unique<OtherThreadsUse>(m_queue);
        free = use->ComesThrough();
    });
    m_queue.RegisterEventHandler(&handler);
    EXPECT_FALSE(m_queue.ExecOne());
    EXPECT_FALSE(free);
}

TEST_F(TaskQueueTest, NoThreadCanAddWhileAHandlerIsTold) {
    Event added;
    std::atomic<pid_t> adderId{0};
    std::thread adder;
    bool addedMeanwhile = true;
    FunctionHandler handler([&](QueueEvent) {
        adder = std::thread([&] {
            adderId = ThisThread();
            Add(ITaskQueue::Middle, "other");
            added.Set();
        });
        EXPECT_TRUE(
            WaitUntil([&] { return added.IsSet() || (adderId != 0 && AllSleep({adderId})); }));
        addedMeanwhile = added.IsSet();
    });
    m_queue.RegisterEventHandler(&handler);
    Add();
    adder.join();
    m_queue.UnregisterEventHandler(&handler);
    EXPECT_FALSE(addedMeanwhile);
    EXPECT_EQ(Drain(), "other ");
}

TEST_F(TaskQueueTest, HasTheTaskBeforeItAnnouncesIt) {
    // The lock is held during the announcement, so whoever waits for it finds the task afterwards.
    std::thread executor;
    std::atomic<pid_t> executorId{0};
    std::atomic<int> found{-1};
    FunctionHandler handler([&](QueueEvent event) {
        if (event != QueueEvent::QueueNotEmpty)
            return;
        executor = std::thread([&] {
            executorId = ThisThread();
            found = m_queue.ExecOne() ? 1 : 0;
        });
        EXPECT_TRUE(
            WaitUntil([&] { return found != -1 || (executorId != 0 && AllSleep({executorId})); }));
    });
    m_queue.RegisterEventHandler(&handler);
    Add();
    executor.join();
    EXPECT_EQ(found, 1);
}

TEST(TaskQueue, DestroysTheTasksItStillHoldsUnrun) {
    auto state = std::make_shared<int>(0);
    const std::weak_ptr<int> observed = state;
    bool ran = false;
    {
        TaskQueue queue;
        queue.AddTask([&ran, state = std::move(state)] { ran = true; }, ITaskQueue::Middle);
        EXPECT_FALSE(observed.expired());
    }
    EXPECT_TRUE(observed.expired());
    EXPECT_FALSE(ran);
}

TEST(TaskQueue, DestroysTheTasksItStillHoldsWithTheLockReleased) {
    bool free = false;
    {
        TaskQueue queue;
        queue.AddTask(
            [captured = Captured([&] { free = OtherThreadsUse(queue).ComesThrough(); })] {},
            ITaskQueue::Middle);
    }
    EXPECT_TRUE(free);
}

TEST(TaskQueue, TellsNobodyOfItsEnd) {
    StrictMock<MockHandler> handler;
    TaskQueue queue;
    queue.AddTask([] {}, ITaskQueue::Middle);
    queue.RegisterEventHandler(&handler);
}

TEST(TaskQueue, IsNotCopied) {
    EXPECT_FALSE(std::is_copy_constructible_v<TaskQueue>);
    EXPECT_FALSE(std::is_move_constructible_v<TaskQueue>);
}

TEST(ITaskQueue, NumbersThePriorities) {
    EXPECT_EQ(static_cast<int>(ITaskQueue::Highest), 0);
    EXPECT_EQ(static_cast<int>(ITaskQueue::Higher), 1);
    EXPECT_EQ(static_cast<int>(ITaskQueue::Middle), 2);
    EXPECT_EQ(static_cast<int>(ITaskQueue::Lower), 3);
    EXPECT_EQ(static_cast<int>(ITaskQueue::Lowest), 4);
    EXPECT_TRUE((std::is_same_v<std::underlying_type_t<ITaskQueue::Priority>, std::int32_t>));
    EXPECT_TRUE((std::is_convertible_v<ITaskQueue::Priority, int>));
}

TEST(ITaskQueue, KeepsTheOrderOfItsOperations) {
    EXPECT_EQ(VirtualSlot(&ITaskQueue::ExecOne), 1U);
    EXPECT_EQ(VirtualSlot(&ITaskQueue::AddTask), 2U);
    EXPECT_EQ(VirtualSlot(&ITaskQueue::RegisterEventHandler), 3U);
    EXPECT_EQ(VirtualSlot(&ITaskQueue::UnregisterEventHandler), 4U);
}

TEST(ITaskQueueEventHandler, NumbersTheEvents) {
    EXPECT_EQ(static_cast<int>(QueueEvent::QueueEmpty), 0);
    EXPECT_EQ(static_cast<int>(QueueEvent::QueueNotEmpty), 1);
    EXPECT_TRUE((std::is_same_v<std::underlying_type_t<QueueEvent>, std::int32_t>));
}

TEST(ITaskQueueEventHandler, HasOneOperation) {
    EXPECT_EQ(VirtualSlot(&ITaskQueueEventHandler::OnQueueEvent), 1U);
}

} // namespace
} // namespace Halvex::App
