#include "ResourceDownloadManager/DownloadRetrierStub.h"

#include "ResourceDownloadManager/ISchedulableResource.h"

#include <gmock/gmock.h>

#include <memory>

namespace Halvex::App {
namespace {

using DownloadError = IRemoteResource::DownloadError;

class MockResource : public ISchedulableResource {
public:
    MOCK_METHOD(void, Schedule, (SchedulePriority), (override));
};

TEST(DownloadRetrierStub, HasNothingToRetry) {
    const std::shared_ptr<IDownloadRetrier> retrier = std::make_shared<DownloadRetrierStub>();

    EXPECT_EQ(retrier->Check(), IDownloadRetrier::Result::NothingToRetry);
}

TEST(DownloadRetrierStub, NeverSchedulesAResourceThatFailed) {
    testing::StrictMock<MockResource> resource;
    DownloadRetrierStub retrier;

    retrier.DownloadFinished(&resource, DownloadError::InternetConnectionLost);

    EXPECT_EQ(retrier.Check(), IDownloadRetrier::Result::NothingToRetry);
}

TEST(DownloadRetrierStub, IsGoodWhateverFails) {
    testing::StrictMock<MockResource> resource;
    DownloadRetrierStub retrier;

    retrier.DownloadFinished(&resource, DownloadError::GeneralError);

    EXPECT_EQ(retrier.GetState(), IDownloadRetrier::ConnectionState::Good);
}

} // namespace
} // namespace Halvex::App
