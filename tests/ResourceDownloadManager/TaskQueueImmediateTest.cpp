#include "ResourceDownloadManager/TaskQueueImmediate.h"

#include "ResourceDownloadManager/ITaskQueueEventHandler.h"

#include <gmock/gmock.h>

#include <memory>
#include <stdexcept>
#include <thread>

namespace Halvex::App {
namespace {

class MockHandler : public ITaskQueueEventHandler {
public:
    MOCK_METHOD(void, OnQueueEvent, (QueueEvent), (override));
};

TEST(TaskQueueImmediate, RunsATaskBeforeAddTaskReturns) {
    TaskQueueImmediate queue;
    bool ran = false;
    queue.AddTask([&] { ran = true; }, ITaskQueue::Middle);
    EXPECT_TRUE(ran);
}

TEST(TaskQueueImmediate, RunsATaskOnTheThreadThatAddsIt) {
    TaskQueueImmediate queue;
    std::thread::id runner;
    std::thread::id adder;
    std::thread([&] {
        adder = std::this_thread::get_id();
        queue.AddTask([&] { runner = std::this_thread::get_id(); }, ITaskQueue::Middle);
    }).join();
    EXPECT_EQ(runner, adder);
}

TEST(TaskQueueImmediate, IgnoresThePriority) {
    TaskQueueImmediate queue;
    std::string order;
    queue.AddTask([&] { order += "lowest "; }, ITaskQueue::Lowest);
    queue.AddTask([&] { order += "highest "; }, ITaskQueue::Highest);
    queue.AddTask([&] { order += "unknown "; }, static_cast<ITaskQueue::Priority>(9));
    EXPECT_EQ(order, "lowest highest unknown ");
}

TEST(TaskQueueImmediate, RunsATaskThatATaskAddsInsideIt) {
    TaskQueueImmediate queue;
    std::string order;
    queue.AddTask(
        [&] {
            order += "begin ";
            queue.AddTask([&] { order += "inner "; }, ITaskQueue::Middle);
            order += "end ";
        },
        ITaskQueue::Middle);
    EXPECT_EQ(order, "begin inner end ");
}

TEST(TaskQueueImmediate, DestroysATaskThatThrows) {
    TaskQueueImmediate queue;
    auto state = std::make_shared<int>(0);
    const std::weak_ptr<int> observed = state;
    EXPECT_THROW(queue.AddTask([state = std::move(state)] { throw std::logic_error("task"); },
                               ITaskQueue::Middle),
                 std::logic_error);
    EXPECT_TRUE(observed.expired());
}

TEST(TaskQueueImmediate, DestroysATaskAfterItHasRunAndBeforeAddTaskReturns) {
    TaskQueueImmediate queue;
    auto state = std::make_shared<int>(0);
    const std::weak_ptr<int> observed = state;
    bool aliveWhileRunning = false;
    // The adder's own copy of the parameter must not keep it alive either.
    ITaskQueue::Task task = [state = std::move(state), &observed, &aliveWhileRunning] {
        aliveWhileRunning = !observed.expired();
    };
    queue.AddTask(std::move(task), ITaskQueue::Middle);
    EXPECT_TRUE(aliveWhileRunning);
    EXPECT_TRUE(observed.expired());
}

TEST(TaskQueueImmediate, ThrowsForAnEmptyTask) {
    TaskQueueImmediate queue;
    EXPECT_THROW(queue.AddTask({}, ITaskQueue::Middle), std::bad_function_call);
}

TEST(TaskQueueImmediate, PassesOnWhatATaskThrows) {
    TaskQueueImmediate queue;
    EXPECT_THROW(queue.AddTask([] { throw std::logic_error("task"); }, ITaskQueue::Middle),
                 std::logic_error);
}

TEST(TaskQueueImmediate, HasNothingToExecute) {
    TaskQueueImmediate queue;
    int runs = 0;
    EXPECT_FALSE(queue.ExecOne());
    queue.AddTask([&] { ++runs; }, ITaskQueue::Middle);
    EXPECT_FALSE(queue.ExecOne());
    EXPECT_EQ(runs, 1);
}

TEST(TaskQueueImmediate, TellsNoObserver) {
    TaskQueueImmediate queue;
    MockHandler handler;
    EXPECT_CALL(handler, OnQueueEvent).Times(0);
    queue.RegisterEventHandler(&handler);
    queue.AddTask([] {}, ITaskQueue::Middle);
    queue.ExecOne();
    queue.UnregisterEventHandler(&handler);
}

} // namespace
} // namespace Halvex::App
