#include "ResourceDownloadManager/DownloadRetrier.h"

#include "ResourceDownloadManager/ISchedulableResource.h"
#include "support/BackgroundCall.h"
#include "support/VirtualSlot.h"

#include <gmock/gmock.h>

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace Halvex::App {
namespace {

using DownloadError = IRemoteResource::DownloadError;
using Result = IDownloadRetrier::Result;
using State = IDownloadRetrier::ConnectionState;
using SchedulePriority = ISchedulableResource::SchedulePriority;
using Testing::BackgroundCall;
using testing::ElementsAre;
using testing::SizeIs;
using Testing::VirtualSlot;

class FakeResource : public ISchedulableResource {
public:
    explicit FakeResource(std::function<void(SchedulePriority)> onSchedule)
        : m_onSchedule(std::move(onSchedule)) {}

    void Schedule(SchedulePriority priority) override { m_onSchedule(priority); }

private:
    const std::function<void(SchedulePriority)> m_onSchedule;
};

class DownloadRetrierTest : public testing::Test {
protected:
    /// A resource that records under a name when it is scheduled.
    FakeResource MakeResource(const std::string& name) {
        return FakeResource([this, name](SchedulePriority priority) {
            m_retried.push_back(name);
            m_priorities.push_back(priority);
        });
    }

    void Fail(FakeResource& resource, DownloadError error = DownloadError::InternetConnectionLost) {
        m_retrier.DownloadFinished(&resource, error);
    }

    void Succeed(FakeResource& resource) {
        m_retrier.DownloadFinished(&resource, DownloadError::NoError);
    }

    /// Calls Check until it has nothing to retry.
    std::vector<Result> CheckAll() {
        std::vector<Result> results{m_retrier.Check()};
        while (results.back() != Result::NothingToRetry)
            results.push_back(m_retrier.Check());
        return results;
    }

    /// Retries a resource that keeps losing its connection, through the pauses.
    void Retry(FakeResource& resource, std::size_t times) {
        const std::size_t target = m_retried.size() + times;
        while (m_retried.size() < target) {
            Fail(resource);
            while (m_retrier.Check() == Result::Wait) {
            }
        }
    }

    DownloadRetrier m_retrier;
    std::vector<std::string> m_retried;
    std::vector<SchedulePriority> m_priorities;
    FakeResource m_a = MakeResource("a");
    FakeResource m_b = MakeResource("b");
    FakeResource m_c = MakeResource("c");
};

TEST_F(DownloadRetrierTest, IsNeitherCopiedNorMoved) {
    EXPECT_FALSE(std::is_copy_constructible_v<DownloadRetrier>);
    EXPECT_FALSE(std::is_copy_assignable_v<DownloadRetrier>);
    EXPECT_FALSE(std::is_move_constructible_v<DownloadRetrier>);
    EXPECT_FALSE(std::is_move_assignable_v<DownloadRetrier>);
}

TEST_F(DownloadRetrierTest, HasNothingToRetryAtFirst) {
    EXPECT_EQ(m_retrier.Check(), Result::NothingToRetry);
}

TEST_F(DownloadRetrierTest, IsGoodAtFirst) {
    EXPECT_EQ(m_retrier.GetState(), State::Good);
}

TEST_F(DownloadRetrierTest, HasNothingToRetryAfterASuccess) {
    Succeed(m_a);

    EXPECT_EQ(m_retrier.Check(), Result::NothingToRetry);
    EXPECT_THAT(m_retried, ElementsAre());
}

TEST_F(DownloadRetrierTest, SchedulesAFailedResourceOnce) {
    Fail(m_a, DownloadError::GeneralError);

    EXPECT_EQ(m_retrier.Check(), Result::Retried);
    EXPECT_EQ(m_retrier.Check(), Result::NothingToRetry);
    EXPECT_THAT(m_retried, ElementsAre("a"));
}

TEST_F(DownloadRetrierTest, SchedulesWithNormalPriority) {
    Fail(m_a);

    m_retrier.Check();

    EXPECT_THAT(m_priorities, ElementsAre(SchedulePriority::Normal));
}

TEST_F(DownloadRetrierTest, SchedulesOneResourcePerCheck) {
    Fail(m_a);
    Fail(m_b);

    m_retrier.Check();

    EXPECT_THAT(m_retried, ElementsAre("a"));
}

TEST_F(DownloadRetrierTest, RetriesInTheOrderOfTheFailures) {
    Fail(m_b);
    Fail(m_c);
    Fail(m_a);

    CheckAll();

    EXPECT_THAT(m_retried, ElementsAre("b", "c", "a"));
}

class DownloadRetrierErrorTest : public DownloadRetrierTest,
                                 public testing::WithParamInterface<DownloadError> {};

TEST_P(DownloadRetrierErrorTest, GivesUpAtTheSecondFailure) {
    Fail(m_a, GetParam());
    Fail(m_a, GetParam());

    CheckAll();

    EXPECT_THAT(m_retried, ElementsAre("a"));
}

INSTANTIATE_TEST_SUITE_P(EveryErrorButALostConnection, DownloadRetrierErrorTest,
                         testing::Values(DownloadError::GeneralError, DownloadError::Cancelled,
                                         DownloadError::Corrupted),
                         [](const auto& error) {
                             return IRemoteResource::ErrorToString(error.param);
                         });

TEST_F(DownloadRetrierTest, StaysGivenUpAfterARetry) {
    Fail(m_a, DownloadError::GeneralError);
    m_retrier.Check();
    Fail(m_a, DownloadError::GeneralError);

    EXPECT_EQ(m_retrier.Check(), Result::NothingToRetry);
}

TEST_F(DownloadRetrierTest, RetriesALostConnectionTwentyTimes) {
    for (int i = 0; i < 20; ++i)
        Fail(m_a);

    CheckAll();

    EXPECT_THAT(m_retried, SizeIs(20));
}

TEST_F(DownloadRetrierTest, GivesUpAtTheTwentyFirstLostConnection) {
    for (int i = 0; i < 21; ++i)
        Fail(m_a);

    CheckAll();

    EXPECT_THAT(m_retried, SizeIs(20));
}

TEST_F(DownloadRetrierTest, CountsLostConnectionsTowardsTheLimitOfOtherErrors) {
    Fail(m_a, DownloadError::InternetConnectionLost);
    Fail(m_a, DownloadError::GeneralError);

    CheckAll();

    EXPECT_THAT(m_retried, ElementsAre("a"));
}

TEST_F(DownloadRetrierTest, CountsOtherErrorsTowardsTheLimitOfLostConnections) {
    Fail(m_a, DownloadError::GeneralError);
    Fail(m_a, DownloadError::Corrupted);
    for (int i = 0; i < 19; ++i)
        Fail(m_a, DownloadError::InternetConnectionLost);

    CheckAll();

    EXPECT_THAT(m_retried, SizeIs(1 + 18));
}

TEST_F(DownloadRetrierTest, RetriesALostConnectionAfterAnotherErrorWasGivenUp) {
    Fail(m_a, DownloadError::GeneralError);
    Fail(m_a, DownloadError::GeneralError);
    Fail(m_a, DownloadError::InternetConnectionLost);

    CheckAll();

    EXPECT_THAT(m_retried, ElementsAre("a", "a"));
}

TEST_F(DownloadRetrierTest, CountsTheFailuresOfEachResource) {
    Fail(m_a, DownloadError::GeneralError);
    Fail(m_b, DownloadError::GeneralError);
    Fail(m_c, DownloadError::GeneralError);

    CheckAll();

    EXPECT_THAT(m_retried, ElementsAre("a", "b", "c"));
}

TEST_F(DownloadRetrierTest, ForgetsTheFailuresOfAResourceThatSucceeds) {
    Fail(m_a, DownloadError::GeneralError);
    m_retrier.Check();
    Succeed(m_a);
    Fail(m_a, DownloadError::GeneralError);

    EXPECT_EQ(m_retrier.Check(), Result::Retried);
}

TEST_F(DownloadRetrierTest, KeepsTheFailuresOfAResourceWhenAnotherSucceeds) {
    Fail(m_a, DownloadError::GeneralError);
    m_retrier.Check();
    Succeed(m_b);
    Fail(m_a, DownloadError::GeneralError);

    EXPECT_EQ(m_retrier.Check(), Result::NothingToRetry);
}

TEST_F(DownloadRetrierTest, SkipsAResourceThatHasSucceededSince) {
    Fail(m_a);
    Fail(m_b);
    Succeed(m_a);

    EXPECT_EQ(m_retrier.Check(), Result::Retried);
    EXPECT_THAT(m_retried, ElementsAre("b"));
}

TEST_F(DownloadRetrierTest, SkipsEveryEntryOfAResourceThatHasSucceededSince) {
    Fail(m_a);
    Fail(m_b);
    Fail(m_a);
    Succeed(m_a);
    Succeed(m_b);

    EXPECT_EQ(m_retrier.Check(), Result::NothingToRetry);
}

TEST_F(DownloadRetrierTest, KeepsTheOtherResourcesQueuedOnASuccess) {
    Fail(m_a);
    Fail(m_b);
    Succeed(m_c);

    CheckAll();

    EXPECT_THAT(m_retried, ElementsAre("a", "b"));
}

TEST_F(DownloadRetrierTest, RetriesAResourceThatIsQueuedTwiceTwice) {
    Fail(m_a);
    Fail(m_b);
    Fail(m_a);

    CheckAll();

    EXPECT_THAT(m_retried, ElementsAre("a", "b", "a"));
}

TEST_F(DownloadRetrierTest, KeepsTheEntryOfAResourceThatSucceedsAndFailsAgain) {
    Fail(m_a, DownloadError::GeneralError);
    Succeed(m_a);
    Fail(m_a, DownloadError::GeneralError);

    CheckAll();

    EXPECT_THAT(m_retried, ElementsAre("a", "a"));
}

TEST_F(DownloadRetrierTest, StaysGoodForTwoRetries) {
    Retry(m_a, 2);

    EXPECT_EQ(m_retrier.GetState(), State::Good);
}

TEST_F(DownloadRetrierTest, IsUnstableFromTheThirdRetry) {
    Retry(m_a, 3);

    EXPECT_EQ(m_retrier.GetState(), State::Unstable);
}

TEST_F(DownloadRetrierTest, CountsTheRetriesOfAllResources) {
    Fail(m_a, DownloadError::GeneralError);
    Fail(m_b, DownloadError::Corrupted);
    Fail(m_c, DownloadError::InternetConnectionLost);

    CheckAll();

    EXPECT_EQ(m_retrier.GetState(), State::Unstable);
}

TEST_F(DownloadRetrierTest, IsNotMadeUnstableByFailuresAlone) {
    for (int i = 0; i < 20; ++i)
        Fail(m_a);

    EXPECT_EQ(m_retrier.GetState(), State::Good);
}

TEST_F(DownloadRetrierTest, DoesNotCountSkippedResourcesAsRetries) {
    Fail(m_a);
    Fail(m_b);
    Succeed(m_a);
    Succeed(m_b);
    Retry(m_c, 2);

    EXPECT_EQ(m_retrier.GetState(), State::Good);
}

TEST_F(DownloadRetrierTest, StaysUnstableForTenRetries) {
    Retry(m_a, 10);

    EXPECT_EQ(m_retrier.GetState(), State::Unstable);
}

TEST_F(DownloadRetrierTest, IsLostFromTheEleventhRetry) {
    Retry(m_a, 11);

    EXPECT_EQ(m_retrier.GetState(), State::Lost);
}

TEST_F(DownloadRetrierTest, StaysLost) {
    Retry(m_a, 15);

    EXPECT_EQ(m_retrier.GetState(), State::Lost);
}

TEST_F(DownloadRetrierTest, NeverWaitsWhileGood) {
    Fail(m_a);
    Fail(m_a);
    Fail(m_a);

    EXPECT_THAT(CheckAll(), ElementsAre(Result::Retried, Result::Retried, Result::Retried,
                                        Result::NothingToRetry));
}

TEST_F(DownloadRetrierTest, AnswersWaitAndRetriedInTurnOnceUnstable) {
    Retry(m_a, 3);
    Fail(m_a);
    Fail(m_b);

    EXPECT_THAT(CheckAll(), ElementsAre(Result::Wait, Result::Retried, Result::Wait,
                                        Result::Retried, Result::NothingToRetry));
}

TEST_F(DownloadRetrierTest, AnswersWaitAndRetriedInTurnWhenLost) {
    Retry(m_a, 11);
    Fail(m_a);
    Fail(m_b);

    EXPECT_THAT(CheckAll(), ElementsAre(Result::Wait, Result::Retried, Result::Wait,
                                        Result::Retried, Result::NothingToRetry));
}

TEST_F(DownloadRetrierTest, DoesNotWaitAnewForWhatFailsDuringAWait) {
    Retry(m_a, 3);
    Fail(m_a);
    EXPECT_EQ(m_retrier.Check(), Result::Wait);
    Fail(m_b);
    EXPECT_EQ(m_retrier.Check(), Result::Retried);
}

TEST_F(DownloadRetrierTest, SchedulesNothingOnWait) {
    Retry(m_a, 3);
    Fail(m_b);

    m_retrier.Check();

    EXPECT_THAT(m_retried, ElementsAre("a", "a", "a"));
}

TEST_F(DownloadRetrierTest, DoesNotCountAWaitAsARetry) {
    Retry(m_a, 10);
    Fail(m_b);

    EXPECT_EQ(m_retrier.Check(), Result::Wait);
    EXPECT_EQ(m_retrier.GetState(), State::Unstable);
    EXPECT_EQ(m_retrier.Check(), Result::Retried);
    EXPECT_EQ(m_retrier.GetState(), State::Lost);
}

TEST_F(DownloadRetrierTest, RetriesTheResourceItWaitedForFirst) {
    Retry(m_a, 3);
    m_retried.clear();
    Fail(m_b);
    Fail(m_c);

    m_retrier.Check();
    Fail(m_a);
    CheckAll();

    EXPECT_THAT(m_retried, ElementsAre("b", "c", "a"));
}

TEST_F(DownloadRetrierTest, HasNothingToRetryWithAnEmptyQueueWhileUnstable) {
    Retry(m_a, 3);

    EXPECT_EQ(m_retrier.Check(), Result::NothingToRetry);
}

TEST_F(DownloadRetrierTest, RetriesTheNextResourceWhenTheOneItWaitedForSucceeds) {
    Retry(m_a, 3);
    m_retried.clear();
    Fail(m_b);
    Fail(m_c);

    m_retrier.Check();
    Succeed(m_b);

    EXPECT_EQ(m_retrier.Check(), Result::Retried);
    EXPECT_THAT(m_retried, ElementsAre("c"));
}

TEST_F(DownloadRetrierTest, IsGoodAgainAfterASuccessWhileUnstable) {
    Retry(m_a, 3);

    Succeed(m_a);

    EXPECT_EQ(m_retrier.GetState(), State::Good);
}

TEST_F(DownloadRetrierTest, IsGoodAgainAfterASuccessWhileLost) {
    Retry(m_a, 11);

    Succeed(m_a);

    EXPECT_EQ(m_retrier.GetState(), State::Good);
}

TEST_F(DownloadRetrierTest, IsGoodAgainAfterTheSuccessOfAnyResource) {
    Retry(m_a, 3);

    Succeed(m_b);

    EXPECT_EQ(m_retrier.GetState(), State::Good);
}

TEST_F(DownloadRetrierTest, StaysUnstableOnAFailure) {
    Retry(m_a, 3);

    Fail(m_b, DownloadError::GeneralError);

    EXPECT_EQ(m_retrier.GetState(), State::Unstable);
}

TEST_F(DownloadRetrierTest, DoesNotWaitAfterASuccess) {
    Retry(m_a, 3);
    Fail(m_b);
    Succeed(m_a);

    EXPECT_EQ(m_retrier.Check(), Result::Retried);
}

TEST_F(DownloadRetrierTest, CountsRetriesAnewAfterASuccessOfAnyResource) {
    Retry(m_a, 2);
    Succeed(m_b);

    Retry(m_a, 2);
    EXPECT_EQ(m_retrier.GetState(), State::Good);
    Retry(m_a, 1);
    EXPECT_EQ(m_retrier.GetState(), State::Unstable);
}

/// Tries a call of the retrier on another thread from inside Schedule: does it block?
bool BlocksWhileScheduling(const std::function<void(DownloadRetrier&)>& call) {
    DownloadRetrier retrier;
    std::unique_ptr<BackgroundCall> background;
    bool blocked = false;
    FakeResource resource([&](SchedulePriority) {
        background = std::make_unique<BackgroundCall>([&] { call(retrier); });
        blocked = background->Blocks();
    });
    retrier.DownloadFinished(&resource, DownloadError::GeneralError);
    retrier.Check();
    EXPECT_TRUE(background->Returns());
    return blocked;
}

TEST_F(DownloadRetrierTest, KeepsGetStateOutWhileItSchedules) {
    EXPECT_TRUE(BlocksWhileScheduling([](DownloadRetrier& retrier) { retrier.GetState(); }));
}

TEST_F(DownloadRetrierTest, KeepsDownloadFinishedOutWhileItSchedules) {
    EXPECT_TRUE(BlocksWhileScheduling([this](DownloadRetrier& retrier) {
        retrier.DownloadFinished(&m_a, DownloadError::NoError);
    }));
}

TEST_F(DownloadRetrierTest, KeepsCheckOutWhileItSchedules) {
    EXPECT_TRUE(BlocksWhileScheduling([](DownloadRetrier& retrier) { retrier.Check(); }));
}

TEST_F(DownloadRetrierTest, RetriesEveryFailureReportedFromManyThreads) {
    constexpr int kThreads = 4;
    constexpr int kResourcesPerThread = 200;
    std::deque<FakeResource> resources;
    for (int i = 0; i < kThreads * kResourcesPerThread; ++i)
        resources.emplace_back(
            [this, i](SchedulePriority) { m_retried.push_back(std::to_string(i)); });
    std::atomic<int> running{kThreads};
    std::deque<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread)
        threads.emplace_back([&, thread] {
            for (int i = 0; i < kResourcesPerThread; ++i)
                Fail(resources[static_cast<std::size_t>(thread * kResourcesPerThread + i)],
                     DownloadError::GeneralError);
            --running;
        });

    while (running != 0)
        m_retrier.Check();
    for (std::thread& thread : threads)
        thread.join();
    CheckAll();

    std::vector<std::string> everyResource;
    for (std::size_t i = 0; i < resources.size(); ++i)
        everyResource.push_back(std::to_string(i));
    EXPECT_THAT(m_retried, testing::UnorderedElementsAreArray(everyResource));
}

TEST(IDownloadRetrier, NumbersItsAnswers) {
    EXPECT_EQ(static_cast<int>(Result::NothingToRetry), 0);
    EXPECT_EQ(static_cast<int>(Result::Retried), 1);
    EXPECT_EQ(static_cast<int>(Result::Wait), 2);
    EXPECT_TRUE((std::is_same_v<std::underlying_type_t<Result>, std::int32_t>));
    EXPECT_EQ(static_cast<int>(State::Good), 0);
    EXPECT_EQ(static_cast<int>(State::Unstable), 1);
    EXPECT_EQ(static_cast<int>(State::Lost), 2);
    EXPECT_TRUE((std::is_same_v<std::underlying_type_t<State>, std::int32_t>));
}

TEST(IDownloadRetrier, KeepsTheOrderOfItsOperations) {
    EXPECT_EQ(VirtualSlot(&IDownloadRetrier::DownloadFinished), 1U);
    EXPECT_EQ(VirtualSlot(&IDownloadRetrier::Check), 2U);
    EXPECT_EQ(VirtualSlot(&IDownloadRetrier::GetState), 3U);
}

} // namespace
} // namespace Halvex::App
