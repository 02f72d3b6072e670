#include "ResourceDownloadManager/BlockingExecutor.h"

#include "ResourceDownloadManager/TaskQueue.h"
#include "support/VirtualSlot.h"

#include <gmock/gmock.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace Halvex::App {
namespace {

using Result = IExecutor::Result;
using testing::Return;
using Testing::VirtualSlot;

class MockTaskQueue : public ITaskQueue {
public:
    MOCK_METHOD(bool, ExecOne, (), (override));
    MOCK_METHOD(void, AddTask, (Task, Priority), (override));
    MOCK_METHOD(void, RegisterEventHandler, (ITaskQueueEventHandler*), (override));
    MOCK_METHOD(void, UnregisterEventHandler, (ITaskQueueEventHandler*), (override));
};

class BlockingExecutorTest : public testing::Test {
protected:
    TaskQueue m_queue;
    BlockingExecutor m_executor;
};

TEST_F(BlockingExecutorTest, RunsNothingForAnEmptyQueue) {
    EXPECT_EQ(m_executor.ExecQueue(m_queue), Result::NothingExecuted);
}

TEST_F(BlockingExecutorTest, RunsAllTasks) {
    int runs = 0;
    for (int i = 0; i < 3; ++i)
        m_queue.AddTask([&] { ++runs; }, ITaskQueue::Middle);
    EXPECT_EQ(m_executor.ExecQueue(m_queue), Result::TasksExecuted);
    EXPECT_EQ(runs, 3);
}

TEST_F(BlockingExecutorTest, RunsTasksOnTheCallersThread) {
    std::vector<std::thread::id> runners;
    for (int i = 0; i < 3; ++i)
        m_queue.AddTask([&] { runners.push_back(std::this_thread::get_id()); }, ITaskQueue::Middle);
    m_executor.ExecQueue(m_queue);
    EXPECT_EQ(runners, std::vector<std::thread::id>(3, std::this_thread::get_id()));
}

TEST_F(BlockingExecutorTest, RunsTheTasksThatTasksAdd) {
    std::string order;
    m_queue.AddTask(
        [&] {
            order += "first ";
            m_queue.AddTask([&] { order += "second "; }, ITaskQueue::Middle);
        },
        ITaskQueue::Middle);
    EXPECT_EQ(m_executor.ExecQueue(m_queue), Result::TasksExecuted);
    EXPECT_EQ(order, "first second ");
}

TEST_F(BlockingExecutorTest, LooksIntoAnEmptyQueueOnce) {
    testing::StrictMock<MockTaskQueue> queue;
    EXPECT_CALL(queue, ExecOne).WillOnce(Return(false));
    EXPECT_EQ(m_executor.ExecQueue(queue), Result::NothingExecuted);
}

TEST_F(BlockingExecutorTest, LooksUntilThereIsNothing) {
    testing::StrictMock<MockTaskQueue> queue;
    EXPECT_CALL(queue, ExecOne)
        .WillOnce(Return(true))
        .WillOnce(Return(true))
        .WillOnce(Return(true))
        .WillOnce(Return(false));
    EXPECT_EQ(m_executor.ExecQueue(queue), Result::TasksExecuted);
}

TEST_F(BlockingExecutorTest, PassesOnWhatATaskThrowsAndLeavesTheOtherTasks) {
    bool ran = false;
    m_queue.AddTask([] { throw std::logic_error("task"); }, ITaskQueue::Middle);
    m_queue.AddTask([&] { ran = true; }, ITaskQueue::Middle);
    EXPECT_THROW(m_executor.ExecQueue(m_queue), std::logic_error);
    EXPECT_FALSE(ran);
    EXPECT_EQ(m_executor.ExecQueue(m_queue), Result::TasksExecuted);
    EXPECT_TRUE(ran);
}

TEST_F(BlockingExecutorTest, PassesOnWhatALaterTaskThrows) {
    m_queue.AddTask([] {}, ITaskQueue::Middle);
    m_queue.AddTask([] { throw std::logic_error("task"); }, ITaskQueue::Middle);
    EXPECT_THROW(m_executor.ExecQueue(m_queue), std::logic_error);
}

TEST_F(BlockingExecutorTest, DrainsTheQueueEvenWhenAborted) {
    int runs = 0;
    m_queue.AddTask([&] { ++runs; }, ITaskQueue::Middle);
    m_queue.AddTask(
        [&] {
            ++runs;
            m_executor.Abort();
        },
        ITaskQueue::Higher);
    m_executor.Abort();
    EXPECT_EQ(m_executor.ExecQueue(m_queue), Result::TasksExecuted);
    EXPECT_EQ(runs, 2);
}

TEST(IExecutor, NumbersTheResults) {
    EXPECT_EQ(static_cast<int>(Result::NothingExecuted), 0);
    EXPECT_EQ(static_cast<int>(Result::TasksExecuted), 1);
    EXPECT_TRUE((std::is_same_v<std::underlying_type_t<Result>, std::int32_t>));
}

TEST(IExecutor, KeepsTheOrderOfItsOperations) {
    EXPECT_EQ(VirtualSlot(&IExecutor::ExecQueue), 1U);
    EXPECT_EQ(VirtualSlot(&IExecutor::Abort), 2U);
}

} // namespace
} // namespace Halvex::App
