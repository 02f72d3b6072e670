#include "ResourceDownloadManager/IRemoteResource.h"

#include "ResourceDownloadManager/IRemoteResourceEventHandler.h"
#include "support/VirtualSlot.h"

#include <gmock/gmock.h>

#include <cstddef>
#include <limits>
#include <type_traits>

namespace Halvex::App {
namespace {

using Status = IRemoteResource::DownloadStatus;
using Error = IRemoteResource::DownloadError;
using State = IRemoteResource::State;
using Params = IRemoteResource::NotificationParams;
using SchedulePriority = ISchedulableResource::SchedulePriority;
using testing::ElementsAre;
using Testing::VirtualSlot;

std::int32_t PercentageOf(double progress) {
    return State{Status::Dowloading, Error::NoError, progress}.GetPercentage();
}

std::string TextOf(double progress) {
    return State{Status::Dowloading, Error::NoError, progress}.ToDebugString();
}

template <typename Enumeration>
constexpr bool kIsSigned32Bit = std::is_same_v<std::underlying_type_t<Enumeration>, std::int32_t>;

template <typename Interface>
constexpr bool
    kIsOnlyAnInterface = std::is_abstract_v<Interface>&& std::has_virtual_destructor_v<Interface> &&
                         sizeof(Interface) == sizeof(void*);

TEST(IRemoteResource, EnumerationsHave32Bits) {
    EXPECT_TRUE(kIsSigned32Bit<Status>);
    EXPECT_TRUE(kIsSigned32Bit<Error>);
    EXPECT_TRUE(kIsSigned32Bit<SchedulePriority>);
}

TEST(IRemoteResource, NumbersTheStatuses) {
    EXPECT_EQ(static_cast<int>(Status::Waiting), 0);
    EXPECT_EQ(static_cast<int>(Status::Dowloading), 1);
    EXPECT_EQ(static_cast<int>(Status::Available), 2);
    EXPECT_EQ(static_cast<int>(Status::Error), 3);
}

TEST(IRemoteResource, NumbersTheErrors) {
    EXPECT_EQ(static_cast<int>(Error::NoError), 0);
    EXPECT_EQ(static_cast<int>(Error::GeneralError), 1);
    EXPECT_EQ(static_cast<int>(Error::Cancelled), 2);
    EXPECT_EQ(static_cast<int>(Error::Corrupted), 3);
    EXPECT_EQ(static_cast<int>(Error::InternetConnectionLost), 4);
}

TEST(IRemoteResource, NumbersTheSchedulePriorities) {
    EXPECT_EQ(static_cast<int>(SchedulePriority::High), 0);
    EXPECT_EQ(static_cast<int>(SchedulePriority::Normal), 1);
    EXPECT_EQ(static_cast<int>(SchedulePriority::Low), 2);
}

TEST(IRemoteResource, NamesTheStatuses) {
    EXPECT_EQ(IRemoteResource::StatusToString(Status::Waiting), "Waiting");
    EXPECT_EQ(IRemoteResource::StatusToString(Status::Available), "Available");
    EXPECT_EQ(IRemoteResource::StatusToString(Status::Error), "Error");
}

TEST(IRemoteResource, NamesStatusOneWithoutTheSecondN) {
    EXPECT_EQ(IRemoteResource::StatusToString(static_cast<Status>(1)), "Dowloading");
}

TEST(IRemoteResource, NamesTheErrors) {
    EXPECT_EQ(IRemoteResource::ErrorToString(Error::NoError), "NoError");
    EXPECT_EQ(IRemoteResource::ErrorToString(Error::GeneralError), "GeneralError");
    EXPECT_EQ(IRemoteResource::ErrorToString(Error::Cancelled), "Cancelled");
    EXPECT_EQ(IRemoteResource::ErrorToString(Error::Corrupted), "Corrupted");
    EXPECT_EQ(IRemoteResource::ErrorToString(Error::InternetConnectionLost),
              "InternetConnectionLost");
}

TEST(IRemoteResource, NamesAnUnknownStatusWithAQuestionMark) {
    for (const int value :
         {4, -1, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()})
        EXPECT_EQ(IRemoteResource::StatusToString(static_cast<Status>(value)), "?") << value;
}

TEST(IRemoteResource, NamesAnUnknownErrorWithAQuestionMark) {
    for (const int value :
         {5, -1, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()})
        EXPECT_EQ(IRemoteResource::ErrorToString(static_cast<Error>(value)), "?") << value;
}

TEST(IRemoteResourceState, HasItsFieldsInOrder) {
    EXPECT_EQ(offsetof(State, status), 0U);
    EXPECT_EQ(offsetof(State, error), 4U);
    EXPECT_EQ(offsetof(State, progress), 8U);
    EXPECT_EQ(sizeof(State), 16U);
}

TEST(IRemoteResourceState, IsCopiedAsBytes) {
    EXPECT_TRUE(std::is_trivially_copyable_v<State>);
}

TEST(IRemoteResourceState, BeginsWaitingWithoutErrorOrProgress) {
    const State state;
    EXPECT_EQ(state.status, Status::Waiting);
    EXPECT_EQ(state.error, Error::NoError);
    EXPECT_EQ(state.progress, 0.0);
}

TEST(IRemoteResourceState, CutsThePercentageOff) {
    EXPECT_EQ(PercentageOf(0.0), 0);
    EXPECT_EQ(PercentageOf(0.456), 45);
    EXPECT_EQ(PercentageOf(0.999), 99);
    EXPECT_EQ(PercentageOf(1.0), 100);
}

// 0.29 times 100 is slightly less than 29 in double arithmetic.
TEST(IRemoteResourceState, MultipliesInDoubleArithmetic) {
    EXPECT_EQ(PercentageOf(0.29), 28);
}

TEST(IRemoteResourceState, CutsNegativePercentagesOffTowardZero) {
    EXPECT_EQ(PercentageOf(-0.456), -45);
    EXPECT_EQ(PercentageOf(-0.009), 0);
}

TEST(IRemoteResourceState, PassesAHundredPercent) {
    EXPECT_EQ(PercentageOf(2.5), 250);
}

TEST(IRemoteResourceState, GivesZeroPercentForWhatIsNotANumber) {
    EXPECT_EQ(PercentageOf(std::numeric_limits<double>::quiet_NaN()), 0);
    EXPECT_EQ(PercentageOf(-std::numeric_limits<double>::quiet_NaN()), 0);
}

TEST(IRemoteResourceState, SaturatesThePercentageAt32Bits) {
    const double infinity = std::numeric_limits<double>::infinity();
    const std::int32_t greatest = std::numeric_limits<std::int32_t>::max();
    const std::int32_t least = std::numeric_limits<std::int32_t>::min();
    EXPECT_EQ(PercentageOf(infinity), greatest);
    EXPECT_EQ(PercentageOf(21474836.48), greatest);
    EXPECT_EQ(PercentageOf(-infinity), least);
    EXPECT_EQ(PercentageOf(-21474836.49), least);
}

TEST(IRemoteResourceState, KeepsTheGreatestPercentagesThatFit) {
    EXPECT_EQ(PercentageOf(21474836.0), 2147483600);
    EXPECT_EQ(PercentageOf(-21474836.0), -2147483600);
}

TEST(IRemoteResourceState, PrintsStatusErrorAndPercentage) {
    EXPECT_EQ((State{Status::Dowloading, Error::NoError, 0.456}.ToDebugString()),
              "Status: Dowloading, err:NoError =45%");
    EXPECT_EQ((State{Status::Error, Error::InternetConnectionLost, 1.0}.ToDebugString()),
              "Status: Error, err:InternetConnectionLost =100%");
}

TEST(IRemoteResourceState, PrintsThePercentageAsAWholeSignedNumber) {
    EXPECT_EQ(TextOf(0.0), "Status: Dowloading, err:NoError =0%");
    EXPECT_EQ(TextOf(0.29), "Status: Dowloading, err:NoError =28%");
    EXPECT_EQ(TextOf(0.999), "Status: Dowloading, err:NoError =99%");
    EXPECT_EQ(TextOf(-0.5), "Status: Dowloading, err:NoError =-50%");
    EXPECT_EQ(TextOf(std::numeric_limits<double>::quiet_NaN()),
              "Status: Dowloading, err:NoError =0%");
}

TEST(IRemoteResourceState, PrintsQuestionMarksForUnknownValues) {
    EXPECT_EQ((State{static_cast<Status>(4), static_cast<Error>(5), 0.5}.ToDebugString()),
              "Status: ?, err:? =50%");
}

TEST(IRemoteResourceNotificationParams, HaveTheirFieldsInOrder) {
    const Params params;
    const auto& [notifyProgress, statuses, progressStep] = params;
    EXPECT_EQ(&notifyProgress, &params.notifyProgress);
    EXPECT_EQ(&statuses, &params.statuses);
    EXPECT_EQ(&progressStep, &params.progressStep);
}

TEST(IRemoteResourceNotificationParams, ReportEveryStatusAndEachPercentByDefault) {
    const Params params;
    EXPECT_TRUE(params.notifyProgress);
    EXPECT_THAT(params.statuses,
                ElementsAre(Status::Waiting, Status::Dowloading, Status::Available, Status::Error));
    EXPECT_EQ(params.progressStep, 0.01);
}

TEST(IRemoteResource, IsASchedulableResource) {
    EXPECT_TRUE((std::is_base_of_v<ISchedulableResource, IRemoteResource>));
}

TEST(IRemoteResource, InterfacesHoldNoData) {
    EXPECT_TRUE(kIsOnlyAnInterface<ISchedulableResource>);
    EXPECT_TRUE(kIsOnlyAnInterface<IRemoteResource>);
    EXPECT_TRUE(kIsOnlyAnInterface<IRemoteResourceEventHandler>);
}

TEST(IRemoteResource, KeepsTheOrderOfItsOperations) {
    EXPECT_EQ(VirtualSlot(&ISchedulableResource::Schedule), 1U);
    EXPECT_EQ(VirtualSlot(&IRemoteResource::Schedule), 1U);
    EXPECT_EQ(VirtualSlot(&IRemoteResource::GetState), 2U);
    EXPECT_EQ(VirtualSlot(&IRemoteResource::GetDescriptor), 3U);
    EXPECT_EQ(VirtualSlot(&IRemoteResource::RegisterEventHandler), 4U);
    EXPECT_EQ(VirtualSlot(&IRemoteResource::UnregisterEventHandler), 5U);
    EXPECT_EQ(VirtualSlot(&IRemoteResourceEventHandler::OnStateChanged), 1U);
}

} // namespace
} // namespace Halvex::App
