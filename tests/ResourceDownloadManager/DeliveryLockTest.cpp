#include "ResourceDownloadManager/DeliveryLock.h"

#include "support/SleepingThreads.h"
#include "support/Waiting.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

namespace Halvex::App {
namespace {

using namespace Halvex::Testing;

/// Enough for a call that nothing holds up to come through.
constexpr std::chrono::milliseconds kHeldUp(50);

/// A thread that takes the lock and gives it back at once.
class Contender {
public:
    explicit Contender(DeliveryLock& lock)
        : m_thread([this, &lock] {
              m_id = ThisThread();
              const DeliveryScope scope(lock);
              m_hasHeld.Set();
          }) {}
    ~Contender() { m_thread.join(); }

    Contender(const Contender&) = delete;
    Contender& operator=(const Contender&) = delete;

    bool WaitUntilItWaits() {
        return WaitUntil([this] { return m_id != 0 && AllSleep({m_id}); });
    }
    bool HasHeldIt(std::chrono::milliseconds limit = kGenerousLimit) {
        return m_hasHeld.Wait(limit);
    }

private:
    std::atomic<pid_t> m_id{0};
    Event m_hasHeld;
    std::thread m_thread;
};

/// Inside n scopes of the same lock, on one thread.
template <typename Action>
void InScopes(DeliveryLock& lock, int n, const Action& action) {
    std::vector<std::unique_ptr<DeliveryScope>> scopes;
    for (int i = 0; i < n; ++i)
        scopes.push_back(std::make_unique<DeliveryScope>(lock));
    action();
}

TEST(DeliveryLock, CanBeTakenAgainByItsHolder) {
    DeliveryLock lock;
    bool isReached = false;
    InScopes(lock, 3, [&isReached] { isReached = true; });
    EXPECT_TRUE(isReached);
}

TEST(DeliveryLock, KeepsOtherThreadsOut) {
    DeliveryLock lock;
    std::unique_ptr<Contender> other;
    InScopes(lock, 1, [&lock, &other] {
        other = std::make_unique<Contender>(lock);
        EXPECT_FALSE(other->HasHeldIt(kHeldUp));
    });
    EXPECT_TRUE(other->HasHeldIt());
}

TEST(DeliveryLock, IsHeldUntilItsLastScopeEnds) {
    DeliveryLock lock;
    std::unique_ptr<Contender> other;
    InScopes(lock, 1, [&lock, &other] {
        InScopes(lock, 1, [] {});
        other = std::make_unique<Contender>(lock);
        EXPECT_FALSE(other->HasHeldIt(kHeldUp));
    });
    EXPECT_TRUE(other->HasHeldIt());
}

TEST(DeliveryLock, LetsAWaitingThreadInBeforeItsHolderTakesItAnew) {
    DeliveryLock lock;
    std::unique_ptr<Contender> other;
    InScopes(lock, 1, [&lock, &other] {
        other = std::make_unique<Contender>(lock);
        EXPECT_TRUE(other->WaitUntilItWaits());
    });
    InScopes(lock, 1, [&other] { EXPECT_TRUE(other->HasHeldIt(std::chrono::milliseconds(0))); });
}

TEST(DeliveryLock, CanBeTakenByAnotherThreadLater) {
    DeliveryLock lock;
    InScopes(lock, 2, [] {});
    EXPECT_TRUE(Contender(lock).HasHeldIt());
    EXPECT_TRUE(Contender(lock).HasHeldIt());
}

TEST(DeliveryLock, LetsEveryWaitingThreadInInTheEnd) {
    DeliveryLock lock;
    std::vector<std::unique_ptr<Contender>> others;
    InScopes(lock, 2, [&lock, &others] {
        for (int i = 0; i < 8; ++i)
            others.push_back(std::make_unique<Contender>(lock));
    });
    for (const auto& other : others)
        EXPECT_TRUE(other->HasHeldIt());
}

TEST(DeliveryLock, IsFreeAfterAnException) {
    DeliveryLock lock;
    EXPECT_THROW(InScopes(lock, 2, [] { throw std::runtime_error("an observer's"); }),
                 std::runtime_error);
    EXPECT_TRUE(Contender(lock).HasHeldIt());
}

TEST(DeliveryLock, LetsOneThreadInAtATime) {
    DeliveryLock lock;
    int count = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&lock, &count] {
            for (int n = 0; n < 1000; ++n)
                InScopes(lock, 1 + n % 2, [&count] { ++count; });
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(count, 4000);
}

} // namespace
} // namespace Halvex::App
