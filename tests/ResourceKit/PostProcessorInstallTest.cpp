#include "ResourceKit/PostProcessorInstall.h"

#include "ResourceDownloadManager/IRemoteResource.h"
#include "ResourceDownloadManager/IRemoteResourceScheduler.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "ResourceDownloadManager/ResourceDownloadManager.h"
#include "ResourceKit/Manifest.h"
#include "ResourceKit/Testing/ScriptedDownloader.h"
#include "ResourceKit/ValidatorSha256.h"
#include "support/LogCapture.h"
#include "support/ScriptedHttpServer.h"
#include "support/SystemCalls.h"
#include "support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace Halvex::Kit {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using Testing::LogCapture;
using Testing::ReadFile;
using Testing::ScriptedDownload;
using Testing::ScriptedDownloader;
using testing::StartsWith;
using Testing::SystemCalls;
using Testing::TemporaryFolder;
using Status = App::IResourceDownloader::Status;

// As sha256sum prints them.
constexpr char kSumOfAbc[] = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
constexpr char kSumOfAbd[] = "a52d159f262b2c6ddb724a61840befc36eb30c88877a4030b65cbe86298449c9";

/// "abc" is what is expected; an old copy is there.
class PostProcessorInstallTest : public testing::Test {
protected:
    PostProcessorInstallTest() {
        descriptor.localPath = folder.Write("file", "old");
        descriptor.downloadPath = folder / "new";
    }

    std::int32_t Process(const StopQuery& stop = {}) const {
        return PostProcessorInstall([this](const auto&) { return expected; }, stop)
            .Process(&descriptor);
    }

    void ExpectOnlyTheOldCopy() const {
        EXPECT_EQ(folder.List(), "file");
        EXPECT_EQ(ReadFile(descriptor.localPath), "old");
    }

    const TemporaryFolder folder;
    App::ResourceDescriptor descriptor;
    ExpectedFile expected{3, kSumOfAbc};
};

TEST_F(PostProcessorInstallTest, PutsTheNewFileInThePlaceOfTheOldCopy) {
    folder.Write("new", "abc");
    const LogCapture log;
    EXPECT_EQ(Process(), 0);
    EXPECT_EQ(ReadFile(descriptor.localPath), "abc");
    EXPECT_EQ(folder.List(), "file");
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(PostProcessorInstallTest, InstallsWhereNoCopyIsYet) {
    std::filesystem::remove(descriptor.localPath.string());
    folder.Write("new", "abc");
    EXPECT_EQ(Process(), 0);
    EXPECT_EQ(ReadFile(descriptor.localPath), "abc");
}

TEST_F(PostProcessorInstallTest, RemovesAWrongFileAndLeavesTheOldCopy) {
    const struct {
        const char* content;
        std::string finding;
    } wrongFiles[] = {
        {"ab", "short: 2 bytes instead of 3"},
        {"abcd", "long: 4 bytes instead of 3"},
        {"abd", std::string("different: its sha256 is ") + kSumOfAbd + " instead of " + kSumOfAbc}};
    for (const auto& wrong : wrongFiles) {
        folder.Write("new", wrong.content);
        const LogCapture log;
        EXPECT_EQ(Process(), 1);
        ExpectOnlyTheOldCopy();
        const auto lines = log.Lines();
        ASSERT_EQ(lines.size(), 1U);
        EXPECT_EQ(lines[0].text,
                  "not installing file=" + descriptor.downloadPath.string() + ": " + wrong.finding);
        EXPECT_EQ(lines[0].severity, google::GLOG_WARNING);
    }
}

TEST_F(PostProcessorInstallTest, InstallsWhatItHasCheckedWhateverIsDownloadedMeanwhile) {
    folder.Write("new", "abc");
    EXPECT_EQ(Process([this] {
                  folder.Write("new", "abd");
                  return false;
              }),
              0);
    EXPECT_EQ(ReadFile(descriptor.localPath), "abc");
    EXPECT_EQ(ReadFile(descriptor.downloadPath), "abd");
    EXPECT_EQ(folder.List(), "file new");
}

TEST_F(PostProcessorInstallTest, LeavesWhatIsDownloadedWhileItChecksAWrongFile) {
    folder.Write("new", "abd");
    EXPECT_EQ(Process([this] {
                  folder.Write("new", "abc");
                  return false;
              }),
              1);
    EXPECT_EQ(ReadFile(descriptor.localPath), "old");
    EXPECT_EQ(ReadFile(descriptor.downloadPath), "abc");
    EXPECT_EQ(folder.List(), "file new");
}

TEST_F(PostProcessorInstallTest, FailsWhenThereIsNoNewFile) {
    EXPECT_EQ(Process(), 1);
    ExpectOnlyTheOldCopy();
}

TEST_F(PostProcessorInstallTest, ChecksTheSizeOnlyWhereNoSumIsKnown) {
    expected.sha256.clear();
    folder.Write("new", "ab");
    EXPECT_EQ(Process(), 1);
    ExpectOnlyTheOldCopy();
    folder.Write("new", "abd");
    EXPECT_EQ(Process(), 0);
    EXPECT_EQ(ReadFile(descriptor.localPath), "abd");
}

TEST_F(PostProcessorInstallTest, InstallsAnyFileOfWhichNothingIsKnown) {
    expected = {};
    folder.Write("new", "");
    EXPECT_EQ(Process(), 0);
    EXPECT_EQ(ReadFile(descriptor.localPath), "");
    EXPECT_EQ(folder.List(), "file");
}

TEST_F(PostProcessorInstallTest, InstallsNothingOnceItIsToStop) {
    for (const ExpectedFile& known : {ExpectedFile{3, kSumOfAbc}, ExpectedFile{3, {}}}) {
        SCOPED_TRACE(known.sha256);
        expected = known;
        folder.Write("new", "abc");
        const LogCapture log;
        EXPECT_EQ(Process([] { return true; }), 1);
        ExpectOnlyTheOldCopy();
        EXPECT_THAT(log.Lines(), IsEmpty());
    }
}

TEST_F(PostProcessorInstallTest, KeepsAGoodFileThatIsInPlaceAlsoWhenItIsToStop) {
    descriptor.downloadPath = descriptor.localPath;
    expected = {3, {}};
    EXPECT_EQ(Process([] { return true; }), 0);
    ExpectOnlyTheOldCopy();
}

TEST_F(PostProcessorInstallTest, InstallsNothingWhenItIsToStopAtTheEndOfTheCheck) {
    folder.Write("new", "abc");
    // Before the content, and where there is no more of it.
    int questions = 0;
    EXPECT_EQ(Process([&] { return ++questions == 3; }), 1);
    EXPECT_EQ(questions, 3);
    ExpectOnlyTheOldCopy();
}

TEST_F(PostProcessorInstallTest, LeavesAFolderInThePlaceOfTheFile) {
    descriptor.localPath = folder / "folder";
    folder.Write("folder/precious", "x");
    folder.Write("new", "abc");
    const LogCapture log;
    EXPECT_EQ(Process(), 1);
    EXPECT_EQ(folder.List(), "file folder");
    EXPECT_TRUE((folder / "folder/precious").exists());
    EXPECT_THAT(log.Errors(),
                ElementsAre(StartsWith("cannot install file=" + descriptor.downloadPath.string() +
                                       " as " + descriptor.localPath.string() + ": ")));
}

TEST_F(PostProcessorInstallTest, JudgesAFileThatIsInItsPlaceAlready) {
    descriptor.downloadPath = descriptor.localPath;
    EXPECT_EQ(Process(), 1);
    EXPECT_EQ(folder.List(), "");
    folder.Write("file", "abc");
    EXPECT_EQ(Process(), 0);
    EXPECT_EQ(ReadFile(descriptor.localPath), "abc");
}

TEST_F(PostProcessorInstallTest, InstallsFromAnotherFileSystem) {
    const TemporaryFolder elsewhere(Testing::FolderOnAnotherFileSystem());
    descriptor.downloadPath = elsewhere.Write("new", "abc");
    EXPECT_EQ(Process(), 0);
    EXPECT_EQ(ReadFile(descriptor.localPath), "abc");
    EXPECT_EQ(folder.List(), "file");
    EXPECT_EQ(elsewhere.List(), "");
}

TEST_F(PostProcessorInstallTest, PutsTheBytesOnDiskBeforeTheName) {
    folder.Write("new", "abc");
    const SystemCalls calls;
    EXPECT_EQ(Process(), 0);
    std::vector<std::string> changes;
    for (const std::string& call : calls.Made()) {
        if (call.rfind("fdatasync ", 0) == 0 || call.rfind("rename ", 0) == 0 ||
            call.rfind("unlink ", 0) == 0)
            changes.push_back(call);
    }
    EXPECT_THAT(changes,
                ElementsAre(StartsWith("rename new -> .halvex-"), StartsWith("fdatasync .halvex-"),
                            AllOf(StartsWith("rename .halvex-"), EndsWith(" -> file"))));
}

TEST_F(PostProcessorInstallTest, LeavesTheOldCopyWhateverCallFails) {
    std::size_t failures = 0;
    while (true) {
        SCOPED_TRACE(failures);
        folder.Write("new", "abc");
        SystemCalls calls;
        calls.FailNth(failures + 1, {"new", ".halvex-"}, EIO);
        const std::int32_t result = Process();
        const std::string failed = calls.FailedNth();
        if (failed.empty())
            break;
        ++failures;
        SCOPED_TRACE(failed);
        if (failed.rfind("close ", 0) != 0) {
            EXPECT_EQ(result, 1);
            EXPECT_EQ(ReadFile(descriptor.localPath), "old");
        }
        folder.Write("file", "old");
        std::filesystem::remove((folder / "new").string());
    }
    EXPECT_GE(failures, 5U);
    EXPECT_EQ(ReadFile(descriptor.localPath), "abc");
}

TEST_F(PostProcessorInstallTest, ShowsAWholeFileAtAnyTime) {
    std::atomic<bool> ends{false};
    std::atomic<std::size_t> reads{0};
    std::size_t broken = 0;
    std::thread reader([&] {
        for (; !ends; ++reads) {
            std::ifstream file(descriptor.localPath.string());
            std::string content;
            file >> content;
            broken += content == "old" || content == "abc" ? 0 : 1;
        }
    });
    for (std::size_t round = 0; round < 100 || reads < 100; ++round) {
        folder.Write("new", "abc");
        EXPECT_EQ(Process(), 0);
        // Not by writing to the file itself, which a reader would see unfinished.
        folder.Write("back", "old");
        App::ioPath::rename(folder / "back", descriptor.localPath);
    }
    ends = true;
    reader.join();
    EXPECT_EQ(broken, 0U);
}

/// In a manager, with the descriptors of a manifest that keep old copies.
class InstallingManager : public testing::Test {
protected:
    explicit InstallingManager(const std::string& baseUrl = "http://h") {
        Manifest::Options options;
        options.folder = folder.Path();
        options.keepsOldCopies = true;
        ManifestResult result = Manifest::Parse(
            R"({"baseUrl": ")" + baseUrl +
                R"(", "bundles": [{"name": "b", "files": [{"path": "file", "sha256": ")" +
                kSumOfAbc + R"("}]}]})",
            "m", options);
        manifest = std::move(result.manifest);
        folder.Write("file", "old");
    }

    /// What becomes of the resource, which is tried once.
    std::string Run(const std::shared_ptr<App::IResourceDownloader>& downloader) {
        App::ResourceDownloadManager::Dependencies services;
        services.resourceDownloader = downloader;
        services.validator = std::make_shared<ValidatorSha256>(manifest->Expected());
        services.postProcessor = std::make_shared<PostProcessorInstall>(manifest->Expected());
        App::ResourceDownloadManager manager;
        manager.Init({}, services);
        App::IRemoteResource* resource = manager.GetInitScheduler()->RegisterAutoSchedule(
            &manifest->Bundles()[0].descriptors,
            App::ISchedulableResource::SchedulePriority::Normal);
        manager.ProcessCurrentQueue();
        const App::IRemoteResource::State state = resource->GetState();
        return App::IRemoteResource::StatusToString(state.status) + ' ' +
               App::IRemoteResource::ErrorToString(state.error);
    }

    static std::shared_ptr<ScriptedDownloader> Downloader(ScriptedDownload download) {
        auto downloader = std::make_shared<ScriptedDownloader>();
        downloader->On("file", std::move(download));
        return downloader;
    }

    void ExpectOnly(const std::string& content) const {
        EXPECT_EQ(folder.List(), "file");
        EXPECT_EQ(ReadFile(folder / "file"), content);
    }

    const TemporaryFolder folder;
    std::unique_ptr<Manifest> manifest;
};

TEST_F(InstallingManager, ReplacesAnOldCopy) {
    EXPECT_EQ(Run(Downloader(ScriptedDownload::Complete("abc"))), "Available NoError");
    ExpectOnly("abc");
}

TEST_F(InstallingManager, KeepsTheOldCopyWhenTheDownloadIsAnotherFile) {
    EXPECT_EQ(Run(Downloader(ScriptedDownload::Complete("abd"))), "Error Corrupted");
    ExpectOnly("old");
}

TEST_F(InstallingManager, KeepsTheOldCopyWhenTheDownloadFails) {
    EXPECT_EQ(Run(Downloader(ScriptedDownload::Fail(Status::NetworkFailure))),
              "Error InternetConnectionLost");
    ExpectOnly("old");
}

TEST_F(InstallingManager, DownloadsNothingWhenTheCopyIsGood) {
    folder.Write("file", "abc");
    const auto downloader = Downloader(ScriptedDownload::Complete("abd"));
    EXPECT_EQ(Run(downloader), "Available NoError");
    EXPECT_THAT(downloader->Downloads(), IsEmpty());
    ExpectOnly("abc");
}

/// With a server and the library's own downloader.
class InstallingManagerOverHttp : public InstallingManager {
protected:
    InstallingManagerOverHttp() : InstallingManagerOverHttp(new Testing::ScriptedHttpServer) {}

    const std::unique_ptr<Testing::ScriptedHttpServer> server;

private:
    explicit InstallingManagerOverHttp(Testing::ScriptedHttpServer* newServer)
        : InstallingManager(newServer->Url("")), server(newServer) {}
};

TEST_F(InstallingManagerOverHttp, ReplacesAnOldCopy) {
    server->On("/file", Testing::Reply::Ok("abc"));
    EXPECT_EQ(Run(nullptr), "Available NoError");
    ExpectOnly("abc");
}

TEST_F(InstallingManagerOverHttp, KeepsTheOldCopyWhenTheServerFailsOrSendsAnotherFile) {
    server->On("/file", Testing::Reply::Ok("abd"));
    EXPECT_EQ(Run(nullptr), "Error Corrupted");
    ExpectOnly("old");
    server->On("/file", Testing::Reply::Status(404));
    EXPECT_EQ(Run(nullptr), "Error GeneralError");
    ExpectOnly("old");
}

} // namespace
} // namespace Halvex::Kit
