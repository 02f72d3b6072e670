#include "ResourceDownloadManager/AggregateState.h"

#include "support/RecomputedState.h"
#include "support/Sanitizers.h"
#include "support/SchedulingFakes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <tuple>
#include <vector>

namespace Halvex::App {
namespace {

using namespace Halvex::Testing;
using Error = IRemoteResource::DownloadError;
using State = IRemoteResource::State;
using Status = IRemoteResource::DownloadStatus;

constexpr int kRandomChanges = kSanitized ? 100'000 : 1'000'000;

constexpr double kNotANumber = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kLargest = 18446744073709551616.0;

State Waiting() {
    return {};
}
State Available() {
    return {Status::Available, Error::NoError, 1.0};
}
State Failed(Error error) {
    return {Status::Error, error, 0.0};
}
State Downloading(double progress) {
    return {Status::Dowloading, Error::NoError, progress};
}

AggregateState Of(const std::vector<State>& members) {
    AggregateState aggregate;
    for (const State& member : members)
        aggregate.Add(member);
    return aggregate;
}

void Replace(AggregateState& aggregate, const State& from, const State& to) {
    aggregate.Remove(from);
    aggregate.Add(to);
}

// Statuses.

class AggregateStatus : public testing::TestWithParam<std::tuple<Status, Status, Status>> {};

TEST_P(AggregateStatus, FollowsFromThoseOfTwoMembersInEitherOrder) {
    const auto& [one, other, expected] = GetParam();
    EXPECT_EQ(Of({{one, Error::NoError, 0}, {other, Error::NoError, 0}}).Result().status, expected);
    EXPECT_EQ(Of({{other, Error::NoError, 0}, {one, Error::NoError, 0}}).Result().status, expected);
}

INSTANTIATE_TEST_SUITE_P(
    AllPairs, AggregateStatus,
    testing::Values(std::tuple(Status::Waiting, Status::Waiting, Status::Waiting),
                    std::tuple(Status::Waiting, Status::Dowloading, Status::Dowloading),
                    std::tuple(Status::Waiting, Status::Available, Status::Dowloading),
                    std::tuple(Status::Waiting, Status::Error, Status::Error),
                    std::tuple(Status::Dowloading, Status::Dowloading, Status::Dowloading),
                    std::tuple(Status::Dowloading, Status::Available, Status::Dowloading),
                    std::tuple(Status::Dowloading, Status::Error, Status::Error),
                    std::tuple(Status::Available, Status::Available, Status::Available),
                    std::tuple(Status::Available, Status::Error, Status::Error),
                    std::tuple(Status::Error, Status::Error, Status::Error)));

TEST(AggregateState, OneErrorAmongManyMakesItAnError) {
    EXPECT_EQ(
        Of({Available(), Downloading(0.5), Failed(Error::Corrupted), Waiting()}).Result().status,
        Status::Error);
}

TEST(AggregateState, OneMissingMemberKeepsItFromBeingAvailable) {
    EXPECT_EQ(Of({Available(), Available(), Waiting()}).Result().status, Status::Dowloading);
}

TEST(AggregateState, AnUnknownStatusCountsAsWaiting) {
    const State unknown{static_cast<Status>(-1), Error::NoError, 0};
    EXPECT_EQ(Of({unknown, Waiting()}).Result().status, Status::Waiting);
    EXPECT_EQ(Of({unknown, Available()}).Result().status, Status::Dowloading);
}

// Errors.

class AggregateError : public testing::TestWithParam<std::tuple<Error, Error, Error>> {};

TEST_P(AggregateError, FollowsFromThoseOfTwoMembersInEitherOrder) {
    const auto& [one, other, expected] = GetParam();
    EXPECT_EQ(Of({Failed(one), Failed(other)}).Result().error, expected);
    EXPECT_EQ(Of({Failed(other), Failed(one)}).Result().error, expected);
}

INSTANTIATE_TEST_SUITE_P(
    AllPairs, AggregateError,
    testing::Values(
        std::tuple(Error::NoError, Error::NoError, Error::NoError),
        std::tuple(Error::NoError, Error::GeneralError, Error::GeneralError),
        std::tuple(Error::NoError, Error::Cancelled, Error::Cancelled),
        std::tuple(Error::NoError, Error::Corrupted, Error::Corrupted),
        std::tuple(Error::NoError, Error::InternetConnectionLost, Error::InternetConnectionLost),
        std::tuple(Error::GeneralError, Error::GeneralError, Error::GeneralError),
        std::tuple(Error::GeneralError, Error::Cancelled, Error::Cancelled),
        std::tuple(Error::GeneralError, Error::Corrupted, Error::Corrupted),
        std::tuple(Error::GeneralError, Error::InternetConnectionLost,
                   Error::InternetConnectionLost),
        std::tuple(Error::Cancelled, Error::Cancelled, Error::Cancelled),
        std::tuple(Error::Cancelled, Error::Corrupted, Error::Cancelled),
        std::tuple(Error::Cancelled, Error::InternetConnectionLost, Error::Cancelled),
        std::tuple(Error::Corrupted, Error::Corrupted, Error::Corrupted),
        std::tuple(Error::Corrupted, Error::InternetConnectionLost, Error::InternetConnectionLost),
        std::tuple(Error::InternetConnectionLost, Error::InternetConnectionLost,
                   Error::InternetConnectionLost)));

TEST(AggregateState, AnUnknownErrorCountsAsAGeneralOne) {
    EXPECT_EQ(Of({Failed(static_cast<Error>(99)), Waiting()}).Result().error, Error::GeneralError);
    EXPECT_EQ(Of({Failed(static_cast<Error>(-1)), Waiting()}).Result().error, Error::GeneralError);
}

TEST(AggregateState, StatusAndErrorAreIndependent) {
    EXPECT_EQ(Describe(Of({{Status::Waiting, Error::Cancelled, 0}, Downloading(0.5)}).Result()),
              "Dowloading Cancelled 0.25");
}

// Progress.

TEST(AggregateState, ProgressIsTheMean) {
    EXPECT_EQ(Describe(Of({Available(), Waiting()}).Result()), "Dowloading NoError 0.5");
    EXPECT_EQ(Of({Available(), Waiting(), Waiting(), Downloading(0.5)}).Result().progress, 0.375);
}

TEST(AggregateState, ProgressIsExactlyOneWhenAllAreDone) {
    AggregateState aggregate;
    for (int i = 0; i < 1000; ++i)
        aggregate.Add(Waiting());
    for (int i = 0; i < 1000; ++i) {
        State previous = Waiting();
        for (int step = 1; step < 10; ++step) {
            const State next = Downloading(step / 10.0);
            Replace(aggregate, previous, next);
            previous = next;
        }
        Replace(aggregate, previous, Available());
    }
    EXPECT_EQ(aggregate.Result().progress, 1.0);
    EXPECT_EQ(aggregate.Result().status, Status::Available);
}

TEST(AggregateState, ProgressIsNotANumberWhileThatOfAMemberIsNot) {
    EXPECT_TRUE(std::isnan(Of({Downloading(kNotANumber), Available()}).Result().progress));
    EXPECT_TRUE(
        std::isnan(Of({Downloading(kNotANumber), Downloading(kInfinity)}).Result().progress));
}

TEST(AggregateState, ProgressIsInfiniteWhileThatOfAMemberIs) {
    EXPECT_EQ(Of({Downloading(kInfinity), Available()}).Result().progress, kInfinity);
}

class AggregateStateAfterA : public testing::TestWithParam<double> {};

TEST_P(AggregateStateAfterA, VisitingValueIsExactlyAsBefore) {
    const State visited = Downloading(0.1);
    AggregateState aggregate = Of({visited, Downloading(0.2), Downloading(1.0 / 3.0)});
    const double before = aggregate.Result().progress;
    Replace(aggregate, visited, Downloading(GetParam()));
    EXPECT_NE(aggregate.Result().progress, before);
    Replace(aggregate, Downloading(GetParam()), visited);
    EXPECT_EQ(aggregate.Result().progress, before);
}

INSTANTIATE_TEST_SUITE_P(All, AggregateStateAfterA,
                         testing::Values(kNotANumber, -kNotANumber, kInfinity, kLargest, 1e18 + 0.5,
                                         1e-3, 0.7));

TEST(AggregateState, ProgressesOfTheLargestValueAddUp) {
    EXPECT_EQ(Of(std::vector<State>(1000, Downloading(kLargest))).Result().progress, kLargest);
}

TEST(AggregateState, ASmallProgressIsNotLostBesideALargeOne) {
    AggregateState aggregate = Of({Downloading(kLargest), Downloading(1e-6)});
    aggregate.Remove(Downloading(kLargest));
    EXPECT_DOUBLE_EQ(aggregate.Result().progress, 1e-6);
}

// The same as computing it again from all members, whatever has changed before.

/// Equal up to the rounding of the plain sum, or smaller than what the exact one resolves.
bool IsSameProgress(double one, double other) {
    if (std::isnan(one) || std::isnan(other))
        return std::isnan(one) && std::isnan(other);
    if (std::isinf(one) || std::isinf(other))
        return one == other;
    return std::abs(one - other) <= std::max(1e-12 * std::abs(other), 1e-25);
}

class RandomMembers {
public:
    explicit RandomMembers(std::uint64_t seed) : m_random(seed) {}

    void Change() {
        const std::size_t choice = m_random() % 16;
        if (m_members.empty() || (choice == 0 && m_members.size() < 40))
            Add();
        else if (choice == 1 && m_members.size() > 1)
            Remove();
        else
            ReplaceOne();
    }

    const std::vector<State>& Members() const { return m_members; }
    const AggregateState& Aggregate() const { return m_aggregate; }

private:
    void Add() {
        m_members.push_back(RandomState());
        m_aggregate.Add(m_members.back());
    }
    void Remove() {
        std::swap(m_members[m_random() % m_members.size()], m_members.back());
        m_aggregate.Remove(m_members.back());
        m_members.pop_back();
    }
    void ReplaceOne() {
        State& member = m_members[m_random() % m_members.size()];
        m_aggregate.Remove(member);
        member = RandomState();
        m_aggregate.Add(member);
    }

    State RandomState() {
        // Exotic values are rare, so that sums of plain ones alone are compared too.
        return {static_cast<Status>(m_random() % 4), static_cast<Error>(m_random() % 5),
                m_random() % 64 == 0 ? ExoticProgress() : PlainProgress()};
    }
    double PlainProgress() {
        const std::uint64_t total = 1 + (m_random() >> (m_random() % 64) >> 1);
        return static_cast<double>(m_random() % (total + 1)) / static_cast<double>(total);
    }
    double ExoticProgress() {
        switch (m_random() % 4) {
        case 0:
            return kNotANumber;
        case 1:
            return kInfinity;
        case 2:
            return static_cast<double>(m_random());
        default:
            return kLargest;
        }
    }

    std::mt19937_64 m_random;
    std::vector<State> m_members;
    AggregateState m_aggregate;
};

TEST(AggregateState, IsTheSameAsComputedAgainAfterAnyChanges) {
    const std::uint64_t seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomMembers random(seed);
    for (int i = 0; i < kRandomChanges; ++i) {
        random.Change();
        const State actual = random.Aggregate().Result();
        const State expected = Recomputed(random.Members());
        ASSERT_EQ(actual.status, expected.status) << "change " << i;
        ASSERT_EQ(actual.error, expected.error) << "change " << i;
        ASSERT_TRUE(IsSameProgress(actual.progress, expected.progress))
            << "change " << i << ": " << actual.progress << " for " << expected.progress;
    }
}

} // namespace
} // namespace Halvex::App
