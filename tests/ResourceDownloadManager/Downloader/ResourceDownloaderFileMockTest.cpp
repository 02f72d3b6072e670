#include "ResourceDownloadManager/Downloader/ResourceDownloaderFileMock.h"

#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "support/FileSizeLimit.h"
#include "support/LogCapture.h"
#include "support/SystemCalls.h"
#include "support/TemporaryFolder.h"
#include "support/VirtualSlot.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

namespace Halvex::App {
namespace {

using Halvex::Testing::Event;
using Halvex::Testing::FileSizeLimit;
using Halvex::Testing::LogCapture;
using Halvex::Testing::ReadFile;
using Halvex::Testing::SomeBytes;
using Halvex::Testing::SystemCalls;
using Halvex::Testing::TemporaryFolder;
using Halvex::Testing::VirtualSlot;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using Status = IResourceDownloader::Status;
using Task = IResourceDownloader::Task;

constexpr std::size_t kChunk = 131072;
constexpr int kUnlimited = -1;

/// Copies a.bin of the source folder to dest in the target folder, by way of temp there.
class ResourceDownloaderFileMockTest : public testing::Test {
protected:
    ResourceDownloaderFileMockTest() {
        m_descriptor.relativePath = "a.bin";
        m_descriptor.tempPath = m_target / "temp";
        m_descriptor.downloadPath = m_target / "dest";
    }

    void WriteSource(const std::string& content) { m_source.Write("a.bin", content); }
    void WriteOldFiles() {
        m_target.Write("temp", "old");
        m_target.Write("dest", "old");
    }
    ioPath Source() const { return m_source / "a.bin"; }
    const ioPath& Temporary() const { return m_descriptor.tempPath; }
    const ioPath& Destination() const { return m_descriptor.downloadPath; }

    /// A task whose callbacks put themselves among the system calls.
    Task MakeTask() {
        Task task;
        task.descriptor = &m_descriptor;
        task.progressCallback = [this](std::size_t done, std::size_t total) {
            m_calls.Record("progress", " " + std::to_string(done) + " " + std::to_string(total));
            m_onProgress();
        };
        task.cancellationQuery = [this] {
            m_calls.Record("query", "");
            return m_cancel;
        };
        return task;
    }
    Status Exec() { return m_downloader.Exec(MakeTask()); }

    void ExpectNothingLeft() { EXPECT_EQ(m_target.List(), ""); }

    const TemporaryFolder m_source;
    const TemporaryFolder m_target;
    ResourceDescriptor m_descriptor;
    ResourceDownloaderFileMock m_downloader{m_source.Path(), kUnlimited};
    bool m_cancel = false;
    std::function<void()> m_onProgress = [] {
    };
    const LogCapture m_log;
    SystemCalls m_calls;
};

TEST_F(ResourceDownloaderFileMockTest, CopiesTheFileAndNeverAnswersOk) {
    const std::string content = SomeBytes(3 * kChunk + 100);
    WriteSource(content);
    EXPECT_EQ(Exec(), Status::Failed);
    EXPECT_EQ(ReadFile(Destination()), content);
    EXPECT_EQ(m_target.List(), "dest");
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(ResourceDownloaderFileMockTest, LeavesTheSourceAlone) {
    WriteSource("content");
    Exec();
    EXPECT_EQ(ReadFile(Source()), "content");
}

TEST_F(ResourceDownloaderFileMockTest, TakesStepByStep) {
    WriteSource(SomeBytes(kChunk + 1));
    WriteOldFiles();
    Exec();
    EXPECT_THAT(m_calls.Made(),
                ElementsAre("unlink temp", "unlink dest", "open temp", "open a.bin",
                            "read a.bin 131073", "close a.bin", "progress 0 131073",
                            "write temp 131072", "query", "progress 131072 131073", "write temp 1",
                            "query", "close temp", "open temp", "fdatasync temp",
                            "rename temp -> dest", "close dest", "unlink temp"));
}

TEST_F(ResourceDownloaderFileMockTest, CopiesOneChunkExactly) {
    WriteSource(SomeBytes(kChunk));
    Exec();
    EXPECT_THAT(m_calls.Made(),
                ElementsAre("unlink temp", "unlink dest", "open temp", "open a.bin",
                            "read a.bin 131072", "close a.bin", "progress 0 131072",
                            "write temp 131072", "query", "close temp", "open temp",
                            "fdatasync temp", "rename temp -> dest", "close dest", "unlink temp"));
}

TEST_F(ResourceDownloaderFileMockTest, CopiesAnEmptyFileWithoutACallback) {
    WriteSource("");
    EXPECT_EQ(Exec(), Status::Failed);
    EXPECT_EQ(ReadFile(Destination()), "");
    EXPECT_THAT(m_calls.Made(),
                ElementsAre("unlink temp", "unlink dest", "open temp", "open a.bin", "close a.bin",
                            "close temp", "open temp", "fdatasync temp", "rename temp -> dest",
                            "close dest", "unlink temp"));
}

TEST_F(ResourceDownloaderFileMockTest, TakesTheFileAtTheRelativePathBelowItsFolder) {
    m_source.Write("folder/sub folder/b.bin", "content");
    m_descriptor.relativePath = "/folder/sub folder/b.bin";
    Exec();
    EXPECT_EQ(ReadFile(Destination()), "content");
}

TEST_F(ResourceDownloaderFileMockTest, ReplacesOldFiles) {
    WriteSource("content");
    WriteOldFiles();
    Exec();
    EXPECT_EQ(ReadFile(Destination()), "content");
    EXPECT_EQ(m_target.List(), "dest");
}

TEST_F(ResourceDownloaderFileMockTest, ShowsNoDestinationBeforeItIsComplete) {
    WriteSource(SomeBytes(2 * kChunk));
    WriteOldFiles();
    std::string seen;
    m_onProgress = [&] {
        seen += "[" + m_target.List() + "]";
    };
    Exec();
    EXPECT_EQ(seen, "[temp][temp]");
}

TEST_F(ResourceDownloaderFileMockTest, DoesNotTouchTheDiskOnConstruction) {
    const ResourceDownloaderFileMock downloader(m_source / "missing", 0);
    EXPECT_THAT(m_calls.Made(), IsEmpty());
}

TEST_F(ResourceDownloaderFileMockTest, StopsAfterTheFirstChunkWhenCancelled) {
    WriteSource(SomeBytes(2 * kChunk));
    m_cancel = true;
    EXPECT_EQ(Exec(), Status::Cancelled);
    EXPECT_THAT(m_calls.Made(),
                ElementsAre("unlink temp", "unlink dest", "open temp", "open a.bin",
                            "read a.bin 262144", "close a.bin", "progress 0 262144",
                            "write temp 131072", "query", "close temp", "unlink temp"));
    ExpectNothingLeft();
}

TEST_F(ResourceDownloaderFileMockTest, LogsACancellation) {
    WriteSource("content");
    m_cancel = true;
    Exec();
    EXPECT_THAT(m_log.Infos(), ElementsAre("request=a.bin was cancelled."));
    EXPECT_EQ(m_log.Lines().size(), 1U);
}

TEST_F(ResourceDownloaderFileMockTest, StopsAtALaterChunkToo) {
    WriteSource(SomeBytes(4 * kChunk));
    int reports = 0;
    m_onProgress = [&] {
        m_cancel = ++reports == 3;
    };
    EXPECT_EQ(Exec(), Status::Cancelled);
    EXPECT_EQ(reports, 3);
    ExpectNothingLeft();
}

TEST_F(ResourceDownloaderFileMockTest, StopsEvenAfterTheLastChunkWhenCancelled) {
    WriteSource(SomeBytes(kChunk));
    m_cancel = true;
    EXPECT_EQ(Exec(), Status::Cancelled);
    ExpectNothingLeft();
}

TEST_F(ResourceDownloaderFileMockTest, HasDeletedTheOldFilesWhenCancelled) {
    WriteSource("content");
    WriteOldFiles();
    m_cancel = true;
    Exec();
    ExpectNothingLeft();
}

TEST_F(ResourceDownloaderFileMockTest, StopsAfterTheFirstChunkWhenAbortedBefore) {
    WriteSource(SomeBytes(2 * kChunk));
    m_downloader.Abort();
    EXPECT_EQ(Exec(), Status::Cancelled);
    EXPECT_THAT(m_calls.Made(), ElementsAre("unlink temp", "unlink dest", "open temp", "open a.bin",
                                            "read a.bin 262144", "close a.bin", "progress 0 262144",
                                            "write temp 131072", "close temp", "unlink temp"));
    EXPECT_THAT(m_log.Infos(), ElementsAre("request=a.bin was cancelled."));
    ExpectNothingLeft();
}

TEST_F(ResourceDownloaderFileMockTest, StopsAfterTheChunkUnderWayWhenAborted) {
    WriteSource(SomeBytes(4 * kChunk));
    int reports = 0;
    m_onProgress = [&] {
        if (++reports == 2)
            m_downloader.Abort();
    };
    EXPECT_EQ(Exec(), Status::Cancelled);
    EXPECT_EQ(reports, 2);
    ExpectNothingLeft();
}

TEST_F(ResourceDownloaderFileMockTest, StaysAbortedForGood) {
    WriteSource("content");
    m_downloader.Abort();
    EXPECT_EQ(Exec(), Status::Cancelled);
    EXPECT_EQ(Exec(), Status::Cancelled);
}

TEST_F(ResourceDownloaderFileMockTest, CopiesAnEmptyFileAlsoWhenAborted) {
    WriteSource("");
    m_downloader.Abort();
    EXPECT_EQ(Exec(), Status::Failed);
    EXPECT_EQ(m_target.List(), "dest");
}

TEST_F(ResourceDownloaderFileMockTest, DeletesOldFilesBeforeItFindsTheSourceMissing) {
    WriteOldFiles();
    EXPECT_EQ(Exec(), Status::Failed);
    EXPECT_THAT(m_calls.Made(), ElementsAre("unlink temp", "unlink dest", "open temp", "open a.bin",
                                            "close temp", "unlink temp"));
    ExpectNothingLeft();
}

TEST_F(ResourceDownloaderFileMockTest, LogsAMissingSource) {
    Exec();
    EXPECT_THAT(m_log.Errors(),
                ElementsAre("failed to create file for reading=" + Source().string() +
                            ", errno=2 (No such file or directory)"));
    EXPECT_EQ(m_log.Lines().size(), 1U);
}

TEST_F(ResourceDownloaderFileMockTest, FailsWhenTheSourceIsAFolder) {
    m_source.Write("a.bin/b", "");
    EXPECT_EQ(Exec(), Status::Failed);
    EXPECT_THAT(m_log.Errors(), ElementsAre("failed to create file for reading=" +
                                            Source().string() + ", errno=21 (Is a directory)"));
    ExpectNothingLeft();
}

TEST_F(ResourceDownloaderFileMockTest, FailsWhenTheSourceIsNotReadWhole) {
    WriteSource("content");
    m_calls.Shorten("read", 3);
    m_calls.Shorten("read", 0);
    EXPECT_EQ(Exec(), Status::Failed);
    EXPECT_THAT(m_calls.Made(), Not(Contains("progress 0 7")));
    ExpectNothingLeft();
}

TEST_F(ResourceDownloaderFileMockTest, FailsBeforeItOpensAnythingWhenTheTemporaryPathIsAFolder) {
    WriteSource("content");
    m_target.Write("temp/b", "");
    m_target.Write("dest", "old");
    const std::string line = "Failed to remove file=" + Temporary().string();
    EXPECT_EQ(Exec(), Status::Failed);
    EXPECT_THAT(m_calls.Made(), ElementsAre("unlink temp", "unlink temp"));
    EXPECT_THAT(m_log.Errors(), ElementsAre(line, line));
    EXPECT_EQ(ReadFile(Destination()), "old");
}

TEST_F(ResourceDownloaderFileMockTest, FailsBeforeItOpensAnythingWhenTheDestinationIsAFolder) {
    WriteSource("content");
    m_target.Write("dest/b", "");
    EXPECT_EQ(Exec(), Status::Failed);
    EXPECT_THAT(m_calls.Made(), ElementsAre("unlink temp", "unlink dest", "unlink temp"));
    EXPECT_THAT(m_log.Errors(), ElementsAre("Failed to remove file=" + Destination().string()));
}

TEST_F(ResourceDownloaderFileMockTest, FailsWhenTheTemporaryFolderIsMissing) {
    WriteSource("content");
    m_descriptor.tempPath = m_target / "missing/temp";
    EXPECT_EQ(Exec(), Status::Failed);
    EXPECT_THAT(m_log.Errors(),
                ElementsAre("failed to create file for writing=" + Temporary().string() +
                            ", errno=2 (No such file or directory)"));
    EXPECT_THAT(m_calls.Made(),
                ElementsAre("unlink temp", "unlink dest", "open temp", "unlink temp"));
    ExpectNothingLeft();
}

TEST_F(ResourceDownloaderFileMockTest, FailsWhenTheDestinationFolderIsMissing) {
    WriteSource("content");
    m_descriptor.downloadPath = m_target / "missing/dest";
    EXPECT_EQ(Exec(), Status::Failed);
    EXPECT_THAT(m_log.Errors(), ElementsAre("Failed to rename: " + Temporary().string() + " -> " +
                                            Destination().string()));
    ExpectNothingLeft();
}

TEST_F(ResourceDownloaderFileMockTest, DoesNotWriteThroughALinkAtTheTemporaryPath) {
    WriteSource("content");
    const ioPath target = m_target.Write("target", "precious");
    std::filesystem::create_symlink(target.string(), Temporary().string());
    Exec();
    EXPECT_EQ(ReadFile(target), "precious");
    EXPECT_EQ(ReadFile(Destination()), "content");
    EXPECT_EQ(m_target.List(), "dest target");
}

TEST_F(ResourceDownloaderFileMockTest, ReplacesADanglingLinkAtTheTemporaryPathAndNotItsTarget) {
    WriteSource("content");
    std::filesystem::create_symlink((m_target / "target").string(), Temporary().string());
    Exec();
    EXPECT_EQ(ReadFile(Destination()), "content");
    EXPECT_EQ(m_target.List(), "dest");
}

TEST_F(ResourceDownloaderFileMockTest, ReplacesALinkAtTheDestinationAndNotItsTarget) {
    WriteSource("content");
    const ioPath target = m_target.Write("target", "precious");
    std::filesystem::create_symlink(target.string(), Destination().string());
    Exec();
    EXPECT_EQ(ReadFile(target), "precious");
    EXPECT_EQ(ReadFile(Destination()), "content");
}

TEST_F(ResourceDownloaderFileMockTest, LeavesNothingWhenTheDiskIsFull) {
    WriteSource(SomeBytes(3 * kChunk));
    {
        const FileSizeLimit limit(kChunk + 1);
        EXPECT_EQ(Exec(), Status::Failed);
    }
    ExpectNothingLeft();
    EXPECT_THAT(
        m_log.Errors(),
        ElementsAre("failed to write file=" + Temporary().string() + ", errno=27 (File too large)",
                    "Failed to rename: " + Temporary().string() + " -> " + Destination().string()));
}

TEST_F(ResourceDownloaderFileMockTest, DoesNotLookAtTheResultOfAWrite) {
    WriteSource(SomeBytes(2 * kChunk));
    m_calls.Fail("write", ENOSPC);
    EXPECT_EQ(Exec(), Status::Failed);
    EXPECT_THAT(m_calls.Made(), Contains("progress 131072 262144"));
    ExpectNothingLeft();
}

TEST_F(ResourceDownloaderFileMockTest, LeavesNothingWhenTheFinishedFileIsNotRenamed) {
    WriteSource("content");
    WriteOldFiles();
    m_calls.Fail("rename", EACCES);
    EXPECT_EQ(Exec(), Status::Failed);
    ExpectNothingLeft();
}

TEST_F(ResourceDownloaderFileMockTest, LeavesNothingWhenACallbackThrows) {
    WriteSource("content");
    WriteOldFiles();
    m_onProgress = [] {
        throw std::runtime_error("stop");
    };
    EXPECT_THROW(Exec(), std::runtime_error);
    ExpectNothingLeft();
    m_onProgress = [] {
    };
    Exec();
    EXPECT_EQ(ReadFile(Destination()), "content");
}

TEST_F(ResourceDownloaderFileMockTest, NeedsAProgressCallback) {
    WriteSource("content");
    Task task = MakeTask();
    task.progressCallback = nullptr;
    EXPECT_THROW(m_downloader.Exec(std::move(task)), std::bad_function_call);
    ExpectNothingLeft();
}

TEST_F(ResourceDownloaderFileMockTest, NeedsACancellationQuery) {
    WriteSource("content");
    Task task = MakeTask();
    task.cancellationQuery = nullptr;
    EXPECT_THROW(m_downloader.Exec(std::move(task)), std::bad_function_call);
    ExpectNothingLeft();
}

/// The pauses that Exec makes; how long they are is the rate limiter's business.
class ResourceDownloaderFileMockSpeedTest : public ResourceDownloaderFileMockTest {
protected:
    void ExecAtSpeed(int speedKiBps, std::size_t sourceBytes) {
        WriteSource(SomeBytes(sourceBytes));
        const ResourceDownloaderFileMock downloader(m_source.Path(), speedKiBps);
        downloader.Exec(MakeTask());
    }
};

TEST_F(ResourceDownloaderFileMockSpeedTest, PausesAfterTheQueryOfAChunkAtSpeedZero) {
    ExecAtSpeed(0, 1);
    const auto made = m_calls.Made();
    const auto query = std::find(made.begin(), made.end(), "query");
    ASSERT_NE(query, made.end());
    ASSERT_NE(query + 1, made.end());
    EXPECT_EQ(*(query + 1), "nanosleep");
}

TEST_F(ResourceDownloaderFileMockSpeedTest, PausesWhenAChunkFillsAQuantum) {
    ExecAtSpeed(2560, kChunk);
    EXPECT_THAT(m_calls.Made(), Contains("nanosleep"));
}

TEST_F(ResourceDownloaderFileMockSpeedTest, DoesNotPauseWhenAChunkIsSmallerThanAQuantum) {
    ExecAtSpeed(2560, kChunk - 1);
    EXPECT_THAT(m_calls.Made(), Not(Contains("nanosleep")));
}

TEST_F(ResourceDownloaderFileMockSpeedTest, CountsTheChunksOfAFileTogether) {
    ExecAtSpeed(2561, kChunk);
    EXPECT_THAT(m_calls.Made(), Not(Contains("nanosleep")));
    ExecAtSpeed(2561, kChunk + 100);
    EXPECT_THAT(m_calls.Made(), Contains("nanosleep"));
}

TEST_F(ResourceDownloaderFileMockSpeedTest, NeverPausesAtANegativeSpeed) {
    ExecAtSpeed(-1, 8 * kChunk);
    EXPECT_THAT(m_calls.Made(), Not(Contains("nanosleep")));
}

TEST_F(ResourceDownloaderFileMockSpeedTest, DoesNotPauseWhenCancelled) {
    m_cancel = true;
    ExecAtSpeed(0, kChunk);
    EXPECT_THAT(m_calls.Made(), Not(Contains("nanosleep")));
}

/// Counts who still holds a token that both callbacks of a task own.
class ResourceDownloaderFileMockCallbacksTest : public ResourceDownloaderFileMockTest {
protected:
    Task MakeOwningTask() {
        Task task;
        task.descriptor = &m_descriptor;
        task.progressCallback = [token = m_token](std::size_t, std::size_t) {
        };
        task.cancellationQuery = [this, token = m_token] {
            return m_cancel;
        };
        return task;
    }

    /// In the very expression of the call too: a parameter may live to the end of that.
    void ExpectCallbacksToDieInExec() {
        const long owners =
            (static_cast<void>(m_downloader.Exec(MakeOwningTask())), m_token.use_count());
        EXPECT_EQ(owners, 1);
        EXPECT_EQ(m_token.use_count(), 1);
    }

    const std::shared_ptr<int> m_token = std::make_shared<int>();
};

TEST_F(ResourceDownloaderFileMockCallbacksTest, DieBeforeExecReturns) {
    WriteSource("content");
    ExpectCallbacksToDieInExec();
}

TEST_F(ResourceDownloaderFileMockCallbacksTest, DieBeforeExecReturnsWhenCancelled) {
    WriteSource("content");
    m_cancel = true;
    ExpectCallbacksToDieInExec();
}

TEST_F(ResourceDownloaderFileMockCallbacksTest, DieBeforeExecReturnsWithoutASource) {
    ExpectCallbacksToDieInExec();
}

TEST_F(ResourceDownloaderFileMockCallbacksTest, DieBeforeExecReturnsWithoutATemporaryFile) {
    m_descriptor.tempPath = m_target / "missing/temp";
    ExpectCallbacksToDieInExec();
}

TEST_F(ResourceDownloaderFileMockCallbacksTest, DieBeforeExecReturnsWhenOldFilesCannotBeRemoved) {
    m_target.Write("temp/b", "");
    ExpectCallbacksToDieInExec();
}

/// An Exec on a thread of its own that stops in its first progress report until it is let on.
class BlockedExec {
public:
    BlockedExec(const ResourceDownloaderFileMock& downloader, const ResourceDescriptor& descriptor)
        : m_status(std::async(std::launch::async, [this, &downloader, &descriptor] {
              Task task;
              task.descriptor = &descriptor;
              task.progressCallback = [this](std::size_t, std::size_t) {
                  m_copying.Set();
                  m_goOn.Wait();
              };
              return downloader.Exec(std::move(task));
          })) {}
    ~BlockedExec() { m_goOn.Set(); }

    bool IsCopying() { return m_copying.Wait(); }
    Status End() {
        m_goOn.Set();
        return m_status.get();
    }

private:
    Event m_copying;
    Event m_goOn;
    std::future<Status> m_status;
};

/// An Exec on a thread of its own that finds the temporary path in use.
class WaitingExec {
public:
    WaitingExec(const ResourceDownloaderFileMock& downloader, const ResourceDescriptor& descriptor)
        : m_status(std::async(std::launch::async, [this, &downloader, &descriptor] {
              Task task;
              task.descriptor = &descriptor;
              task.progressCallback = [this](std::size_t, std::size_t) {
                  m_copying.Set();
              };
              task.cancellationQuery = [this] {
                  m_asked.Set();
                  return m_cancel.IsSet();
              };
              return downloader.Exec(std::move(task));
          })) {}
    ~WaitingExec() { m_cancel.Set(); }

    /// It asks whether it is cancelled, and has not begun to copy.
    bool IsWaiting() { return m_asked.Wait() && !HasBegun(); }
    bool HasBegun() { return m_copying.IsSet(); }
    void Cancel() { m_cancel.Set(); }
    Status End() { return m_status.get(); }

private:
    Event m_asked;
    Event m_copying;
    Event m_cancel;
    std::future<Status> m_status;
};

/// Two resources that share a temporary path.
class ResourceDownloaderFileMockSharedPathTest : public ResourceDownloaderFileMockTest {
protected:
    ResourceDownloaderFileMockSharedPathTest() {
        WriteSource(SomeBytes(2 * kChunk, 1));
        m_source.Write("b.bin", SomeBytes(kChunk, 2));
        m_other = m_descriptor;
        m_other.relativePath = "b.bin";
        m_other.downloadPath = m_target / "other";
    }

    void ExpectBothWhole() {
        EXPECT_EQ(m_target.List(), "dest other");
        EXPECT_EQ(ReadFile(Destination()), ReadFile(Source()));
        EXPECT_EQ(ReadFile(m_other.downloadPath), ReadFile(m_source / "b.bin"));
    }

    ResourceDescriptor m_other;
};

TEST_F(ResourceDownloaderFileMockSharedPathTest, SecondWaitsForTheFirst) {
    BlockedExec first(m_downloader, m_descriptor);
    ASSERT_TRUE(first.IsCopying());
    WaitingExec second(m_downloader, m_other);
    EXPECT_TRUE(second.IsWaiting());
    EXPECT_EQ(first.End(), Status::Failed);
    EXPECT_EQ(second.End(), Status::Failed);
    ExpectBothWhole();
}

TEST_F(ResourceDownloaderFileMockSharedPathTest, SecondOfAnotherDownloaderWaitsForTheFirst) {
    const ResourceDownloaderFileMock another(m_source.Path(), kUnlimited);
    BlockedExec first(m_downloader, m_descriptor);
    ASSERT_TRUE(first.IsCopying());
    WaitingExec second(another, m_other);
    EXPECT_TRUE(second.IsWaiting());
    EXPECT_EQ(first.End(), Status::Failed);
    EXPECT_EQ(second.End(), Status::Failed);
    ExpectBothWhole();
}

TEST_F(ResourceDownloaderFileMockSharedPathTest, WaitingTouchesNothing) {
    m_target.Write("other", "old");
    BlockedExec first(m_downloader, m_descriptor);
    ASSERT_TRUE(first.IsCopying());
    WaitingExec second(m_downloader, m_other);
    EXPECT_TRUE(second.IsWaiting());
    EXPECT_EQ(m_target.List(), "other temp");
    EXPECT_EQ(ReadFile(m_other.downloadPath), "old");
}

TEST_F(ResourceDownloaderFileMockSharedPathTest, CancellationEndsTheWait) {
    BlockedExec first(m_downloader, m_descriptor);
    ASSERT_TRUE(first.IsCopying());
    WaitingExec second(m_downloader, m_other);
    EXPECT_TRUE(second.IsWaiting());
    second.Cancel();
    EXPECT_EQ(second.End(), Status::Cancelled);
    EXPECT_FALSE(second.HasBegun());
    EXPECT_THAT(m_log.Infos(), ElementsAre("request=b.bin was cancelled."));
    EXPECT_EQ(first.End(), Status::Failed);
    EXPECT_EQ(ReadFile(Destination()), ReadFile(Source()));
}

TEST_F(ResourceDownloaderFileMockSharedPathTest, AbortEndsTheWait) {
    BlockedExec first(m_downloader, m_descriptor);
    ASSERT_TRUE(first.IsCopying());
    WaitingExec second(m_downloader, m_other);
    EXPECT_TRUE(second.IsWaiting());
    m_downloader.Abort();
    EXPECT_EQ(second.End(), Status::Cancelled);
    EXPECT_FALSE(second.HasBegun());
    EXPECT_EQ(first.End(), Status::Cancelled);
    EXPECT_THAT(m_log.Infos(),
                ElementsAre("request=b.bin was cancelled.", "request=a.bin was cancelled."));
    ExpectNothingLeft();
}

TEST_F(ResourceDownloaderFileMockSharedPathTest, DifferentTemporaryPathsAreCopiedAtOnce) {
    m_other.tempPath = m_target / "another temp";
    BlockedExec first(m_downloader, m_descriptor);
    ASSERT_TRUE(first.IsCopying());
    BlockedExec second(m_downloader, m_other);
    EXPECT_TRUE(second.IsCopying());
    EXPECT_EQ(first.End(), Status::Failed);
    EXPECT_EQ(second.End(), Status::Failed);
    ExpectBothWhole();
}

TEST(IResourceDownloader, NumbersItsOutcomes) {
    EXPECT_EQ(static_cast<int>(Status::Ok), 0);
    EXPECT_EQ(static_cast<int>(Status::Failed), 1);
    EXPECT_EQ(static_cast<int>(Status::NetworkFailure), 2);
    EXPECT_EQ(static_cast<int>(Status::Cancelled), 3);
    EXPECT_TRUE((std::is_same_v<std::underlying_type_t<Status>, std::int32_t>));
}

TEST(IResourceDownloader, KeepsTheOrderOfItsOperations) {
    EXPECT_EQ(VirtualSlot(&IResourceDownloader::Exec), 1U);
    EXPECT_EQ(VirtualSlot(&IResourceDownloader::Abort), 2U);
}

} // namespace
} // namespace Halvex::App
