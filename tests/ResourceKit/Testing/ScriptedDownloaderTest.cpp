#include "ResourceKit/Testing/ScriptedDownloader.h"

#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Halvex::Kit::Testing {
namespace {

using Halvex::Testing::ReadFile;
using Halvex::Testing::TemporaryFolder;
using testing::ElementsAre;
using testing::Pair;
using Status = App::IResourceDownloader::Status;
using Task = App::IResourceDownloader::Task;

class ScriptedDownloaderTest : public testing::Test {
protected:
    ScriptedDownloaderTest() {
        m_descriptor.relativePath = "a.bin";
        m_descriptor.tempPath = m_folder / "temp";
        m_descriptor.downloadPath = m_folder / "dest";
    }

    Task MakeTask() {
        Task task;
        task.descriptor = &m_descriptor;
        task.progressCallback = [this](std::size_t done, std::size_t total) {
            m_progress.emplace_back(done, total);
        };
        return task;
    }
    Status Download() { return m_downloader.Exec(MakeTask()); }
    Status Download(const std::string& relativePath) {
        m_descriptor.relativePath = relativePath;
        return Download();
    }
    /// A download on a thread of its own.
    std::future<Status> Begin() { return Begin(MakeTask()); }
    std::future<Status> Begin(Task task) {
        return std::async(std::launch::async, [this, task = std::move(task)]() mutable {
            return m_downloader.Exec(std::move(task));
        });
    }

    TemporaryFolder m_folder;
    App::ResourceDescriptor m_descriptor;
    ScriptedDownloader m_downloader;
    /// Written by the downloading thread; a download that has told it waits for the test.
    std::vector<std::pair<std::size_t, std::size_t>> m_progress;
};

TEST_F(ScriptedDownloaderTest, CompletesAFile) {
    m_downloader.On("a.bin", ScriptedDownload::Complete("content"));
    EXPECT_EQ(Download(), Status::Ok);
    EXPECT_EQ(ReadFile(m_descriptor.downloadPath), "content");
    EXPECT_EQ(m_folder.List(), "dest");
    EXPECT_THAT(m_progress, ElementsAre(Pair(7, 7)));
}

TEST_F(ScriptedDownloaderTest, FailsWithoutAScript) {
    EXPECT_EQ(Download(), Status::Failed);
    m_downloader.On("a.bin", std::vector<ScriptedDownload>{});
    EXPECT_EQ(Download(), Status::Failed);
}

TEST_F(ScriptedDownloaderTest, FailsInAnyWay) {
    m_downloader.On("a.bin", {ScriptedDownload::Fail(), ScriptedDownload::Fail(Status::Cancelled),
                              ScriptedDownload::Fail(Status::NetworkFailure)});
    EXPECT_EQ(Download(), Status::Failed);
    EXPECT_EQ(Download(), Status::Cancelled);
    EXPECT_EQ(Download(), Status::NetworkFailure);
    EXPECT_THAT(m_progress, ElementsAre());
}

TEST_F(ScriptedDownloaderTest, CutsAfterAPart) {
    m_downloader.On("a.bin",
                    {ScriptedDownload::Cut(3, 10), ScriptedDownload::Cut(4, 10, Status::Failed)});
    EXPECT_EQ(Download(), Status::NetworkFailure);
    EXPECT_EQ(Download(), Status::Failed);
    EXPECT_THAT(m_progress, ElementsAre(Pair(3, 10), Pair(4, 10)));
    EXPECT_EQ(m_folder.List(), "");
}

TEST_F(ScriptedDownloaderTest, RepeatsTheLastOfAList) {
    m_downloader.On("a.bin", {ScriptedDownload::Fail(), ScriptedDownload::Complete("x")});
    EXPECT_EQ(Download(), Status::Failed);
    EXPECT_EQ(Download(), Status::Ok);
    EXPECT_EQ(Download(), Status::Ok);
}

TEST_F(ScriptedDownloaderTest, BeginsANewScriptFromItsBeginning) {
    m_downloader.On("a.bin", {ScriptedDownload::Fail(), ScriptedDownload::Complete("x")});
    Download();
    m_downloader.On("a.bin",
                    {ScriptedDownload::Fail(Status::Cancelled), ScriptedDownload::Complete("x")});
    EXPECT_EQ(Download(), Status::Cancelled);
}

TEST_F(ScriptedDownloaderTest, TellsPathsApart) {
    m_downloader.On("a.bin", ScriptedDownload::Complete("a"));
    m_downloader.OnOthers(ScriptedDownload::Fail(Status::NetworkFailure));
    EXPECT_EQ(Download("b.bin"), Status::NetworkFailure);
    EXPECT_EQ(Download("a.bin"), Status::Ok);
}

TEST_F(ScriptedDownloaderTest, RemovesTheOldFilesHoweverItEnds) {
    for (const ScriptedDownload& download : {ScriptedDownload::Fail(), ScriptedDownload::Cut(1, 2),
                                             ScriptedDownload::Fail(Status::Cancelled)}) {
        m_folder.Write("temp", "old");
        m_folder.Write("dest", "old");
        m_downloader.On("a.bin", download);
        Download();
        EXPECT_EQ(m_folder.List(), "");
    }
}

TEST_F(ScriptedDownloaderTest, FailsWhereAFileCannotBeWritten) {
    m_downloader.On("a.bin", ScriptedDownload::Complete("content"));
    m_descriptor.tempPath = m_folder / "missing/temp";
    EXPECT_EQ(Download(), Status::Failed);
    m_descriptor.tempPath = m_folder / "temp";
    m_descriptor.downloadPath = m_folder / "missing/dest";
    EXPECT_EQ(Download(), Status::Failed);
    EXPECT_EQ(m_folder.List(), "");
}

TEST_F(ScriptedDownloaderTest, RecordsWhatItWasAskedFor) {
    Download("b.bin");
    Download("a.bin");
    Download("b.bin");
    EXPECT_THAT(m_downloader.Downloads(), ElementsAre("b.bin", "a.bin", "b.bin"));
    EXPECT_EQ(m_downloader.DownloadCount("b.bin"), 2U);
    EXPECT_EQ(m_downloader.DownloadCount("c.bin"), 0U);
    EXPECT_TRUE(m_downloader.WaitForDownloads("b.bin", 2));
}

TEST_F(ScriptedDownloaderTest, TellsWhenADownloadHasBegun) {
    m_downloader.On("a.bin", ScriptedDownload::Hang());
    std::future<Status> download = Begin();
    EXPECT_TRUE(m_downloader.WaitForDownloads("a.bin"));
    m_downloader.Abort();
    EXPECT_EQ(download.get(), Status::Cancelled);
}

TEST_F(ScriptedDownloaderTest, TellsProgressOnCommand) {
    m_downloader.On("a.bin", ScriptedDownload::Hang());
    std::future<Status> download = Begin();
    EXPECT_TRUE(m_downloader.Report("a.bin", 1, 3));
    EXPECT_THAT(m_progress, ElementsAre(Pair(1, 3)));
    EXPECT_TRUE(m_downloader.Report("a.bin", 2, 3));
    EXPECT_THAT(m_progress, ElementsAre(Pair(1, 3), Pair(2, 3)));
    EXPECT_TRUE(m_downloader.Finish("a.bin", ScriptedDownload::Complete("abc")));
    EXPECT_EQ(download.get(), Status::Ok);
    EXPECT_THAT(m_progress, ElementsAre(Pair(1, 3), Pair(2, 3), Pair(3, 3)));
    EXPECT_EQ(ReadFile(m_descriptor.downloadPath), "abc");
}

TEST_F(ScriptedDownloaderTest, FinishesInAnyWayAndCanHangOn) {
    m_downloader.On("a.bin", ScriptedDownload::Hang());
    std::future<Status> download = Begin();
    EXPECT_TRUE(m_downloader.Finish("a.bin", ScriptedDownload::Hang()));
    EXPECT_TRUE(m_downloader.Report("a.bin", 1, 3));
    EXPECT_TRUE(m_downloader.Finish("a.bin", ScriptedDownload::Cut(2, 3)));
    EXPECT_EQ(download.get(), Status::NetworkFailure);
    EXPECT_THAT(m_progress, ElementsAre(Pair(1, 3), Pair(2, 3)));
}

TEST_F(ScriptedDownloaderTest, CommandsTheDownloadThatBeganFirst) {
    m_downloader.OnOthers(ScriptedDownload::Hang());
    std::future<Status> first = Begin();
    EXPECT_TRUE(m_downloader.Report("a.bin", 1, 9));
    m_descriptor.downloadPath = m_folder / "second";
    std::future<Status> second = Begin();
    EXPECT_TRUE(m_downloader.Finish("a.bin", ScriptedDownload::Fail(Status::Failed)));
    EXPECT_EQ(first.get(), Status::Failed);
    EXPECT_TRUE(m_downloader.Finish("a.bin", ScriptedDownload::Fail(Status::NetworkFailure)));
    EXPECT_EQ(second.get(), Status::NetworkFailure);
}

TEST_F(ScriptedDownloaderTest, IsCancelledByTheQueryWhileItHangs) {
    m_downloader.On("a.bin", ScriptedDownload::Hang());
    std::atomic<bool> cancel{false};
    Task task = MakeTask();
    task.cancellationQuery = [&] {
        return cancel.load();
    };
    std::future<Status> download = Begin(std::move(task));
    EXPECT_TRUE(m_downloader.Report("a.bin", 1, 3));
    cancel = true;
    EXPECT_EQ(download.get(), Status::Cancelled);
}

TEST_F(ScriptedDownloaderTest, TouchesNothingWhenItIsCancelledBeforeItBegins) {
    m_folder.Write("dest", "old");
    m_downloader.On("a.bin", {ScriptedDownload::Fail(), ScriptedDownload::Complete("x")});
    Task task = MakeTask();
    task.cancellationQuery = [] {
        return true;
    };
    EXPECT_EQ(m_downloader.Exec(std::move(task)), Status::Cancelled);
    EXPECT_EQ(m_folder.List(), "dest");
    EXPECT_EQ(Download(), Status::Failed);
}

TEST_F(ScriptedDownloaderTest, CancelsEveryDownloadOnceItIsAborted) {
    m_downloader.On("a.bin", ScriptedDownload::Complete("x"));
    EXPECT_FALSE(m_downloader.IsAborted());
    m_downloader.Abort();
    EXPECT_TRUE(m_downloader.IsAborted());
    EXPECT_EQ(Download(), Status::Cancelled);
    EXPECT_EQ(m_folder.List(), "");
    EXPECT_THAT(m_downloader.Downloads(), ElementsAre("a.bin"));
}

TEST_F(ScriptedDownloaderTest, LetsOutWhatACallbackThrowsAndTellsTheCommander) {
    m_downloader.On("a.bin", ScriptedDownload::Hang());
    Task task = MakeTask();
    task.progressCallback = [](std::size_t, std::size_t) {
        throw std::runtime_error("enough");
    };
    std::future<Status> download = Begin(std::move(task));
    EXPECT_FALSE(m_downloader.Report("a.bin", 1, 3));
    EXPECT_THROW(download.get(), std::runtime_error);
}

TEST_F(ScriptedDownloaderTest, DestroysTheCallbacksBeforeItReturns) {
    m_downloader.On("a.bin", ScriptedDownload::Complete("x"));
    const auto token = std::make_shared<int>();
    Task task = MakeTask();
    task.progressCallback = [token](std::size_t, std::size_t) {
    };
    bool isDestroyed = false;
    // A parameter lives until the end of the expression that the call stands in.
    EXPECT_EQ((m_downloader.Exec(std::move(task)), isDestroyed = token.use_count() == 1, 0), 0);
    EXPECT_TRUE(isDestroyed);
}

} // namespace
} // namespace Halvex::Kit::Testing
