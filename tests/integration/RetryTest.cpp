#include "ResourceDownloadManager/NetworkStateEmulator.h"
#include "integration/Application.h"
#include "support/ChildProcess.h"
#include "support/LogCapture.h"
#include "support/ScriptedHttpServer.h"

#include <gmock/gmock.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace Halvex::App {

namespace {

using Testing::Application;
using testing::Each;
using testing::ElementsAre;
using Testing::GeneratedBytes;
using Testing::LogCapture;
using Testing::LoopbackPort;
using Testing::Outcome;
using Testing::ReadFile;
using Testing::Reply;
using Testing::ScriptedHttpServer;
using testing::SizeIs;
using testing::StartsWith;
using Testing::StatusLog;
using Testing::TemporaryFolder;
using Testing::WaitForOutcome;
using Testing::WaitUntil;

constexpr std::size_t kSize = 1'000'000;

/// So slow that it ends only because it is cancelled, but with progress all the time.
Reply Endless() {
    return Reply::Generated(1'000 * kSize).Drip(16 * 1024, std::chrono::milliseconds(10));
}

/// Whether the parallel executor is used is the parameter.
class Retry : public testing::TestWithParam<bool> {
protected:
    static Application::Params Parameters() {
        Application::Params params;
        params.useParallelExecutor = GetParam();
        params.threadCount = 2;
        return params;
    }

    Application::Dependencies OfflineWhileMarked() const {
        Application::Dependencies dependencies;
        dependencies.networkStateChecker = std::make_shared<NetworkStateEmulator>(marker);
        return dependencies;
    }

    /// Something to do ends the pause before a retry. It comes now and then: a loop that always has
    /// something to do does not retry.
    template <typename Condition>
    bool EndPausesUntil(Condition condition) {
        application.folder.Write("present", "body");
        IRemoteResource* present =
            application.Register({&application.AddFile(server.Url(""), "present")});
        return WaitUntil([&] {
            present->Schedule(ISchedulableResource::SchedulePriority::Normal);
            return WaitUntil(condition, std::chrono::milliseconds(10));
        });
    }

    /// Retries come in turn: if what failed before were retried once more, it would have been now.
    bool WaitForTheRetryOfAnother() {
        application.Schedule({&application.AddFile(server.Url(""), "another")});
        return EndPausesUntil([&] { return server.RequestCount("/another") == 2; });
    }

    TemporaryFolder markerFolder;
    const ioPath marker = markerFolder / "offline";
    ScriptedHttpServer server;
    Application application{Parameters(), OfflineWhileMarked()};
    const ResourceDescriptor& file = application.AddFile(server.Url(""), "file.bin");
    IRemoteResource* bundle = application.Register({&file});
};

INSTANTIATE_TEST_SUITE_P(Executors, Retry, testing::Bool(), Testing::ExecutorName);

} // namespace

TEST_P(Retry, A503ThatPassesEndsAvailable) {
    server.On("/file.bin", {Reply::Status(503), Reply::Ok("body")});
    StatusLog log(bundle);
    bundle->Schedule(ISchedulableResource::SchedulePriority::Normal);
    application.Run();
    EXPECT_THAT(log.Outcomes(),
                ElementsAre("Waiting NoError", "Dowloading NoError", "Error GeneralError",
                            "Dowloading NoError", "Available NoError"));
    EXPECT_EQ(ReadFile(file.downloadPath), "body");
}

TEST_P(Retry, AMissingFileIsGivenUpAfterOneRetry) {
    bundle->Schedule(ISchedulableResource::SchedulePriority::Normal);
    application.Run();
    EXPECT_EQ(Outcome(bundle->GetState()), "Error GeneralError");
    EXPECT_EQ(server.RequestCount("/file.bin"), 2U);
}

TEST_P(Retry, A503ThatStaysIsGivenUpAfterOneRetry) {
    server.On("/file.bin", Reply::Status(503, "an error page"));
    bundle->Schedule(ISchedulableResource::SchedulePriority::Normal);
    application.Run();
    EXPECT_EQ(Outcome(bundle->GetState()), "Error GeneralError");
    EXPECT_EQ(server.RequestCount("/file.bin"), 2U);
    EXPECT_EQ(application.folder.List(), "");
}

TEST_P(Retry, ABodyThatWasCutShortIsFetchedAgainWhole) {
    server.On("/file.bin", {Reply::Generated(kSize).CutAfter(kSize / 2), Reply::Generated(kSize)});
    bundle->Schedule(ISchedulableResource::SchedulePriority::Normal);
    application.Run();
    EXPECT_EQ(Outcome(bundle->GetState()), "Available NoError");
    EXPECT_TRUE(ReadFile(file.downloadPath) == GeneratedBytes(0, kSize));
}

TEST_P(Retry, AConnectionThatIsLostTwiceIsAskedForAgainTwice) {
    server.On("/file.bin", {Reply::Raw(""), Reply::Raw(""), Reply::Ok("body")});
    StatusLog log(bundle);
    bundle->Schedule(ISchedulableResource::SchedulePriority::Normal);
    application.Run();
    EXPECT_THAT(log.Outcomes(),
                ElementsAre("Waiting NoError", "Dowloading NoError", "Error InternetConnectionLost",
                            "Dowloading NoError", "Error InternetConnectionLost",
                            "Dowloading NoError", "Available NoError"));
}

TEST_P(Retry, AConnectionThatStaysLostGetsTwentyRetries) {
    server.On("/file.bin", Reply::Raw(""));
    bundle->Schedule(ISchedulableResource::SchedulePriority::Normal);
    application.manager.StartEventLoopThread();
    EXPECT_TRUE(EndPausesUntil([&] {
        return server.RequestCount("/file.bin") == 21 &&
               Outcome(bundle->GetState()) == "Error InternetConnectionLost";
    }));
    EXPECT_TRUE(WaitForTheRetryOfAnother());
    application.manager.Abort();
    EXPECT_EQ(server.RequestCount("/file.bin"), 21U);
    EXPECT_EQ(Outcome(bundle->GetState()), "Error InternetConnectionLost");
}

TEST_P(Retry, AServerThatStaysAwayGetsTwentyRetries) {
    const LoopbackPort nobody;
    const ResourceDescriptor& away = application.AddFile("http://" + nobody.Address(), "away");
    const LogCapture log;
    IRemoteResource* lost = application.Schedule({&away});
    application.manager.StartEventLoopThread();
    ASSERT_TRUE(EndPausesUntil([&] { return log.Errors().size() == 21; }));
    EXPECT_THAT(log.Errors(), Each(StartsWith("request=http://" + nobody.Address() + "/away")));
    EXPECT_TRUE(WaitForTheRetryOfAnother());
    application.manager.Abort();
    const std::vector<std::string> errors = log.Errors();
    const std::vector<std::string> since(errors.begin() + 21, errors.end());
    EXPECT_THAT(since, Each(StartsWith("request=" + server.Url("/another"))));
    EXPECT_EQ(Outcome(lost->GetState()), "Error InternetConnectionLost");
}

TEST_P(Retry, FilesNeededAtStartUpAreNotRetried) {
    server.On("/file.bin", {Reply::Status(503), Reply::Ok("body")});
    const ResourceDescriptorBundle& startUp = application.AddBundle({&file});
    IRemoteResource* resource = application.manager.GetInitScheduler()->RegisterAutoSchedule(
        &startUp, ISchedulableResource::SchedulePriority::High);
    application.Run();
    EXPECT_EQ(Outcome(resource->GetState()), "Error GeneralError");
    EXPECT_EQ(server.RequestCount("/file.bin"), 1U);
}

namespace {

/// A connection that goes away in mid-transfer and comes back when the loss has been noticed.
class Offline : public Retry {
protected:
    Offline() {
        server.On("/file.bin", {Endless(), Reply::Generated(kSize)});
        observer.SetCallback([this](IRemoteResource::State state) {
            if (state.status == IRemoteResource::DownloadStatus::Dowloading && state.progress > 0 &&
                !wasOffline)
                markerFolder.Write("offline", "");
            if (state.error == IRemoteResource::DownloadError::InternetConnectionLost) {
                wasOffline = true;
                seenWhenLost = application.folder.List();
                std::filesystem::remove(marker.string());
            }
        });
        // Endless progress is far below the default step.
        IRemoteResource::NotificationParams params;
        params.progressStep = 0;
        observer.SetNotificationParams(params);
        observer.RegisterWithin(bundle);
        bundle->Schedule(ISchedulableResource::SchedulePriority::Normal);
    }

    bool wasOffline = false;
    std::string seenWhenLost = "not lost";
    RemoteResourceEventHandlerCallback observer;
};

INSTANTIATE_TEST_SUITE_P(Executors, Offline, testing::Bool(), Testing::ExecutorName);

} // namespace

TEST_P(Offline, InMidTransferIsALostConnection) {
    StatusLog log(bundle);
    application.Run();
    EXPECT_THAT(log.Outcomes(),
                ElementsAre("Waiting NoError", "Dowloading NoError", "Error InternetConnectionLost",
                            "Dowloading NoError", "Available NoError"));
}

TEST_P(Offline, IsMadeGoodByTheRetry) {
    application.Run();
    EXPECT_TRUE(wasOffline);
    EXPECT_EQ(Outcome(bundle->GetState()), "Available NoError");
    EXPECT_TRUE(ReadFile(file.downloadPath) == GeneratedBytes(0, kSize));
}

TEST_P(Offline, IsMadeGoodOnTheManagersOwnThreadToo) {
    application.manager.StartEventLoopThread();
    EXPECT_TRUE(WaitForOutcome(bundle, "Available NoError"));
    application.manager.Abort();
    EXPECT_TRUE(wasOffline);
    EXPECT_TRUE(ReadFile(file.downloadPath) == GeneratedBytes(0, kSize));
}

TEST_P(Offline, LeavesNoFileWhileItLasts) {
    application.Run();
    EXPECT_EQ(seenWhenLost, "");
}

TEST_P(Offline, IsLogged) {
    const LogCapture log;
    application.Run();
    EXPECT_THAT(log.Errors(), ElementsAre("request=" + server.Url("/file.bin") +
                                          " failed with error=" + server.Url("") +
                                          ": cancelled (App OFFLINE mode activated!)"));
}

TEST_P(Retry, OfflineFromTheStartIsALostConnectionEachTimeAndAsksNoServer) {
    server.On("/file.bin", Endless());
    markerFolder.Write("offline", "");
    bundle->Schedule(ISchedulableResource::SchedulePriority::Normal);
    const LogCapture log;
    // Four downloads and three retries; the fourth retry would be paused before.
    for (int quantum = 0; quantum < 7; ++quantum)
        EXPECT_TRUE(application.manager.ProcessCurrentQueueQuant());
    EXPECT_EQ(Outcome(bundle->GetState()), "Error InternetConnectionLost");
    EXPECT_THAT(log.Errors(), SizeIs(4));
    EXPECT_EQ(server.ConnectionCount(), 0);
    EXPECT_EQ(application.folder.List(), "");
}

} // namespace Halvex::App
