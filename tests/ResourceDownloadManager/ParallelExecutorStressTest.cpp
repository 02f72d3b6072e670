#include "ResourceDownloadManager/ParallelExecutor.h"

#include "ResourceDownloadManager/TaskQueue.h"
#include "support/ThreadStarts.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>

#include <atomic>
#include <functional>
#include <iostream>
#include <memory>
#include <random>
#include <system_error>
#include <thread>
#include <vector>

namespace Halvex::App {
namespace {

using Result = IExecutor::Result;
using Testing::WaitUntil;

class ParallelExecutorStressTest : public testing::Test {
protected:
    ParallelExecutorStressTest() {
        const unsigned seed = std::random_device()();
        std::cout << "seed " << seed << std::endl;
        m_generator.seed(seed);
    }

    void Add(ITaskQueue::Task task) { m_queue.AddTask(std::move(task), ITaskQueue::Middle); }

    /// Adds a task that adds two such trees, and so on, so many levels deep.
    void AddTree(int levels) {
        Add([this, levels] {
            ++m_ran;
            for (int i = 0; i < 2 && levels > 1; ++i)
                AddTree(levels - 1);
        });
    }

    /// Adds a task that adds itself again whenever it has run.
    void AddEndless(TaskQueue& queue) {
        const auto runAndAddAgain = [this, &queue] {
            ++m_ran;
            AddEndless(queue);
        };
        queue.AddTask(runAndAddAgain, ITaskQueue::Middle);
    }

    /// A task that feeds the other workers one task at a time, so that they park and resume all the
    /// time, until the end is near.
    struct Feeding {
        std::atomic<int> eaten{0};
        std::atomic<bool> ending{false};

        void Start(TaskQueue& queue) {
            queue.AddTask([this, &queue] { Feed(queue); }, ITaskQueue::Middle);
        }

        void Feed(TaskQueue& queue) {
            for (int fed = 1; !ending; ++fed) {
                queue.AddTask([this] { ++eaten; }, ITaskQueue::Middle);
                EXPECT_TRUE(WaitUntil([&] { return eaten == fed || ending; }));
            }
        }
    };

    int Random(int least, int greatest) {
        return std::uniform_int_distribution<int>(least, greatest)(m_generator);
    }

    /// Lets a moment of some length pass.
    void Dally() {
        for (std::atomic<int> left{Random(0, 60000)}; left > 0; --left) {
        }
    }

    std::mt19937 m_generator;
    std::atomic<int> m_ran{0};
    TaskQueue m_queue;
};

TEST_F(ParallelExecutorStressTest, OneCallRunsAWholeTreeOfTasks) {
    for (int round = 0; round < 100; ++round) {
        ParallelExecutor executor(4);
        m_ran = 0;
        AddTree(8);
        EXPECT_EQ(executor.ExecQueue(m_queue), Result::TasksExecuted);
        EXPECT_EQ(m_ran, 255);
    }
}

TEST_F(ParallelExecutorStressTest, LosesNoTaskThatOtherThreadsAdd) {
    constexpr int kAdders = 4;
    constexpr int kTasks = 1000;
    ParallelExecutor executor(4);
    std::vector<std::thread> adders;
    for (int i = 0; i < kAdders; ++i) {
        adders.emplace_back([this] {
            for (int task = 0; task < kTasks; ++task)
                Add([this] { ++m_ran; });
        });
    }
    EXPECT_TRUE(WaitUntil([&] {
        executor.ExecQueue(m_queue);
        return m_ran == kAdders * kTasks;
    }));
    for (std::thread& adder : adders)
        adder.join();
    EXPECT_EQ(executor.ExecQueue(m_queue), Result::NothingExecuted);
}

TEST_F(ParallelExecutorStressTest, CallsOfManyThreadsTakeTurns) {
    ParallelExecutor executor(2);
    std::atomic<int> added{0};
    std::vector<std::thread> callers;
    for (int i = 0; i < 4; ++i) {
        callers.emplace_back([&] {
            for (int call = 0; call < 50; ++call) {
                ++added;
                AddTree(1);
                executor.ExecQueue(m_queue);
            }
        });
    }
    for (std::thread& caller : callers)
        caller.join();
    EXPECT_EQ(m_ran, added);
}

TEST_F(ParallelExecutorStressTest, AbortAtAnyMomentEndsTheCallAndAllTasks) {
    for (int round = 0; round < 100; ++round) {
        TaskQueue queue;
        ParallelExecutor executor(4);
        AddEndless(queue);
        AddEndless(queue);
        std::thread caller([&] { executor.ExecQueue(queue); });
        Dally();
        executor.Abort();
        // A call that has not begun by now runs nothing.
        const int ran = m_ran;
        caller.join();
        EXPECT_EQ(executor.ExecQueue(queue), Result::NothingExecuted);
        EXPECT_EQ(m_ran, ran);
    }
}

// The moment to catch is the one in which a worker has seen that nobody has aborted and does not
// yet wait.
TEST_F(ParallelExecutorStressTest, AbortReachesWorkersThatAreAboutToPark) {
    for (int round = 0; round < 200; ++round) {
        Feeding feeding;
        TaskQueue queue;
        ParallelExecutor executor(3);
        feeding.Start(queue);
        std::thread caller([&] { executor.ExecQueue(queue); });
        EXPECT_TRUE(WaitUntil([&] { return feeding.eaten != 0; }));
        Dally();
        feeding.ending = true;
        executor.Abort();
        caller.join();
    }
}

TEST_F(ParallelExecutorStressTest, ItsEndAtAnyMomentEndsTheCall) {
    for (int round = 0; round < 100; ++round) {
        std::atomic<bool> running{false};
        TaskQueue queue;
        auto executor = std::make_unique<ParallelExecutor>(4);
        queue.AddTask([&] { running = true; }, ITaskQueue::Middle);
        AddEndless(queue);
        std::thread caller([&, called = executor.get()] { called->ExecQueue(queue); });
        EXPECT_TRUE(WaitUntil([&] { return running.load(); }));
        Dally();
        executor.reset();
        const int ran = m_ran;
        caller.join();
        EXPECT_EQ(m_ran, ran);
    }
}

TEST_F(ParallelExecutorStressTest, ItsEndReachesStartedThreadsThatAreAboutToPark) {
    for (int round = 0; round < 200; ++round) {
        Feeding feeding;
        TaskQueue queue;
        ParallelExecutor executor(4);
        feeding.Start(queue);
        {
            const Testing::LimitedThreadStarts limit(3);
            EXPECT_THROW(executor.ExecQueue(queue), std::system_error);
        }
        EXPECT_TRUE(WaitUntil([&] { return feeding.eaten != 0; }));
        Dally();
        feeding.ending = true;
    }
}

} // namespace
} // namespace Halvex::App
