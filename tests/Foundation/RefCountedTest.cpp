#include "Foundation/RefCounted.h"

#include "Foundation/IRefCountable.h"

#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace Halvex {
namespace {

class Counted : public RefCounted<IRefCountable> {
public:
    explicit Counted(int& deletions) : m_deletions(deletions) {}
    ~Counted() override { ++m_deletions; }

private:
    int& m_deletions;
};

class RefCountedTest : public testing::Test {
protected:
    int m_deletions = 0;
};

TEST_F(RefCountedTest, DeletesItselfWhenItsOnlyOwnerLetsGo) {
    boost::intrusive_ptr<IRefCountable> owner(new Counted(m_deletions));
    EXPECT_EQ(m_deletions, 0);
    owner.reset();
    EXPECT_EQ(m_deletions, 1);
}

TEST_F(RefCountedTest, LivesUntilTheLastOwnerLetsGo) {
    boost::intrusive_ptr<IRefCountable> first(new Counted(m_deletions));
    boost::intrusive_ptr<IRefCountable> second = first;
    first.reset();
    EXPECT_EQ(m_deletions, 0);
    second.reset();
    EXPECT_EQ(m_deletions, 1);
}

TEST_F(RefCountedTest, IsNobodysAtFirst) {
    auto* const object = new Counted(m_deletions);
    object->AddRef();
    object->Release();
    EXPECT_EQ(m_deletions, 1);
}

TEST_F(RefCountedTest, IsDeletedOnceByOwnersOnManyThreads) {
    constexpr int kThreads = 4;
    constexpr int kCopies = 5000;
    boost::intrusive_ptr<IRefCountable> owner(new Counted(m_deletions));
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([mine = owner] {
            for (int copy = 0; copy < kCopies; ++copy)
                const boost::intrusive_ptr<IRefCountable> another = mine;
        });
    }
    owner.reset();
    for (std::thread& thread : threads)
        thread.join();
    threads.clear();
    EXPECT_EQ(m_deletions, 1);
}

} // namespace
} // namespace Halvex
