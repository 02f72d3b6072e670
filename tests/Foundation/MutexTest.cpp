#include "Foundation/Mutex.h"

#include "support/Waiting.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>
#include <vector>

namespace Halvex {
namespace {

/// Whether another thread could take the mutex now.
bool IsFree(Mutex& mutex) {
    return std::async(std::launch::async,
                      [&mutex] {
                          if (!mutex.try_lock())
                              return false;
                          mutex.unlock();
                          return true;
                      })
        .get();
}

TEST(MutexLock, HoldsTheMutexUntilTheEndOfItsScope) {
    Mutex mutex;
    {
        const MutexLock lock(mutex);
        EXPECT_FALSE(IsFree(mutex));
    }
    EXPECT_TRUE(IsFree(mutex));
}

TEST(MutexLock, GivesTheMutexBackEarly) {
    Mutex mutex;
    MutexLock lock(mutex);
    lock.Unlock();
    EXPECT_TRUE(IsFree(mutex));
}

TEST(MutexLock, TakesOverAMutexThatIsLockedAlready) {
    Mutex mutex;
    mutex.lock();
    {
        const MutexLock lock(mutex, std::adopt_lock);
        EXPECT_FALSE(IsFree(mutex));
    }
    EXPECT_TRUE(IsFree(mutex));
}

TEST(MutexLock, GivesTheMutexAwayWhileItWaits) {
    Mutex mutex;
    std::condition_variable changed;
    bool done = false;
    MutexLock lock(mutex);
    std::thread other([&] {
        const MutexLock otherLock(mutex);
        done = true;
        changed.notify_one();
    });
    while (!done)
        lock.Wait(changed);
    EXPECT_FALSE(IsFree(mutex));
    lock.Unlock();
    other.join();
}

TEST(MutexLock, TellsThatTheDeadlineHasPassed) {
    Mutex mutex;
    std::condition_variable changed;
    MutexLock lock(mutex);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(5);
    while (lock.WaitUntil(changed, deadline)) {
    }
    EXPECT_GE(std::chrono::steady_clock::now(), deadline);
    EXPECT_FALSE(IsFree(mutex));
}

TEST(MutexLock, TellsThatItWasNotifiedBeforeTheDeadline) {
    Mutex mutex;
    std::condition_variable changed;
    bool done = false;
    MutexLock lock(mutex);
    std::thread other([&] {
        const MutexLock otherLock(mutex);
        done = true;
        changed.notify_one();
    });
    const auto deadline = std::chrono::steady_clock::now() + Testing::kGenerousLimit;
    bool inTime = true;
    while (!done && inTime)
        inTime = lock.WaitUntil(changed, deadline);
    EXPECT_TRUE(inTime);
    lock.Unlock();
    other.join();
}

TEST(Mutex, LetsOneThreadInAtATime) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 5000;
    Mutex mutex;
    int count = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds; ++round) {
                const MutexLock lock(mutex);
                ++count;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(count, kThreads * kRounds);
}

} // namespace
} // namespace Halvex
