#include "ResourceDownloadManager/Downloader/ResourceDownloaderHttp.h"
#include "integration/Application.h"
#include "support/ChildProcess.h"
#include "support/LogCapture.h"
#include "support/NginxServer.h"

#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <tuple>

namespace Halvex::App {

namespace {

using Testing::Application;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using Testing::LogCapture;
using Testing::LoopbackPort;
using Testing::NginxServer;
using testing::Not;
using Testing::Outcome;
using Testing::ReadFile;
using Testing::TemporaryFolder;

/// What is wrong with a resource.
struct Flaw {
    const char* name;
    std::function<void(const TemporaryFolder&, ResourceDescriptor&)> inflict;
    /// A part of the log line.
    const char* complaint;
};

void PrintTo(const Flaw& flaw, std::ostream* stream) {
    *stream << flaw.name;
}

const std::string kLongName(300, 'x');

std::string LongPath() {
    std::string path;
    for (int i = 0; i < 50; ++i)
        path += std::string(100, 'y') + '/';
    return path;
}

const Flaw kFlaws[] = {
    {"MissingFolderOfTheTemporaryFile",
     [](const TemporaryFolder& folder, ResourceDescriptor& file) {
         file.tempPath = folder / "missing/file.part";
     },
     "failed to create file for writing="},
    {"MissingFolderOfTheDestination",
     [](const TemporaryFolder& folder, ResourceDescriptor& file) {
         file.downloadPath = folder / "missing/file.bin";
     },
     "Failed to rename: "},
    {"UnwritableFolderOfTheTemporaryFile",
     [](const TemporaryFolder&, ResourceDescriptor& file) {
         file.tempPath = "/proc/self/file.part";
     },
     "failed to create file for writing="},
    {"UnwritableFolderOfTheDestination",
     [](const TemporaryFolder&, ResourceDescriptor& file) {
         file.downloadPath = "/proc/self/file.bin";
     },
     "Failed to rename: "},
    {"FileInTheFoldersPlace",
     [](const TemporaryFolder& folder, ResourceDescriptor& file) {
         file.tempPath = folder / "kept/file.part";
     },
     "failed to create file for writing="},
    {"FolderAtTheTemporaryPath",
     [](const TemporaryFolder& folder, ResourceDescriptor& file) {
         file.tempPath = ioPath(folder.Path());
     },
     "Failed to remove file="},
    {"FolderAtTheDestination",
     [](const TemporaryFolder& folder, ResourceDescriptor& file) {
         file.downloadPath = ioPath(folder.Path());
     },
     "Failed to remove file="},
    {"OverlongNameOfTheTemporaryFile",
     [](const TemporaryFolder& folder, ResourceDescriptor& file) {
         file.tempPath = folder / kLongName;
     },
     "Failed to remove file="},
    {"OverlongNameOfTheDestination",
     [](const TemporaryFolder& folder, ResourceDescriptor& file) {
         file.downloadPath = folder / kLongName;
     },
     "Failed to remove file="},
    {"OverlongPath",
     [](const TemporaryFolder& folder, ResourceDescriptor& file) {
         file.tempPath = folder / (LongPath() + "file.part");
         file.downloadPath = folder / (LongPath() + "file.bin");
         file.localPath = file.downloadPath;
     },
     "Failed to remove file="},
    {"EmptyPaths",
     [](const TemporaryFolder&, ResourceDescriptor& file) {
         file.tempPath = file.downloadPath = file.localPath = ioPath();
     },
     "the temporary path is the download path="},
    {"TemporaryPathThatIsTheDestination",
     [](const TemporaryFolder&, ResourceDescriptor& file) { file.tempPath = file.downloadPath; },
     "the temporary path is the download path="},
    {"PathWithAZeroByte",
     [](const TemporaryFolder& folder, ResourceDescriptor& file) {
         file.tempPath = folder / std::string("file\0.part", 10);
     },
     "Failed to remove file="},
    {"UrlWithoutHost",
     [](const TemporaryFolder&, ResourceDescriptor& file) { file.baseUrl = "http:///"; },
     "failed with error="},
    {"EmptyUrl",
     [](const TemporaryFolder&, ResourceDescriptor& file) {
         file.baseUrl = "";
         file.relativePath = "";
     },
     "failed with error="},
    {"TextThatIsNoUrl",
     [](const TemporaryFolder&, ResourceDescriptor& file) { file.baseUrl = "not a url"; },
     "failed with error="},
    {"UrlOfAnotherScheme",
     [](const TemporaryFolder&, ResourceDescriptor& file) { file.baseUrl = "file:///etc"; },
     "failed with error="},
    {"UrlWithALineBreak",
     [](const TemporaryFolder&, ResourceDescriptor& file) { file.relativePath = "a\r\nHost: b"; },
     "failed with error="},
    {"FolderOnTheServer",
     [](const TemporaryFolder&, ResourceDescriptor& file) { file.relativePath = ""; },
     "failed with error="},
};

/// One flawed resource, with either executor.
class BadInput : public testing::TestWithParam<std::tuple<Flaw, bool>> {
protected:
    BadInput() {
        served.Write("file.bin", "body");
        application.folder.Write("kept", "kept");
        std::get<0>(GetParam()).inflict(application.folder, file);
    }

    static Application::Params Parameters() {
        Application::Params params;
        params.useParallelExecutor = std::get<1>(GetParam());
        return params;
    }

    TemporaryFolder served;
    NginxServer server{ioPath(served.Path())};
    Application application{Parameters()};
    ResourceDescriptor& file = application.AddFile(server.Url(""), "file.bin");
};

INSTANTIATE_TEST_SUITE_P(Flaws, BadInput,
                         testing::Combine(testing::ValuesIn(kFlaws), testing::Bool()),
                         [](const auto& param) {
                             return std::string(std::get<0>(param.param).name) +
                                    (std::get<1>(param.param) ? "Parallel" : "Blocking");
                         });

} // namespace

TEST_P(BadInput, EndsInAnErrorAndALogLine) {
    IRemoteResource* bundle = application.Schedule({&file});
    const LogCapture log;
    application.Run();
    EXPECT_EQ(Outcome(bundle->GetState()), "Error GeneralError");
    EXPECT_THAT(log.Errors(), Contains(HasSubstr(std::get<0>(GetParam()).complaint)));
}

TEST_P(BadInput, LeavesNoFileBehindAndHarmsNone) {
    application.Schedule({&file});
    application.Run();
    EXPECT_EQ(application.folder.List(), "kept");
    EXPECT_EQ(ReadFile(application.folder / "kept"), "kept");
}

TEST_P(BadInput, DoesNotKeepOthersFromArriving) {
    ResourceDescriptor& good = application.AddFile(server.Url(""), "file.bin");
    good.downloadPath = good.localPath = application.folder / "good.bin";
    good.tempPath = application.folder / "good.part";
    application.Schedule({&file, &good});
    application.Run();
    EXPECT_EQ(ReadFile(good.downloadPath), "body");
}

TEST(UnusualInput, APathOutsideAsciiIsFine) {
    const TemporaryFolder served;
    const std::string name = "\xC3\xA4 \xE6\x96\x87\xF0\x9F\x98\x80.bin";
    served.Write(name, "body");
    const NginxServer server{ioPath(served.Path())};
    Application application({});
    const ResourceDescriptor& file = application.AddFile(server.Url(""), name);
    application.Schedule({&file});
    application.Run();
    EXPECT_EQ(ReadFile(file.downloadPath), "body");
    EXPECT_EQ(application.folder.List(), name);
}

TEST(UnusualInput, AnEmptyBundleStaysWaiting) {
    Application application({});
    IRemoteResource* bundle = application.Schedule({});
    application.Run();
    EXPECT_EQ(bundle->GetState().ToDebugString(), "Status: Waiting, err:NoError =0%");
}

TEST(UnusualInput, ADownloaderWithoutServicesMakesEveryDownloadFail) {
    Application::Dependencies dependencies;
    dependencies.resourceDownloader =
        std::make_shared<ResourceDownloaderHttp>(nullptr, nullptr, nullptr);
    Application application({}, dependencies);
    IRemoteResource* bundle =
        application.Schedule({&application.AddFile("http://127.0.0.1", "file.bin")});
    const LogCapture log;
    application.Run();
    EXPECT_EQ(Outcome(bundle->GetState()), "Error GeneralError");
    EXPECT_THAT(log.Errors(), Contains("request=http://127.0.0.1/file.bin failed with error="));
    EXPECT_EQ(application.folder.List(), "");
}

TEST(UnusualInput, AServerThatIsNotThereIsALostConnection) {
    const LoopbackPort port;
    Application application({});
    IRemoteResource* bundle =
        application.Schedule({&application.AddFile("http://" + port.Address(), "file.bin")});
    const LogCapture log;
    EXPECT_TRUE(application.manager.ProcessCurrentQueueQuant());
    EXPECT_EQ(Outcome(bundle->GetState()), "Error InternetConnectionLost");
    EXPECT_THAT(log.Errors(), Contains(HasSubstr("Failed to connect to 127.0.0.1 port " +
                                                 std::to_string(port.Number()))));
    EXPECT_EQ(application.folder.List(), "");
}

TEST(UnusualInput, AnAbortedManagerLeavesNewBundlesWaiting) {
    Application::Params params;
    params.useParallelExecutor = true;
    Application application(params);
    application.manager.Abort();
    IRemoteResource* bundle =
        application.Schedule({&application.AddFile("http://127.0.0.1", "file.bin")});
    application.Run();
    EXPECT_EQ(Outcome(bundle->GetState()), "Waiting NoError");
    EXPECT_EQ(application.folder.List(), "");
}

} // namespace Halvex::App
