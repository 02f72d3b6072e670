#include "integration/Application.h"
#include "support/FileSizeLimit.h"
#include "support/LogCapture.h"
#include "support/NginxServer.h"
#include "support/ScriptedHttpServer.h"
#include "support/SmallFileSystem.h"
#include "support/SystemCalls.h"
#include "support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace Halvex::App {
namespace {

using Testing::Application;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using Testing::Event;
using Testing::FileSizeLimit;
using Testing::FolderOnAnotherFileSystem;
using Testing::GeneratedBytes;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSubsetOf;
using testing::IsSupersetOf;
using Testing::LogCapture;
using Testing::NginxServer;
using testing::Not;
using Testing::Outcome;
using Testing::ReadFile;
using Testing::Reply;
using Testing::ScriptedHttpServer;
using Testing::SmallFileSystem;
using Testing::SystemCalls;
using Testing::TemporaryFolder;
using Testing::WaitForOutcome;
using Testing::WaitUntil;

/// Whole pages, and several writes.
constexpr std::size_t kSize = 1024 * 1024;

/// One file that is downloaded to a disk which does not play along.
class DiskFault : public testing::Test {
protected:
    /// Downloads it with the scheduler that does not retry, and says how that ended.
    std::string Download() {
        Application application({});
        const ResourceDescriptor& file = Described(application);
        IRemoteResource* resource = application.manager.GetInitScheduler()->RegisterAutoSchedule(
            &application.AddBundle({&file}), ISchedulableResource::SchedulePriority::Normal);
        const LogCapture log;
        application.Run();
        errors = log.Errors();
        const std::string outcome = Outcome(resource->GetState());
        application.manager.Abort();
        return outcome;
    }

    const ResourceDescriptor& Described(Application& application) const {
        ResourceDescriptor& file = application.AddFile(baseUrl, "file.bin");
        file.tempPath = temporaryPath;
        file.downloadPath = file.localPath = destination;
        file.validationMode = 0;
        return file;
    }

    void ExpectWholeFile() const {
        EXPECT_TRUE(ReadFile(destination) == GeneratedBytes(0, kSize));
        EXPECT_FALSE(temporaryPath.exists());
    }

    /// And that the log names the file.
    void ExpectErrorWithoutAFile() {
        EXPECT_EQ(Download(), "Error GeneralError");
        EXPECT_THAT(errors, Contains(HasSubstr("file.bin")));
        EXPECT_EQ(folder.List(), "");
        EXPECT_EQ(destinationFolder.List(), "");
    }

    ScriptedHttpServer server;
    std::string baseUrl = (server.On("/file.bin", Reply::Generated(kSize)), server.Url(""));
    const TemporaryFolder folder;
    const TemporaryFolder destinationFolder;
    ioPath temporaryPath = folder / "file.bin.part";
    ioPath destination = destinationFolder / "file.bin";
    std::vector<std::string> errors;
};

// Calls that fail

/// The parameter: whether the temporary file lies on another file system than the destination.
class DiskFaultAtACall : public DiskFault, public testing::WithParamInterface<bool> {
protected:
    DiskFaultAtACall() {
        if (GetParam())
            temporaryPath = elsewhere / "file.bin.part";
    }

    /// The names in all folders.
    std::string Names() const { return elsewhere.List() + destinationFolder.List(); }

    const TemporaryFolder elsewhere{FolderOnAnotherFileSystem()};
};

INSTANTIATE_TEST_SUITE_P(FileSystems, DiskFaultAtACall, testing::Bool(), [](const auto& param) {
    return std::string(param.param ? "Two" : "One");
});

/// Without the names of the files.
std::string NameOfCall(const std::string& call) {
    return call.substr(0, call.find(' '));
}

TEST_P(DiskFaultAtACall, EndsInAnErrorOrInTheWholeFileWhicheverCallFails) {
    const std::string old = "an older version of the file";
    std::set<std::string> fatal;
    std::set<std::string> harmless;
    for (std::size_t n = 1;; ++n) {
        destinationFolder.Write("file.bin", old);
        SystemCalls calls;
        // The copy to another file system has a name of its own.
        calls.FailNth(n, {"file.bin", ".halvex"}, EIO);
        const std::string outcome = Download();
        const std::string failed = calls.FailedNth();
        SCOPED_TRACE(failed);
        if (outcome == "Available NoError") {
            ExpectWholeFile();
            EXPECT_EQ(Names(), "file.bin");
        } else {
            EXPECT_EQ(outcome, "Error GeneralError");
            EXPECT_THAT(errors, Contains(HasSubstr("file.bin")));
            EXPECT_EQ(Names(), NameOfCall(failed) == "unlink" ? "file.bin" : "");
        }
        if (failed.empty())
            break;
        (outcome == "Available NoError" ? harmless : fatal).insert(NameOfCall(failed));
    }
    EXPECT_THAT(fatal, IsSupersetOf({"unlink", "open", "write", "close", "fdatasync", "rename"}));
    // What was read is closed, and what has been copied is removed, when all is done.
    EXPECT_THAT(harmless, IsSubsetOf({"close", "unlink"}));
}

TEST_P(DiskFaultAtACall, IsMadeGoodByTheRetry) {
    SystemCalls calls;
    calls.FailNth(4, {"file.bin"}, ENOSPC);
    Application application({});
    const ResourceDescriptor& file = Described(application);
    IRemoteResource* resource = application.Schedule({&file});
    application.Run();
    EXPECT_EQ(NameOfCall(calls.FailedNth()), "write");
    EXPECT_EQ(Outcome(resource->GetState()), "Available NoError");
    ExpectWholeFile();
    application.manager.Abort();
}

TEST_P(DiskFaultAtACall, LeavesTheOldFileTheNewOneOrNoneWhenThePowerGoes) {
    const std::string old = "an older version of the file";
    const std::string whole = GeneratedBytes(0, kSize);
    destinationFolder.Write("file.bin", old);
    // What each name would show after a power cut: what was synced; nothing else is sure to be
    // there, be it the length or the bytes.
    std::map<std::string, std::string> onDisk{{"file.bin", old}};
    std::size_t looks = 0;
    SystemCalls calls;
    calls.Watch([&](const std::string& call) {
        std::istringstream words(call);
        std::string name;
        std::string file;
        std::string arrow;
        std::string target;
        words >> name >> file >> arrow >> target;
        const bool isMade = file == "file.bin.part" && onDisk.count(file) == 0;
        if (name == "write" || (name == "open" && isMade)) {
            onDisk[file] = "whatever";
        } else if (name == "fdatasync") {
            const bool isCopy = file.rfind(".halvex", 0) == 0;
            onDisk[file] = ReadFile(isCopy ? destinationFolder / file : temporaryPath);
        } else if (name == "unlink") {
            onDisk.erase(file);
        } else if (name == "rename" && !(GetParam() && file == "file.bin.part")) {
            onDisk[target] = onDisk[file];
            onDisk.erase(file);
        }
        ++looks;
        const auto shown = onDisk.find("file.bin");
        EXPECT_TRUE(shown == onDisk.end() || shown->second == old || shown->second == whole)
            << call;
    });
    EXPECT_EQ(Download(), "Available NoError");
    calls.Watch({});
    EXPECT_GT(looks, 5U);
    EXPECT_TRUE(onDisk["file.bin"] == whole);
}

// Disks that are full

TEST_F(DiskFault, AFileMayBeAsLargeAsFilesMayBe) {
    const FileSizeLimit limit(kSize);
    EXPECT_EQ(Download(), "Available NoError");
    ExpectWholeFile();
}

TEST_F(DiskFault, AFileMayNotBeOneByteLarger) {
    const FileSizeLimit limit(kSize - 1);
    ExpectErrorWithoutAFile();
    EXPECT_THAT(errors, Contains(HasSubstr("errno=27 (File too large)")));
}

/// With temporary file and destination on a file system of the test's own.
class DiskFaultOnASmallDisk : public DiskFault {
protected:
    void SetUp() override {
        if (!SmallFileSystem::IsAllowed())
            GTEST_SKIP() << "this process may not mount a file system";
    }

    /// Must come before the first request: the server's threads are to see it as well.
    void Mount(std::size_t bytes) { disk.emplace(destinationFolder.Path(), bytes); }

    std::optional<SmallFileSystem> disk;
};

TEST_F(DiskFaultOnASmallDisk, AFileMayFillIt) {
    temporaryPath = destinationFolder / "file.bin.part";
    Mount(kSize);
    EXPECT_EQ(Download(), "Available NoError");
    ExpectWholeFile();
}

TEST_F(DiskFaultOnASmallDisk, AFileMayNotExceedIt) {
    server.On("/file.bin", Reply::Generated(kSize + 1));
    temporaryPath = destinationFolder / "file.bin.part";
    Mount(kSize);
    ExpectErrorWithoutAFile();
    EXPECT_THAT(errors, Contains(HasSubstr("errno=28 (No space left on device)")));
}

TEST_F(DiskFaultOnASmallDisk, AFileMayFillItFromAnotherOne) {
    Mount(kSize);
    EXPECT_EQ(Download(), "Available NoError");
    ExpectWholeFile();
}

TEST_F(DiskFaultOnASmallDisk, AFileMayNotExceedItFromAnotherOne) {
    server.On("/file.bin", Reply::Generated(kSize + 1));
    Mount(kSize);
    ExpectErrorWithoutAFile();
}

TEST_F(DiskFaultOnASmallDisk, AReadOnlyOneTakesNoTemporaryFile) {
    temporaryPath = destinationFolder / "file.bin.part";
    Mount(kSize);
    disk->MakeReadOnly();
    ExpectErrorWithoutAFile();
    EXPECT_THAT(errors, Contains(HasSubstr("errno=30 (Read-only file system)")));
}

TEST_F(DiskFaultOnASmallDisk, AReadOnlyOneTakesNoFinishedFile) {
    Mount(kSize);
    disk->MakeReadOnly();
    ExpectErrorWithoutAFile();
    EXPECT_THAT(errors, Contains(HasSubstr("Failed to rename: ")));
}

TEST_F(DiskFaultOnASmallDisk, AReadOnlyOneKeepsItsOldFile) {
    Mount(kSize);
    destinationFolder.Write("file.bin", "old");
    disk->MakeReadOnly();
    EXPECT_EQ(Download(), "Error GeneralError");
    EXPECT_EQ(ReadFile(destination), "old");
    EXPECT_THAT(errors, Contains(HasSubstr("Failed to remove file=")));
}

// What is in the way

TEST_F(DiskFault, ANameMayBeAsLongAsNamesCanBe) {
    destination = destinationFolder / std::string(255, 'n');
    EXPECT_EQ(Download(), "Available NoError");
    ExpectWholeFile();
}

TEST_F(DiskFault, ANameMayNotBeLonger) {
    destination = destinationFolder / (std::string(248, 'n') + "file.bin");
    ExpectErrorWithoutAFile();
}

TEST_F(DiskFault, ATemporaryNameMayBeAsLongAsNamesCanBe) {
    temporaryPath = folder / std::string(255, 'n');
    EXPECT_EQ(Download(), "Available NoError");
    ExpectWholeFile();
}

TEST_F(DiskFault, ATemporaryNameMayNotBeLonger) {
    temporaryPath = folder / (std::string(248, 'n') + "file.bin");
    ExpectErrorWithoutAFile();
    EXPECT_THAT(errors, Each("Failed to remove file=" + temporaryPath.string()));
}

TEST_F(DiskFault, AnEmptyFolderAtTheDestinationStays) {
    std::filesystem::create_directory(destination.string());
    EXPECT_EQ(Download(), "Error GeneralError");
    EXPECT_TRUE(std::filesystem::is_empty(destination.string()));
    EXPECT_THAT(errors, ElementsAre("Failed to remove file=" + destination.string()));
}

TEST_F(DiskFault, AFullFolderAtTheDestinationStays) {
    destinationFolder.Write("file.bin/kept", "kept");
    EXPECT_EQ(Download(), "Error GeneralError");
    EXPECT_EQ(ReadFile(destination / "kept"), "kept");
    EXPECT_EQ(folder.List(), "");
}

/// What somebody does to the files while the transfer is under way.
class DiskFaultInMidTransfer : public DiskFault {
protected:
    template <typename Action>
    std::string DownloadDuring(Action action) {
        Event release;
        server.On("/file.bin", Reply::Generated(kSize).StallAt(kSize / 2, release));
        Application::Params params;
        params.useParallelExecutor = true;
        Application application(params);
        const ResourceDescriptor& file = Described(application);
        const LogCapture log;
        IRemoteResource* resource = application.manager.GetInitScheduler()->RegisterAutoSchedule(
            &application.AddBundle({&file}), ISchedulableResource::SchedulePriority::Normal);
        application.manager.StartEventLoopThread();
        EXPECT_TRUE(WaitUntil([&] { return temporaryPath.exists(); }));
        EXPECT_TRUE(server.WaitForRequests("/file.bin"));
        action();
        release.Set();
        EXPECT_TRUE(WaitUntil([&] {
            const auto status = resource->GetState().status;
            return status == IRemoteResource::DownloadStatus::Error ||
                   status == IRemoteResource::DownloadStatus::Available;
        }));
        errors = log.Errors();
        const std::string outcome = Outcome(resource->GetState());
        application.manager.Abort();
        return outcome;
    }
};

TEST_F(DiskFaultInMidTransfer, ARemovedFolderIsNotMadeAgain) {
    EXPECT_EQ(DownloadDuring([&] { std::filesystem::remove_all(folder.Path()); }),
              "Error GeneralError");
    EXPECT_FALSE(ioPath(folder.Path()).exists());
    EXPECT_EQ(destinationFolder.List(), "");
    EXPECT_THAT(errors, Contains(HasSubstr("Failed to rename: ")));
}

TEST_F(DiskFaultInMidTransfer, ARemovedFolderOfTheDestinationIsNotMadeAgain) {
    EXPECT_EQ(DownloadDuring([&] { std::filesystem::remove_all(destinationFolder.Path()); }),
              "Error GeneralError");
    EXPECT_FALSE(ioPath(destinationFolder.Path()).exists());
    EXPECT_EQ(folder.List(), "");
    EXPECT_THAT(errors, Contains(HasSubstr("Failed to rename: ")));
}

TEST_F(DiskFaultInMidTransfer, ALinkPlantedAtTheTemporaryPathIsNotFollowed) {
    const ioPath victim = folder.Write("victim", "untouched");
    EXPECT_EQ(DownloadDuring([&] {
                  temporaryPath.remove();
                  std::filesystem::create_symlink(victim.string(), temporaryPath.string());
              }),
              "Error GeneralError");
    EXPECT_EQ(ReadFile(victim), "untouched");
    EXPECT_EQ(folder.List(), "victim");
    EXPECT_EQ(destinationFolder.List(), "");
}

// Descriptors

/// While it lives, this process can open only so many more files.
class FewDescriptors {
public:
    explicit FewDescriptors(std::size_t more) {
        ::getrlimit(RLIMIT_NOFILE, &m_oldLimit);
        const int next = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        ::close(next);
        const rlimit limit{static_cast<rlim_t>(next) + more, m_oldLimit.rlim_max};
        EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    }
    ~FewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &m_oldLimit); }

    FewDescriptors(const FewDescriptors&) = delete;
    FewDescriptors& operator=(const FewDescriptors&) = delete;

private:
    rlimit m_oldLimit{};
};

TEST_F(DiskFault, AFewDescriptorsAreEnoughOrElseItIsAnError) {
    const TemporaryFolder served;
    served.Write("file.bin", GeneratedBytes(0, kSize));
    const NginxServer nginx{ioPath(served.Path())};
    baseUrl = nginx.Url("");
    EXPECT_EQ(Download(), "Available NoError");
    std::set<std::string> outcomes;
    for (std::size_t more = 0; more < 12; ++more) {
        SCOPED_TRACE(more);
        {
            const FewDescriptors few(more);
            const std::string outcome = Download();
            outcomes.insert(outcome);
            if (outcome != "Available NoError") {
                EXPECT_THAT(errors, Contains(HasSubstr("file.bin")));
            }
        }
        if (destination.exists())
            ExpectWholeFile();
        EXPECT_EQ(folder.List(), "");
    }
    EXPECT_THAT(outcomes, IsSupersetOf({"Available NoError", "Error GeneralError"}));
    EXPECT_EQ(Download(), "Available NoError");
    ExpectWholeFile();
}

} // namespace
} // namespace Halvex::App
