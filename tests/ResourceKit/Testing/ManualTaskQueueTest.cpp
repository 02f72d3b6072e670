#include "ResourceKit/Testing/ManualTaskQueue.h"

#include "ResourceDownloadManager/BlockingExecutor.h"
#include "ResourceDownloadManager/ITaskQueueEventHandler.h"

#include <gmock/gmock.h>

#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace Halvex::Kit::Testing {
namespace {

using App::ITaskQueue;
using testing::ElementsAre;

class ManualTaskQueueTest : public testing::Test {
protected:
    void Add(const std::string& name, ITaskQueue::Priority priority = ITaskQueue::Middle) {
        m_queue.AddTask([this, name] { m_run.push_back(name); }, priority);
    }

    ManualTaskQueue m_queue;
    std::vector<std::string> m_run;
};

TEST_F(ManualTaskQueueTest, RunsNothingByItself) {
    Add("a");
    EXPECT_EQ(m_queue.Size(), 1U);
    EXPECT_THAT(m_run, ElementsAre());
}

TEST_F(ManualTaskQueueTest, RunsTheMostUrgentTaskFirstAndEqualOnesInTheirOrder) {
    Add("low", ITaskQueue::Lowest);
    Add("first");
    Add("beyond", static_cast<ITaskQueue::Priority>(std::numeric_limits<std::int32_t>::max()));
    Add("second");
    Add("high", ITaskQueue::Highest);
    EXPECT_TRUE(m_queue.RunOne());
    EXPECT_THAT(m_run, ElementsAre("high"));
    EXPECT_EQ(m_queue.Size(), 4U);
    EXPECT_EQ(m_queue.RunAll(), 4U);
    EXPECT_THAT(m_run, ElementsAre("high", "first", "second", "low", "beyond"));
}

TEST_F(ManualTaskQueueTest, HasNothingToRunWhenItIsEmpty) {
    EXPECT_FALSE(m_queue.RunOne());
    EXPECT_EQ(m_queue.RunAll(), 0U);
    EXPECT_EQ(m_queue.Size(), 0U);
}

TEST_F(ManualTaskQueueTest, RunsWhatTasksAdd) {
    m_queue.AddTask(
        [this] {
            EXPECT_EQ(m_queue.Size(), 0U);
            Add("added");
        },
        ITaskQueue::Middle);
    EXPECT_EQ(m_queue.RunAll(), 2U);
    EXPECT_THAT(m_run, ElementsAre("added"));
}

TEST_F(ManualTaskQueueTest, LetsOutWhatATaskThrowsAndGoesOnBehindIt) {
    m_queue.AddTask([] { throw std::runtime_error("task"); }, ITaskQueue::Middle);
    Add("next");
    EXPECT_THROW(m_queue.RunAll(), std::runtime_error);
    EXPECT_EQ(m_queue.RunAll(), 1U);
}

TEST_F(ManualTaskQueueTest, GivesNothingToAnExecutor) {
    Add("a");
    EXPECT_FALSE(m_queue.ExecOne());
    App::BlockingExecutor().ExecQueue(m_queue);
    EXPECT_THAT(m_run, ElementsAre());
    EXPECT_EQ(m_queue.Size(), 1U);
}

TEST_F(ManualTaskQueueTest, TellsNobody) {
    struct Listener : App::ITaskQueueEventHandler {
        void OnQueueEvent(QueueEvent) override { ADD_FAILURE(); }
    } listener;
    m_queue.RegisterEventHandler(&listener);
    Add("a");
    m_queue.RunAll();
    m_queue.RunOne();
    m_queue.UnregisterEventHandler(&listener);
    EXPECT_THAT(m_run, ElementsAre("a"));
}

TEST_F(ManualTaskQueueTest, DestroysTasksUnrunAtItsEnd) {
    const auto token = std::make_shared<int>();
    auto queue = std::make_unique<ManualTaskQueue>();
    queue->AddTask([token] { ADD_FAILURE(); }, ITaskQueue::Middle);
    EXPECT_EQ(token.use_count(), 2);
    queue.reset();
    EXPECT_EQ(token.use_count(), 1);
}

TEST_F(ManualTaskQueueTest, TakesTasksFromManyThreads) {
    constexpr int kThreads = 4;
    constexpr int kTasks = 500;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([this] {
            for (int n = 0; n < kTasks; ++n)
                Add("task");
        });
    }
    while (m_run.size() < std::size_t{kThreads} * kTasks)
        m_queue.RunOne();
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(m_queue.Size(), 0U);
}

} // namespace
} // namespace Halvex::Kit::Testing
