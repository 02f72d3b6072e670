#include "ResourceKit/Testing/ScriptedDownloader.h"
#include "integration/Application.h"
#include "support/LogCapture.h"
#include "support/ScriptedHttpServer.h"
#include "support/SleepingThreads.h"
#include "support/TimeLimit.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace Halvex::App {

namespace {

using testing::Contains;
using testing::Lt;
using Status = IResourceDownloader::Status;
using Kit::Testing::ScriptedDownload;
using Kit::Testing::ScriptedDownloader;
using Priority = ISchedulableResource::SchedulePriority;
using Testing::AllSleep;
using Testing::Application;
using Testing::kPrompt;
using Testing::LogCapture;
using Testing::Outcome;
using Testing::Reply;
using Testing::ScriptedHttpServer;
using Testing::ThreadsOfThisProcess;
using Testing::TimeLimit;
using Testing::WaitForOutcome;
using Testing::WaitForProgress;
using Testing::WaitUntil;

Application::Params Parallel(std::size_t threadCount) {
    Application::Params params;
    params.useParallelExecutor = true;
    params.threadCount = threadCount;
    return params;
}

/// Some bytes all the time, for hours.
Reply Endless() {
    return Reply::Generated(10'000'000'000).Drip(16 * 1024, std::chrono::milliseconds(10));
}

/// A transfer without end. Whether the parallel executor is used is the parameter.
class AbortDuringATransfer : public testing::TestWithParam<bool> {
protected:
    AbortDuringATransfer() {
        server.On("/file.bin", Endless());
        application.manager.StartEventLoopThread();
    }

    static Application::Params Parameters() {
        return GetParam() ? Parallel(4) : Application::Params{};
    }

    ScriptedHttpServer server;
    Application application{Parameters()};
    const ResourceDescriptor& file = application.AddFile(server.Url(""), "file.bin");
};

INSTANTIATE_TEST_SUITE_P(Executors, AbortDuringATransfer, testing::Bool(), Testing::ExecutorName);

} // namespace

TEST_P(AbortDuringATransfer, IsPrompt) {
    ASSERT_TRUE(WaitForProgress(application.Schedule({&file})));
    EXPECT_THAT(application.TimedAbort(), Lt(kPrompt));
}

TEST_P(AbortDuringATransfer, CancelsIt) {
    IRemoteResource* bundle = application.Schedule({&file});
    ASSERT_TRUE(WaitForProgress(bundle));
    application.manager.Abort();
    EXPECT_EQ(Outcome(bundle->GetState()), "Error Cancelled");
}

TEST_P(AbortDuringATransfer, LeavesNoFile) {
    ASSERT_TRUE(WaitForProgress(application.Schedule({&file})));
    EXPECT_EQ(application.folder.List(), "file.bin.part");
    application.manager.Abort();
    EXPECT_EQ(application.folder.List(), "");
}

TEST_P(AbortDuringATransfer, IsLogged) {
    ASSERT_TRUE(WaitForProgress(application.Schedule({&file})));
    const LogCapture log;
    application.manager.Abort();
    EXPECT_THAT(log.Infos(), Contains("request=" + server.Url("/file.bin") + " was cancelled."));
}

TEST(AbortDuringTransfers, EndsAWaitForAnotherDownloadWithTheSameTemporaryFile) {
    ScriptedHttpServer server;
    server.On("/file.bin", Endless());
    Application application(Parallel(2));
    const ResourceDescriptor& file = application.AddFile(server.Url(""), "file.bin");
    const ResourceDescriptor& twin = application.AddFile(server.Url(""), "file.bin");
    const LogCapture log;
    IRemoteResource* bundle = application.Schedule({&file, &twin});
    application.manager.StartEventLoopThread();
    ASSERT_TRUE(WaitForProgress(bundle));
    ASSERT_TRUE(WaitUntil([&] { return log.Infos().size() == 2; }));
    EXPECT_THAT(application.TimedAbort(), Lt(kPrompt));
    EXPECT_EQ(server.RequestCount("/file.bin"), 1U);
    EXPECT_EQ(application.folder.List(), "");
}

TEST(AbortDuringTransfers, LeavesWhatIsQueuedUndone) {
    ScriptedHttpServer server;
    Application application(Parallel(2));
    std::set<const ResourceDescriptor*> files;
    for (int i = 0; i < 100; ++i) {
        const std::string name = std::to_string(i);
        server.On("/" + name, Endless());
        files.insert(&application.AddFile(server.Url(""), name));
    }
    application.manager.StartEventLoopThread();
    ASSERT_TRUE(WaitForProgress(application.Schedule(files)));
    EXPECT_THAT(application.TimedAbort(), Lt(kPrompt));
    EXPECT_LE(server.Requests().size(), 2U);
    EXPECT_EQ(application.folder.List(), "");
}

namespace {

std::vector<pid_t> ThreadsSince(const std::set<pid_t>& before) {
    std::set<pid_t> threads = ThreadsOfThisProcess();
    for (const pid_t thread : before)
        threads.erase(thread);
    return {threads.begin(), threads.end()};
}

/// An application whose downloads end as the scripted downloader says.
class AbortWithoutServer : public testing::Test {
protected:
    Application::Dependencies Scripted() const {
        Application::Dependencies dependencies;
        dependencies.resourceDownloader = downloader;
        return dependencies;
    }

    /// A download that is not aborted hangs for ever.
    const TimeLimit limit;
    std::shared_ptr<ScriptedDownloader> downloader = std::make_shared<ScriptedDownloader>();
};

} // namespace

TEST_F(AbortWithoutServer, IsPromptInAPauseOf60Seconds) {
    constexpr std::size_t kDownloadsUntilLost = 12;
    downloader->On("lost", ScriptedDownload::Fail(Status::NetworkFailure));
    Application application({}, Scripted());
    application.folder.Write("present", "");
    // The check of a file that is there ends a pause, and tells the retry policy nothing.
    IRemoteResource* present = application.Register({&application.AddFile("", "present")});
    application.Schedule({&application.AddFile("", "lost")});
    const std::set<pid_t> before = ThreadsOfThisProcess();
    application.manager.StartEventLoopThread();
    ASSERT_TRUE(downloader->WaitForDownloads("lost"));
    const std::vector<pid_t> started = ThreadsSince(before);
    ASSERT_EQ(started.size(), 1U);
    const pid_t loop = started.front();
    const auto isAsleep = [loop] {
        return AllSleep({loop});
    };
    while (downloader->DownloadCount("lost") < kDownloadsUntilLost) {
        ASSERT_TRUE(WaitUntil(isAsleep));
        present->Schedule(Priority::Normal);
    }
    ASSERT_TRUE(WaitUntil(isAsleep));
    // It pauses, or else it would have gone through all of its retries by now.
    EXPECT_LT(downloader->DownloadCount("lost"), 1U + 20U);
    EXPECT_THAT(application.TimedAbort(), Lt(kPrompt));
}

TEST_F(AbortWithoutServer, IsPromptWhileWorkersAreParked) {
    downloader->On("hangs", ScriptedDownload::Hang());
    Application application(Parallel(4), Scripted());
    const std::set<pid_t> before = ThreadsOfThisProcess();
    IRemoteResource* bundle = application.Schedule({&application.AddFile("", "hangs")});
    application.manager.StartEventLoopThread();
    ASSERT_TRUE(downloader->WaitForDownloads("hangs"));
    // The loop's thread and four workers.
    ASSERT_TRUE(WaitUntil([&] {
        const std::vector<pid_t> threads = ThreadsSince(before);
        return threads.size() == 5 && AllSleep(threads);
    }));
    EXPECT_THAT(application.TimedAbort(), Lt(kPrompt));
    EXPECT_EQ(Outcome(bundle->GetState()), "Error Cancelled");
}

TEST_F(AbortWithoutServer, IsPromptWhileTheLoopSleeps) {
    downloader->On("done", ScriptedDownload::Complete("content"));
    Application application(Parallel(4), Scripted());
    application.manager.StartEventLoopThread();
    ASSERT_TRUE(WaitForOutcome(application.Schedule({&application.AddFile("", "done")}),
                               "Available NoError"));
    EXPECT_THAT(application.TimedAbort(), Lt(kPrompt));
}

TEST_F(AbortWithoutServer, IsPromptWithALongRetryQueue) {
    constexpr std::size_t kFiles = 20'000;
    downloader->On("lost", ScriptedDownload::Fail(Status::NetworkFailure));
    Application application(Parallel(4), Scripted());
    std::set<const ResourceDescriptor*> files;
    for (std::size_t i = 0; i < kFiles; ++i)
        files.insert(&application.AddFile("", "lost"));
    application.Schedule(files);
    application.manager.StartEventLoopThread();
    ASSERT_TRUE(downloader->WaitForDownloads("lost", kFiles));
    EXPECT_THAT(application.TimedAbort(), Lt(kPrompt));
}

TEST_F(AbortWithoutServer, IsPromptWithALongQueue) {
    constexpr std::size_t kFiles = 20'000;
    downloader->On("hangs", ScriptedDownload::Hang());
    Application application(Parallel(4), Scripted());
    std::set<const ResourceDescriptor*> files;
    for (std::size_t i = 0; i < kFiles; ++i)
        files.insert(&application.AddFile("", "hangs"));
    application.Schedule(files);
    application.manager.StartEventLoopThread();
    ASSERT_TRUE(downloader->WaitForDownloads("hangs", 4));
    EXPECT_THAT(application.TimedAbort(), Lt(kPrompt));
}

} // namespace Halvex::App
