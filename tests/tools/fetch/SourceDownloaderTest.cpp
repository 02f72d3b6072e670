#include "SourceDownloader.h"

#include "FakeDownloader.h"
#include "ResourceDownloadManager/NetworkStateEmulator.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace Halvex::Fetch {
namespace {

using Task = App::IResourceDownloader::Task;
using Status = App::IResourceDownloader::Status;

class SourceDownloaderTest : public testing::Test {
protected:
    SourceDownloaderTest() { descriptor.downloadPath = folder / "file"; }

    Status Exec() {
        Task task;
        task.descriptor = &descriptor;
        task.progressCallback = [](std::size_t, std::size_t) {
        };
        return downloader.Exec(std::move(task));
    }
    void FileArrives(Status status) {
        fake->onExec = [this, status](const Task&) {
            folder.Write("file", "new");
            return status;
        };
    }
    void FileDoesNotArrive(Status status) {
        fake->onExec = [status](const Task&) {
            return status;
        };
    }

    Testing::TemporaryFolder folder;
    App::ResourceDescriptor descriptor;
    std::shared_ptr<FakeDownloader> fake = std::make_shared<FakeDownloader>();
    SourceDownloader downloader{fake,
                                std::make_shared<App::NetworkStateEmulator>(folder / "offline")};
};

TEST_F(SourceDownloaderTest, TakesAFileThatHasArrivedForSuccess) {
    FileArrives(Status::Failed);
    EXPECT_EQ(Exec(), Status::Ok);
}

TEST_F(SourceDownloaderTest, FailsWithoutTheFile) {
    FileDoesNotArrive(Status::Failed);
    EXPECT_EQ(Exec(), Status::Failed);
}

TEST_F(SourceDownloaderTest, DoesNotTakeAnOldFileForANewOne) {
    folder.Write("file", "old");
    FileDoesNotArrive(Status::Failed);
    EXPECT_EQ(Exec(), Status::Failed);
}

TEST_F(SourceDownloaderTest, FailsWhereAFolderIsInTheWay) {
    std::filesystem::create_directory(descriptor.downloadPath.string());
    EXPECT_EQ(Exec(), Status::Failed);
    EXPECT_EQ(fake->calls, 0);
}

TEST_F(SourceDownloaderTest, KeepsCancelledAsItIs) {
    FileArrives(Status::Cancelled);
    EXPECT_EQ(Exec(), Status::Cancelled);
}

TEST_F(SourceDownloaderTest, IsInterruptedWhenItGoesOffline) {
    fake->onExec = [this](const Task& task) {
        EXPECT_FALSE(task.cancellationQuery());
        folder.Write("offline", "");
        EXPECT_TRUE(task.cancellationQuery());
        return Status::Cancelled;
    };
    EXPECT_EQ(Exec(), Status::NetworkFailure);
}

TEST_F(SourceDownloaderTest, PassesAbortOn) {
    downloader.Abort();
    EXPECT_EQ(fake->aborts, 1);
}

} // namespace
} // namespace Halvex::Fetch
