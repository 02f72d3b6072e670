#include "ResourceKit/Testing/RecordingEventHandler.h"

#include "ResourceDownloadManager/IRemoteResourceScheduler.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "ResourceDownloadManager/ResourceDownloadManager.h"
#include "ResourceKit/Testing/ScriptedDownloader.h"
#include "support/BackgroundCall.h"
#include "support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <memory>
#include <vector>

namespace Halvex::Kit::Testing {
namespace {

using Halvex::Testing::BackgroundCall;
using Halvex::Testing::ReadFile;
using Halvex::Testing::TemporaryFolder;
using Status = App::IRemoteResource::DownloadStatus;
using Error = App::IRemoteResource::DownloadError;

TEST(RecordingEventHandler, KeepsWhatItIsToldInOrder) {
    const App::ResourceDescriptorBundle bundle;
    RecordingEventHandler handler;
    handler.OnStateChanged({Status::Dowloading, Error::NoError, 0.5}, &bundle);
    handler.OnStateChanged({Status::Error, Error::Corrupted, 1}, nullptr);
    const auto notifications = handler.Notifications();
    ASSERT_EQ(notifications.size(), 2U);
    EXPECT_EQ(notifications[0].state.progress, 0.5);
    EXPECT_EQ(notifications[0].bundle, &bundle);
    EXPECT_EQ(notifications[1].state.error, Error::Corrupted);
    EXPECT_EQ(notifications[1].bundle, nullptr);
}

TEST(RecordingEventHandler, NeedNotWaitForWhatHasBeen) {
    RecordingEventHandler handler;
    handler.OnStateChanged({Status::Error, Error::Cancelled, 0}, nullptr);
    handler.OnStateChanged({Status::Available, Error::NoError, 1}, nullptr);
    EXPECT_TRUE(handler.WaitForStatus(Status::Error));
    EXPECT_TRUE(handler.WaitForStatus(Status::Available));
}

TEST(RecordingEventHandler, WaitsForTheStateThatIsWanted) {
    RecordingEventHandler handler;
    std::vector<double> asked;
    bool hasCome = false;
    BackgroundCall wait([&] {
        hasCome = handler.WaitFor([&](const auto& notification) {
            asked.push_back(notification.state.progress);
            return notification.state.progress == 0.5;
        });
    });
    handler.OnStateChanged({Status::Dowloading, Error::NoError, 0.25}, nullptr);
    EXPECT_TRUE(wait.Blocks());
    handler.OnStateChanged({Status::Dowloading, Error::NoError, 0.5}, nullptr);
    EXPECT_TRUE(wait.Returns());
    EXPECT_TRUE(hasCome);
    EXPECT_THAT(asked, testing::ElementsAre(0.25, 0.5));
}

TEST(RecordingEventHandler, MayBeAskedByTheFunctionThatItCalls) {
    RecordingEventHandler handler;
    handler.OnStateChanged({Status::Error, Error::Cancelled, 0}, nullptr);
    EXPECT_TRUE(handler.WaitFor([&](const auto&) { return handler.Notifications().size() == 1; }));
}

/// An application's test, in which nothing is real but the manager.
TEST(RecordingEventHandler, HearsOfABundleThatAScriptedDownloaderFetches) {
    const TemporaryFolder folder;
    App::ResourceDescriptor file;
    file.relativePath = "a.bin";
    file.localPath = file.downloadPath = folder / "a.bin";
    file.tempPath = folder / "a.bin.part";
    file.validationMode = 2;
    const App::ResourceDescriptorBundle bundle{{&file}};
    const auto downloader = std::make_shared<ScriptedDownloader>();
    downloader->On("a.bin", {ScriptedDownload::Cut(1, 2, App::IResourceDownloader::Status::Failed),
                             ScriptedDownload::Hang()});
    App::ResourceDownloadManager::Dependencies dependencies;
    dependencies.resourceDownloader = downloader;
    RecordingEventHandler observer;
    App::ResourceDownloadManager manager;
    manager.Init({}, dependencies);
    App::IRemoteResource* resource = manager.GetMainScheduler()->RegisterAutoSchedule(
        &bundle, App::ISchedulableResource::SchedulePriority::Normal);
    resource->RegisterEventHandler(&observer, {});

    BackgroundCall work([&] { manager.ProcessCurrentQueue(); });
    EXPECT_TRUE(observer.WaitForStatus(Status::Error));
    EXPECT_TRUE(downloader->Report("a.bin", 3, 4));
    EXPECT_EQ(resource->GetState().progress, 0.75);
    EXPECT_TRUE(downloader->Finish("a.bin", ScriptedDownload::Complete("content")));
    EXPECT_TRUE(observer.WaitForStatus(Status::Available));
    EXPECT_TRUE(work.Returns());
    resource->UnregisterEventHandler(&observer);
    EXPECT_EQ(observer.Notifications().back().bundle, &bundle);
    EXPECT_THAT(downloader->Downloads(), testing::ElementsAre("a.bin", "a.bin"));
    EXPECT_EQ(ReadFile(file.localPath), "content");
}

} // namespace
} // namespace Halvex::Kit::Testing
