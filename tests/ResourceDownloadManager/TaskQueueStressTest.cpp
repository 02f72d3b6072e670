#include "ResourceDownloadManager/TaskQueue.h"

#include "Foundation/Mutex.h"
#include "ResourceDownloadManager/ITaskQueueEventHandler.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <functional>
#include <iostream>
#include <memory>
#include <random>
#include <thread>
#include <utility>
#include <vector>

namespace Halvex::App {
namespace {

using QueueEvent = ITaskQueueEventHandler::QueueEvent;

constexpr unsigned kThreads = 4;
constexpr int kTasksPerThread = 5000;

/// Checks that the announcements take turns, tasks first, as the queue's state does.
class TurnTaker : public ITaskQueueEventHandler {
public:
    void OnQueueEvent(QueueEvent event) override {
        const bool nowHasTasks = event == QueueEvent::QueueNotEmpty;
        if (m_hasTasks == nowHasTasks)
            ++m_repeated;
        m_hasTasks = nowHasTasks;
    }

    /// For when nobody uses the queue any more.
    int Repeated() const { return m_repeated; }

private:
    // The queue's own lock guards them.
    bool m_hasTasks = false;
    int m_repeated = 0;
};

class TaskQueueStressTest : public testing::Test {
protected:
    TaskQueueStressTest() : m_seed(std::random_device()()) {
        std::cout << "seed " << m_seed << std::endl;
    }

    /// Runs work(thread's number, a generator of its own) on several threads, and waits for them.
    template <typename Work>
    void OnThreads(unsigned count, Work work) {
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < count; ++i) {
            threads.emplace_back([this, work, i] {
                std::mt19937 generator(m_seed + i);
                work(i, generator);
            });
        }
        for (std::thread& thread : threads)
            thread.join();
    }

    /// Priorities that nobody has named among them.
    static ITaskQueue::Priority SomePriority(std::mt19937& generator) {
        return static_cast<ITaskQueue::Priority>(
            std::uniform_int_distribution<int>(-1, 5)(generator));
    }

    const unsigned m_seed;
    TaskQueue m_queue;
};

TEST_F(TaskQueueStressTest, RunsEachTaskOfManyThreadsOnce) {
    std::vector<std::atomic<int>> runs(kThreads * kTasksPerThread);
    std::atomic<int> ended{0};
    OnThreads(2 * kThreads, [&](unsigned thread, std::mt19937& generator) {
        if (thread < kThreads) {
            for (int i = 0; i < kTasksPerThread; ++i) {
                std::atomic<int>& run = runs[thread * kTasksPerThread + static_cast<unsigned>(i)];
                m_queue.AddTask(
                    [&run, &ended] {
                        ++run;
                        ++ended;
                    },
                    SomePriority(generator));
            }
            return;
        }
        EXPECT_TRUE(Testing::WaitUntil([&] {
            while (m_queue.ExecOne()) {
            }
            return ended == static_cast<int>(runs.size());
        }));
    });
    for (const std::atomic<int>& run : runs)
        EXPECT_EQ(run, 1);
}

TEST_F(TaskQueueStressTest, KeepsEachThreadsOrderWithinAPriority) {
    constexpr std::size_t kPriorities = 5;
    // The number of the latest task that ran, by thread and priority; only this thread runs tasks.
    std::array<std::array<int, kPriorities>, kThreads> latest{};
    int ran = 0;
    int outOfOrder = 0;
    std::thread adders([&] {
        OnThreads(kThreads, [&](unsigned thread, std::mt19937& generator) {
            for (int i = 1; i <= kTasksPerThread; ++i) {
                const auto priority =
                    std::uniform_int_distribution<unsigned>(0, kPriorities - 1)(generator);
                m_queue.AddTask(
                    [&, thread, priority, i] {
                        if (std::exchange(latest[thread][priority], i) >= i)
                            ++outOfOrder;
                        ++ran;
                    },
                    static_cast<ITaskQueue::Priority>(priority));
            }
        });
    });
    EXPECT_TRUE(Testing::WaitUntil([&] {
        while (m_queue.ExecOne()) {
        }
        return ran == static_cast<int>(kThreads) * kTasksPerThread;
    }));
    adders.join();
    EXPECT_EQ(outOfOrder, 0);
}

TEST_F(TaskQueueStressTest, AnnouncementsTakeTurnsWhileHandlersComeAndGo) {
    TurnTaker turnTaker;
    m_queue.RegisterEventHandler(&turnTaker);
    OnThreads(kThreads, [&](unsigned, std::mt19937& generator) {
        for (int i = 0; i < kTasksPerThread; ++i) {
            switch (std::uniform_int_distribution<int>(0, 4)(generator)) {
            case 0: {
                // Must not be told anything once it is unregistered, which the sanitizers see.
                const auto shortLived = std::make_unique<TurnTaker>();
                m_queue.RegisterEventHandler(shortLived.get());
                m_queue.UnregisterEventHandler(shortLived.get());
                break;
            }
            case 1:
            case 2:
                m_queue.AddTask([] {}, SomePriority(generator));
                break;
            default:
                m_queue.ExecOne();
            }
        }
    });
    m_queue.UnregisterEventHandler(&turnTaker);
    EXPECT_EQ(turnTaker.Repeated(), 0);
}

TEST_F(TaskQueueStressTest, RunsTheTasksThatTasksAdd) {
    constexpr int kFollowUps = 2000;
    std::atomic<int> ran{0};
    std::function<void(int)> addChain = [&](int length) {
        m_queue.AddTask(
            [&, length] {
                ++ran;
                if (length > 1)
                    addChain(length - 1);
            },
            ITaskQueue::Middle);
    };
    for (unsigned i = 0; i < kThreads; ++i)
        addChain(kFollowUps);
    OnThreads(kThreads, [&](unsigned, std::mt19937&) {
        EXPECT_TRUE(Testing::WaitUntil([&] {
            m_queue.ExecOne();
            return ran == static_cast<int>(kThreads) * kFollowUps;
        }));
    });
    EXPECT_FALSE(m_queue.ExecOne());
}

TEST_F(TaskQueueStressTest, DestroysTheTasksItStillHoldsUnrun) {
    auto queue = std::make_unique<TaskQueue>();
    const auto captured = std::make_shared<int>(0);
    std::atomic<int> ran{0};
    OnThreads(2 * kThreads, [&](unsigned thread, std::mt19937& generator) {
        for (int i = 0; i < kTasksPerThread; ++i) {
            if (thread < kThreads)
                queue->AddTask([&ran, captured] { ++ran; }, SomePriority(generator));
            else if (i % 2 == 0)
                queue->ExecOne();
        }
    });
    const int ranBefore = ran;
    queue.reset();
    EXPECT_EQ(ran, ranBefore);
    EXPECT_EQ(captured.use_count(), 1);
}

} // namespace
} // namespace Halvex::App
