#include "ResourceDownloadManager/TaskQueueWatcher.h"

#include "ResourceDownloadManager/ITaskQueue.h"
#include "ResourceDownloadManager/TaskQueue.h"
#include "support/BackgroundCall.h"

#include <gmock/gmock.h>

#include <chrono>
#include <cstdint>
#include <limits>
#include <optional>

namespace Halvex::App {
namespace {

using QueueEvent = ITaskQueueEventHandler::QueueEvent;
using Testing::BackgroundCall;

class MockTaskQueue : public ITaskQueue {
public:
    MOCK_METHOD(bool, ExecOne, (), (override));
    MOCK_METHOD(void, AddTask, (Task, Priority), (override));
    MOCK_METHOD(void, RegisterEventHandler, (ITaskQueueEventHandler*), (override));
    MOCK_METHOD(void, UnregisterEventHandler, (ITaskQueueEventHandler*), (override));
};

class TaskQueueWatcherTest : public testing::Test {
protected:
    /// Ends the waits that a test has left.
    void TearDown() override { m_watcher.Deactivate(); }

    /// Waits on a thread of its own.
    BackgroundCall& StartWait(std::int64_t seconds) {
        return m_wait.emplace([this, seconds] { m_watcher.WaitForTasks(seconds); });
    }

    TaskQueue m_queue;
    TaskQueueWatcher m_watcher{m_queue};
    /// Destroyed first.
    std::optional<BackgroundCall> m_wait;
};

TEST(TaskQueueWatcher, RegistersOnceWhenItIsMade) {
    testing::NiceMock<MockTaskQueue> queue;
    ITaskQueueEventHandler* registered = nullptr;
    EXPECT_CALL(queue, RegisterEventHandler).WillOnce(testing::SaveArg<0>(&registered));
    EXPECT_CALL(queue, UnregisterEventHandler).Times(0);

    const TaskQueueWatcher watcher(queue);

    EXPECT_EQ(registered, &watcher);
    testing::Mock::VerifyAndClearExpectations(&queue);
}

TEST(TaskQueueWatcher, UnregistersOnceWhenItEnds) {
    testing::NiceMock<MockTaskQueue> queue;
    ITaskQueueEventHandler* address = nullptr;
    {
        TaskQueueWatcher watcher(queue);
        address = &watcher;
        EXPECT_CALL(queue, RegisterEventHandler).Times(0);
        EXPECT_CALL(queue, UnregisterEventHandler(address)).Times(1);
    }
    testing::Mock::VerifyAndClearExpectations(&queue);
}

TEST(TaskQueueWatcher, StaysRegisteredWhenItIsDeactivated) {
    testing::NiceMock<MockTaskQueue> queue;
    TaskQueueWatcher watcher(queue);
    EXPECT_CALL(queue, UnregisterEventHandler).Times(0);

    watcher.Deactivate();

    testing::Mock::VerifyAndClearExpectations(&queue);
}

TEST_F(TaskQueueWatcherTest, IsActiveAtFirst) {
    EXPECT_TRUE(m_watcher.IsActive());
}

TEST_F(TaskQueueWatcherTest, IsInactiveOnceDeactivated) {
    m_watcher.Deactivate();

    EXPECT_FALSE(m_watcher.IsActive());
}

TEST_F(TaskQueueWatcherTest, StaysInactiveWhenTasksCome) {
    m_watcher.Deactivate();

    m_watcher.OnQueueEvent(QueueEvent::QueueNotEmpty);

    EXPECT_FALSE(m_watcher.IsActive());
}

TEST_F(TaskQueueWatcherTest, WaitsAtFirst) {
    EXPECT_TRUE(StartWait(60).Blocks());
}

TEST_F(TaskQueueWatcherTest, WaitsWithoutALimitForZeroSeconds) {
    EXPECT_TRUE(StartWait(0).Blocks());
}

TEST_F(TaskQueueWatcherTest, WaitsWithoutALimitForNegativeSeconds) {
    EXPECT_TRUE(StartWait(-1).Blocks());
}

TEST_F(TaskQueueWatcherTest, WaitsWithoutALimitForTheSmallestSeconds) {
    EXPECT_TRUE(StartWait(std::numeric_limits<std::int64_t>::min()).Blocks());
}

TEST_F(TaskQueueWatcherTest, WaitsUntilTheEndOfTimeForSecondsThatDoNotFit) {
    EXPECT_TRUE(StartWait(std::numeric_limits<std::int64_t>::max()).Blocks());
}

TEST_F(TaskQueueWatcherTest, WaitsUntilTheEndOfTimeForSecondsThatDoNotFitOnceAddedToNow) {
    const auto endOfTime = std::chrono::duration_cast<std::chrono::seconds>(
        std::chrono::steady_clock::duration::max());

    EXPECT_TRUE(StartWait(endOfTime.count()).Blocks());
}

TEST_F(TaskQueueWatcherTest, StopsWaitingWhenTheSecondsHavePassed) {
    const auto start = std::chrono::steady_clock::now();

    m_watcher.WaitForTasks(1);

    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_TRUE(m_watcher.IsActive());
}

class TaskQueueWatcherLimitTest : public TaskQueueWatcherTest,
                                  public testing::WithParamInterface<std::int64_t> {};

TEST_P(TaskQueueWatcherLimitTest, StopsWaitingWhenTasksCome) {
    BackgroundCall& wait = StartWait(GetParam());
    ASSERT_TRUE(wait.Blocks());

    m_watcher.OnQueueEvent(QueueEvent::QueueNotEmpty);

    EXPECT_TRUE(wait.Returns());
}

TEST_P(TaskQueueWatcherLimitTest, StopsWaitingWhenItIsDeactivated) {
    BackgroundCall& wait = StartWait(GetParam());
    ASSERT_TRUE(wait.Blocks());

    m_watcher.Deactivate();

    EXPECT_TRUE(wait.Returns());
}

TEST_P(TaskQueueWatcherLimitTest, GoesOnWaitingWhenTheQueueIsAnnouncedAsEmpty) {
    BackgroundCall& wait = StartWait(GetParam());
    ASSERT_TRUE(wait.Blocks());

    m_watcher.OnQueueEvent(QueueEvent::QueueEmpty);

    EXPECT_TRUE(wait.Blocks());
}

TEST_P(TaskQueueWatcherLimitTest, DoesNotWaitWhenTasksHaveCome) {
    m_watcher.OnQueueEvent(QueueEvent::QueueNotEmpty);

    EXPECT_TRUE(StartWait(GetParam()).Returns());
}

TEST_P(TaskQueueWatcherLimitTest, DoesNotWaitOnceDeactivated) {
    m_watcher.Deactivate();

    EXPECT_TRUE(StartWait(GetParam()).Returns());
}

TEST_P(TaskQueueWatcherLimitTest, WaitsWhenTasksHaveComeAndGone) {
    m_watcher.OnQueueEvent(QueueEvent::QueueNotEmpty);
    m_watcher.OnQueueEvent(QueueEvent::QueueEmpty);

    EXPECT_TRUE(StartWait(GetParam()).Blocks());
}

INSTANTIATE_TEST_SUITE_P(WithAndWithoutALimit, TaskQueueWatcherLimitTest,
                         testing::Values(0, 1'000'000), [](const auto& seconds) {
                             return seconds.param == 0 ? "WithoutALimit" : "WithALimit";
                         });

TEST_F(TaskQueueWatcherTest, RemembersThatTasksHaveComeBeyondOneWait) {
    m_watcher.OnQueueEvent(QueueEvent::QueueNotEmpty);
    m_watcher.WaitForTasks(0);

    EXPECT_TRUE(StartWait(0).Returns());
}

TEST_F(TaskQueueWatcherTest, StopsWaitingForATaskOfItsQueue) {
    BackgroundCall& wait = StartWait(0);
    ASSERT_TRUE(wait.Blocks());

    m_queue.AddTask([] {}, ITaskQueue::Middle);

    EXPECT_TRUE(wait.Returns());
}

TEST_F(TaskQueueWatcherTest, DoesNotKnowOfTasksFromBeforeItWasMade) {
    TaskQueue queue;
    queue.AddTask([] {}, ITaskQueue::Middle);
    TaskQueueWatcher watcher(queue);
    BackgroundCall wait([&] { watcher.WaitForTasks(0); });

    EXPECT_TRUE(wait.Blocks());

    watcher.Deactivate();
}

} // namespace
} // namespace Halvex::App
