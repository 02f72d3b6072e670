#include "integration/Application.h"
#include "support/LogCapture.h"
#include "support/NginxServer.h"

#include <gmock/gmock.h>

#include <map>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace Halvex::App {

namespace {

using testing::AllOf;
using Testing::Application;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using Testing::LogCapture;
using Testing::NginxServer;
using Testing::Outcome;
using Testing::ReadFile;
using Testing::SomeBytes;
using testing::StartsWith;
using Testing::StatusLog;
using Testing::TemporaryFolder;
using testing::UnorderedElementsAre;
using Testing::WaitForOutcome;

/// A server with a folder of files, and an application that wants them; whether it uses the
/// parallel executor, the Qt notification queue and the Qt client are the parameters.
class BundleDownload : public testing::TestWithParam<std::tuple<bool, bool, bool>> {
protected:
    using Files = std::set<const ResourceDescriptor*>;

    static Application::Params Parameters() {
        Application::Params params;
        std::tie(params.useParallelExecutor, params.useQtTaskQueue, params.useQtHttpClient) =
            GetParam();
        params.threadCount = 4;
        return params;
    }

    /// Puts a file on the server.
    const ResourceDescriptor* Offer(const std::string& path, const std::string& content) {
        served.Write(path, content);
        const ResourceDescriptor& descriptor = application.AddFile(server.Url(""), path);
        contents[&descriptor] = content;
        return &descriptor;
    }

    /// Files of many sizes, in folders, and with names that a URL cannot hold as they are.
    Files OfferManyFiles() {
        Files files{Offer("empty", ""),
                    Offer("byte", "x"),
                    Offer("a/b/nested.bin", SomeBytes(999)),
                    Offer("with blank.bin", SomeBytes(5'000)),
                    Offer("\xC3\xA4\xC3\xB6\xE6\x96\x87.bin", SomeBytes(6'000)),
                    Offer("large.bin", SomeBytes(3'000'000))};
        for (unsigned i = 0; i < 20; ++i)
            files.insert(Offer("many/" + std::to_string(i), SomeBytes(i * 10'000, i)));
        return files;
    }

    void ExpectArrived(const Files& files) {
        for (const ResourceDescriptor* file : files)
            EXPECT_TRUE(ReadFile(file->downloadPath) == contents[file]) << file->relativePath;
    }

    /// The paths of the requests that have ended, when there were so many.
    std::vector<std::string> RequestedPaths(std::size_t count) const {
        EXPECT_TRUE(server.WaitForRequests(count));
        std::vector<std::string> paths;
        for (const std::string& line : server.AccessLog()) {
            const std::size_t begin = line.find(' ') + 1;
            paths.push_back(line.substr(begin, line.find(' ', begin) - begin));
        }
        return paths;
    }

    TemporaryFolder served;
    NginxServer server{ioPath(served.Path())};
    std::map<const ResourceDescriptor*, std::string> contents;
    Application application{Parameters()};
};

std::string NameOf(const testing::TestParamInfo<std::tuple<bool, bool, bool>>& info) {
    return std::string(std::get<0>(info.param) ? "Parallel" : "Blocking") +
           (std::get<1>(info.param) ? "QtQueue" : "ImmediateQueue") +
           (std::get<2>(info.param) ? "QtClient" : "NativeClient");
}

INSTANTIATE_TEST_SUITE_P(Setups, BundleDownload,
                         testing::Combine(testing::Bool(), testing::Bool(), testing::Bool()),
                         NameOf);

} // namespace

TEST_P(BundleDownload, EveryFileArrivesByteForByte) {
    const Files files = OfferManyFiles();
    IRemoteResource* bundle = application.Schedule(files);
    application.Run();
    EXPECT_EQ(bundle->GetState().ToDebugString(), "Status: Available, err:NoError =100%");
    ExpectArrived(files);
}

TEST_P(BundleDownload, NothingElseIsLeftInTheFolder) {
    application.Schedule({Offer("a.bin", SomeBytes(100'000)), Offer("b.bin", "b")});
    application.Run();
    EXPECT_EQ(application.folder.List(), "a.bin b.bin");
}

TEST_P(BundleDownload, EveryFileIsRequestedOnce) {
    application.Schedule({Offer("a.bin", "a"), Offer("b/c.bin", "c")});
    application.Run();
    EXPECT_THAT(RequestedPaths(2), UnorderedElementsAre("/a.bin", "/b/c.bin"));
}

TEST_P(BundleDownload, WorksOnTheManagersOwnThread) {
    application.manager.StartEventLoopThread();
    const Files files = OfferManyFiles();
    EXPECT_TRUE(WaitForOutcome(application.Schedule(files), "Available NoError"));
    ExpectArrived(files);
}

TEST_P(BundleDownload, TheManagersOwnThreadTakesBundlesOneAfterTheOther) {
    application.manager.StartEventLoopThread();
    const ResourceDescriptor* first = Offer("first.bin", "1");
    EXPECT_TRUE(WaitForOutcome(application.Schedule({first}), "Available NoError"));
    const ResourceDescriptor* second = Offer("second.bin", "2");
    EXPECT_TRUE(WaitForOutcome(application.Schedule({second}), "Available NoError"));
    ExpectArrived({first, second});
}

TEST_P(BundleDownload, TheObserverHearsOfTheStartAndOfTheEnd) {
    IRemoteResource* bundle = application.Register({Offer("a.bin", SomeBytes(500'000))});
    StatusLog log(bundle);
    bundle->Schedule(ISchedulableResource::SchedulePriority::High);
    application.Run();
    EXPECT_THAT(log.Outcomes(),
                ElementsAre("Waiting NoError", "Dowloading NoError", "Available NoError"));
}

TEST_P(BundleDownload, TheObserverIsToldOnTheRightThread) {
    IRemoteResource* bundle = application.Register({Offer("a.bin", "a")});
    bundle->Schedule(ISchedulableResource::SchedulePriority::High);
    StatusLog log(bundle);
    application.Run();
    ASSERT_EQ(log.Threads().size(), 3U);
    const bool tellsFromWorkers = std::get<0>(GetParam()) && !std::get<1>(GetParam());
    EXPECT_EQ(log.Threads().back() != std::this_thread::get_id(), tellsFromWorkers);
}

TEST_P(BundleDownload, TwoBundlesShareAFileAndBothFollowIt) {
    const ResourceDescriptor* shared = Offer("shared.bin", SomeBytes(200'000));
    const Files left{shared, Offer("left.bin", "l")};
    const Files right{shared, Offer("right.bin", "r")};
    IRemoteResource* leftBundle = application.Schedule(left);
    IRemoteResource* rightBundle = application.Schedule(right);
    application.Run();
    EXPECT_EQ(Outcome(leftBundle->GetState()), "Available NoError");
    EXPECT_EQ(Outcome(rightBundle->GetState()), "Available NoError");
    ExpectArrived(left);
    ExpectArrived(right);
}

TEST_P(BundleDownload, ASharedFileIsDownloadedOnce) {
    const ResourceDescriptor* shared = Offer("shared.bin", SomeBytes(200'000));
    application.Schedule({shared, Offer("left.bin", "l")});
    application.Schedule({shared, Offer("right.bin", "r")});
    application.Run();
    EXPECT_THAT(RequestedPaths(3), UnorderedElementsAre("/shared.bin", "/left.bin", "/right.bin"));
}

TEST_P(BundleDownload, AFileThatIsThereIsNotDownloaded) {
    const ResourceDescriptor* present = Offer("present.bin", "on the server");
    application.folder.Write("present.bin", "on the disk");
    IRemoteResource* bundle = application.Schedule({present, Offer("absent.bin", "a")});
    application.Run();
    EXPECT_EQ(Outcome(bundle->GetState()), "Available NoError");
    EXPECT_EQ(ReadFile(present->downloadPath), "on the disk");
    EXPECT_THAT(RequestedPaths(1), ElementsAre("/absent.bin"));
}

TEST_P(BundleDownload, ASecondRunFindsEverythingPresent) {
    IRemoteResource* bundle = application.Schedule({Offer("a.bin", "a")});
    application.Run();
    bundle->Schedule(ISchedulableResource::SchedulePriority::Normal);
    application.Run();
    EXPECT_EQ(Outcome(bundle->GetState()), "Available NoError");
    EXPECT_THAT(RequestedPaths(1), ElementsAre("/a.bin"));
}

TEST_P(BundleDownload, FilesNeededAtStartUpComeFirst) {
    const ResourceDescriptorBundle& later = application.AddBundle({Offer("later.bin", "l")});
    const ResourceDescriptorBundle& startUp = application.AddBundle({Offer("start-up.bin", "s")});
    application.manager.GetMainScheduler()->RegisterAutoSchedule(
        &later, ISchedulableResource::SchedulePriority::High);
    application.manager.GetInitScheduler()->RegisterAutoSchedule(
        &startUp, ISchedulableResource::SchedulePriority::Low);
    application.Run();
    EXPECT_THAT(RequestedPaths(2), ElementsAre("/start-up.bin", "/later.bin"));
}

TEST_P(BundleDownload, AMissingFileMakesItsBundleFailAndNoOther) {
    served.Write("b.bin", "b");
    IRemoteResource* broken = application.Schedule(
        {&application.AddFile(server.Url(""), "missing.bin"), Offer("a.bin", "a")});
    IRemoteResource* whole = application.Schedule({Offer("b.bin", "b")});
    application.Run();
    EXPECT_EQ(Outcome(broken->GetState()), "Error GeneralError");
    EXPECT_EQ(Outcome(whole->GetState()), "Available NoError");
    EXPECT_EQ(application.folder.List(), "a.bin b.bin");
}

TEST_P(BundleDownload, AMissingFileIsLoggedWithWhatTheServerSaid) {
    application.Schedule({&application.AddFile(server.Url(""), "missing.bin")});
    const LogCapture log;
    application.Run();
    EXPECT_THAT(log.Errors(), Contains(AllOf(StartsWith("request=" + server.Url("/missing.bin") +
                                                        " failed with error="),
                                             HasSubstr("Not Found"))));
}

} // namespace Halvex::App
