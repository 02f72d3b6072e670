#include "MeteredDownloader.h"

#include "FakeDownloader.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"

#include <gtest/gtest.h>

namespace Halvex::Fetch {
namespace {

using Task = App::IResourceDownloader::Task;
using Status = App::IResourceDownloader::Status;

class MeteredDownloaderTest : public testing::Test {
protected:
    Status Exec() {
        Task task;
        task.progressCallback = [this](std::size_t done, std::size_t total) {
            reported = done;
            reportedTotal = total;
        };
        task.descriptor = &descriptor;
        return downloader.Exec(std::move(task));
    }

    App::ResourceDescriptor descriptor;
    TransferMeter meter{1, 1};
    std::shared_ptr<FakeDownloader> fake = std::make_shared<FakeDownloader>();
    MeteredDownloader downloader{fake,
                                 [this](const App::ResourceDescriptor&) -> TransferMeter::Count& {
                                     return meter.Of(0);
                                 }};
    std::size_t reported = 0;
    std::size_t reportedTotal = 0;
};

TEST_F(MeteredDownloaderTest, AnswersWhatTheOtherOneDoes) {
    for (const Status status :
         {Status::Ok, Status::Failed, Status::NetworkFailure, Status::Cancelled}) {
        fake->onExec = [status](const Task&) {
            return status;
        };
        EXPECT_EQ(Exec(), status);
    }
}

TEST_F(MeteredDownloaderTest, CountsBytesWhileTheyArrive) {
    fake->onExec = [&](const Task& task) {
        task.progressCallback(10, 100);
        EXPECT_EQ(meter.Of(0).received, 10U);
        task.progressCallback(30, 100);
        EXPECT_EQ(meter.Of(0).received, 30U);
        EXPECT_EQ(meter.Of(0).underWay, 30U);
        return Status::Ok;
    };
    Exec();
    EXPECT_EQ(meter.Of(0).received, 30U);
    EXPECT_EQ(meter.Of(0).underWay, 0U);
}

TEST_F(MeteredDownloaderTest, CountsNothingTwiceWhenProgressFallsBack) {
    fake->onExec = [](const Task& task) {
        task.progressCallback(30, 100);
        task.progressCallback(10, 100);
        task.progressCallback(40, 100);
        return Status::Failed;
    };
    Exec();
    EXPECT_EQ(meter.Of(0).received, 40U);
}

TEST_F(MeteredDownloaderTest, PassesProgressOn) {
    fake->onExec = [](const Task& task) {
        task.progressCallback(3, 7);
        return Status::Ok;
    };
    Exec();
    EXPECT_EQ(reported, 3U);
    EXPECT_EQ(reportedTotal, 7U);
}

TEST_F(MeteredDownloaderTest, StartsNothingAnyMoreOnceAborted) {
    downloader.Abort();
    EXPECT_EQ(fake->aborts, 1);
    EXPECT_EQ(Exec(), Status::Cancelled);
    EXPECT_EQ(fake->calls, 0);
}

} // namespace
} // namespace Halvex::Fetch
