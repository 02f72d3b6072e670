#include "ResourceKit/ResourceDownloaderMirrors.h"

#include "Foundation/HttpClientFactory.h"
#include "Networking/IHttpClient.h"
#include "ResourceDownloadManager/Downloader/ResourceDownloaderHttp.h"
#include "ResourceDownloadManager/INetworkStateChecker.h"
#include "ResourceKit/Manifest.h"
#include "integration/Application.h"
#include "support/BackgroundCall.h"
#include "support/FakeScriptedDownloader.h"
#include "support/LogCapture.h"
#include "support/ScriptedHttpServer.h"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <map>
#include <stdexcept>
#include <utility>

namespace Halvex::Kit {
namespace {

using App::IResourceDownloader;
using App::ResourceDescriptor;
using Status = IResourceDownloader::Status;
using Task = IResourceDownloader::Task;
using testing::ElementsAre;
using testing::EndsWith;
using Testing::Event;
using Testing::FakeScriptedDownloader;
using Testing::GeneratedBytes;
using testing::HasSubstr;
using testing::IsEmpty;
using Testing::LogCapture;
using Testing::Outcome;
using Testing::ReadFile;
using Testing::Reply;
using Testing::ScriptedHttpServer;
using Testing::WaitUntil;

constexpr char kA[] = "http://a.example/f/";
constexpr char kB[] = "http://b.example/f/";
constexpr char kC[] = "http://c.example/f/";

class SwitchedNetwork : public App::INetworkStateChecker {
public:
    State GetState() const override { return isOffline ? State::Offline : State::Online; }

    std::atomic<bool> isOffline{false};
};

/// Mirrors over a downloader that does what is set for each base address; Ok where nothing is.
class ResourceDownloaderMirrorsTest : public testing::Test {
protected:
    ResourceDownloaderMirrorsTest() {
        m_descriptor.baseUrl = "http://origin.example/";
        m_descriptor.relativePath = "file.bin";
        m_inner->SetScript([this](const Task& task) {
            const std::string baseUrl = task.descriptor->baseUrl;
            {
                const MutexLock lock(m_mutex);
                m_asked.push_back(baseUrl);
            }
            if (m_duringDownload)
                m_duringDownload(task);
            return StatusOf(baseUrl);
        });
    }

    void Make(std::vector<std::string> baseUrls,
              std::chrono::milliseconds leaveOutTime = std::chrono::hours(1)) {
        m_mirrors = std::make_unique<ResourceDownloaderMirrors>(m_inner, std::move(baseUrls),
                                                                m_network, leaveOutTime);
    }

    void Set(const std::string& baseUrl, Status status) {
        const MutexLock lock(m_mutex);
        m_statuses[baseUrl] = status;
    }

    Status StatusOf(const std::string& baseUrl) {
        const MutexLock lock(m_mutex);
        const auto found = m_statuses.find(baseUrl);
        return found == m_statuses.end() ? Status::Ok : found->second;
    }

    Task ATask() const {
        Task task;
        task.descriptor = &m_descriptor;
        task.progressCallback = [](std::size_t, std::size_t) {
        };
        return task;
    }

    Status Download() { return m_mirrors->Exec(ATask()); }

    /// Has a task fail so often.
    void Fail(int times) {
        for (int i = 0; i < times; ++i)
            EXPECT_NE(Download(), Status::Ok);
    }

    /// The base addresses asked since the last time.
    std::vector<std::string> TakeAsked() {
        const MutexLock lock(m_mutex);
        return std::exchange(m_asked, {});
    }

    /// Those asked by one more task.
    std::vector<std::string> AskedByADownload() {
        TakeAsked();
        Download();
        return TakeAsked();
    }

    const std::shared_ptr<FakeScriptedDownloader> m_inner =
        std::make_shared<FakeScriptedDownloader>();
    const std::shared_ptr<SwitchedNetwork> m_network = std::make_shared<SwitchedNetwork>();
    ResourceDescriptor m_descriptor;
    std::function<void(const Task&)> m_duringDownload;
    std::unique_ptr<ResourceDownloaderMirrors> m_mirrors;

private:
    Mutex m_mutex;
    std::map<std::string, Status> m_statuses HALVEX_GUARDED_BY(m_mutex);
    std::vector<std::string> m_asked HALVEX_GUARDED_BY(m_mutex);
};

// Which mirror is asked

TEST_F(ResourceDownloaderMirrorsTest, AsksOnlyTheFirstMirrorWhenItWorks) {
    Make({kA, kB});
    EXPECT_EQ(Download(), Status::Ok);
    EXPECT_THAT(TakeAsked(), ElementsAre(kA));
}

TEST_F(ResourceDownloaderMirrorsTest, ChangesNothingButTheBaseAddressAndThatInACopy) {
    m_descriptor.userData = 7;
    m_descriptor.localPath = "local";
    m_descriptor.tempPath = "temp";
    m_descriptor.downloadPath = "download";
    m_descriptor.validationMode = 1;
    Make({kA});
    m_duringDownload = [&](const Task& task) {
        EXPECT_NE(task.descriptor, &m_descriptor);
        EXPECT_EQ(task.descriptor->baseUrl, kA);
        EXPECT_EQ(task.descriptor->relativePath, "file.bin");
        EXPECT_EQ(task.descriptor->userData, 7U);
        EXPECT_EQ(task.descriptor->localPath, "local");
        EXPECT_EQ(task.descriptor->tempPath, "temp");
        EXPECT_EQ(task.descriptor->downloadPath, "download");
        EXPECT_EQ(task.descriptor->validationMode, 1);
    };
    EXPECT_EQ(Download(), Status::Ok);
    EXPECT_EQ(m_descriptor.baseUrl, "http://origin.example/");
}

TEST_F(ResourceDownloaderMirrorsTest, MakesCopiesThatAManifestKnowsByTheirUserDataOnly) {
    const ManifestResult result = Manifest::FromUrls({"http://h/a", "http://h/b"}, {});
    ASSERT_NE(result.manifest, nullptr);
    Manifest::File& file = result.manifest->Files()[1];
    file.descriptor.baseUrl = "http://h/";
    Make({kA});
    m_duringDownload = [&](const Task& task) {
        EXPECT_EQ(result.manifest->Find(*task.descriptor), nullptr);
        EXPECT_EQ(&result.manifest->Files()[task.descriptor->userData], &file);
    };
    Task task = ATask();
    task.descriptor = &file.descriptor;
    EXPECT_EQ(m_mirrors->Exec(std::move(task)), Status::Ok);
    EXPECT_THAT(TakeAsked(), ElementsAre(kA));
}

TEST_F(ResourceDownloaderMirrorsTest, GoesOnUntilOneWorks) {
    Make({kA, kB, kC});
    Set(kA, Status::Failed);
    Set(kB, Status::NetworkFailure);
    EXPECT_EQ(Download(), Status::Ok);
    EXPECT_THAT(TakeAsked(), ElementsAre(kA, kB, kC));
}

TEST_F(ResourceDownloaderMirrorsTest, BeginsWithTheLastOneThatWorkedAndKeepsTheOrderOfTheOthers) {
    Make({kA, kB, kC});
    Set(kA, Status::Failed);
    Set(kB, Status::Failed);
    EXPECT_EQ(Download(), Status::Ok);
    Set(kA, Status::Ok);
    EXPECT_THAT(AskedByADownload(), ElementsAre(kC));
    Set(kA, Status::Failed);
    Set(kC, Status::Failed);
    EXPECT_THAT(AskedByADownload(), ElementsAre(kC, kA, kB));
}

/// A file that says itself where it is.
class ResourceDownloaderMirrorsAddressTest : public ResourceDownloaderMirrorsTest,
                                             public testing::WithParamInterface<const char*> {
protected:
    ResourceDownloaderMirrorsAddressTest() {
        m_descriptor.baseUrl.clear();
        m_descriptor.relativePath = GetParam();
    }
};

INSTANTIATE_TEST_SUITE_P(Addresses, ResourceDownloaderMirrorsAddressTest,
                         testing::Values("http://other.example/file", "https://other.example/file",
                                         "HTTP://other.example/file",
                                         "hTTps://other.example/file"));

TEST_P(ResourceDownloaderMirrorsAddressTest, IsAskedForOnceAndAsItIs) {
    Make({kA, kB});
    m_duringDownload = [&](const Task& task) {
        EXPECT_EQ(task.descriptor, &m_descriptor);
    };
    for (const Status status : {Status::Ok, Status::NetworkFailure, Status::Failed}) {
        Set("", status);
        EXPECT_EQ(Download(), status);
        EXPECT_THAT(TakeAsked(), ElementsAre(""));
    }
}

TEST_P(ResourceDownloaderMirrorsAddressTest, CountsForNoHost) {
    Make({kA, kB});
    Set("", Status::Failed);
    Fail(5);
    m_descriptor.relativePath = "file.bin";
    EXPECT_THAT(AskedByADownload(), ElementsAre(kA));
    Set(kA, Status::Failed);
    EXPECT_THAT(AskedByADownload(), ElementsAre(kA, kB));
}

TEST_P(ResourceDownloaderMirrorsAddressTest, IsAPathWhenThereIsABaseAddress) {
    m_descriptor.baseUrl = "http://origin.example/";
    Make({kA});
    EXPECT_THAT(AskedByADownload(), ElementsAre(kA));
}

TEST_F(ResourceDownloaderMirrorsTest, SuppliesTheBaseAddressThatAPathLacks) {
    m_descriptor.baseUrl.clear();
    Make({kA, kB});
    Set(kA, Status::Failed);
    for (const char* path : {"file.bin", "http", "http:/file", "httpd://file", "a/http://b"}) {
        m_descriptor.relativePath = path;
        EXPECT_THAT(AskedByADownload(), testing::Contains(kB)) << path;
    }
}

// Hosts that are left out

TEST_F(ResourceDownloaderMirrorsTest, LeavesAHostOutAfterThreeFailuresInARow) {
    Make({kA, kB, kC});
    Set(kA, Status::Failed);
    Set(kB, Status::Failed);
    EXPECT_EQ(Download(), Status::Ok);
    Set(kC, Status::Failed);
    EXPECT_THAT(AskedByADownload(), ElementsAre(kC, kA, kB));
    Set(kC, Status::Ok);
    EXPECT_THAT(AskedByADownload(), ElementsAre(kC));
    Set(kC, Status::Failed);
    EXPECT_THAT(AskedByADownload(), ElementsAre(kC, kA, kB));
    EXPECT_THAT(AskedByADownload(), ElementsAre(kC));
}

TEST_F(ResourceDownloaderMirrorsTest, LeavesAHostOutThatHasFailedThreeTimesInThisTask) {
    Make({kA + std::string("1/"), kA + std::string("2/"), kA + std::string("3/"),
          kA + std::string("4/"), kB});
    for (const char* path : {"1/", "2/", "3/", "4/"})
        Set(std::string(kA) + path, Status::Failed);
    EXPECT_THAT(AskedByADownload(),
                ElementsAre(EndsWith("1/"), EndsWith("2/"), EndsWith("3/"), kB));
}

TEST_F(ResourceDownloaderMirrorsTest, AsksOnWhenAllHostsHaveFailedThreeTimesMeanwhile) {
    Make({kA + std::string("1/"), kA + std::string("2/"), kA + std::string("3/"),
          kA + std::string("4/")});
    for (const char* path : {"1/", "2/", "3/"})
        Set(std::string(kA) + path, Status::Failed);
    EXPECT_EQ(Download(), Status::Ok);
    EXPECT_THAT(TakeAsked(), testing::SizeIs(4));
}

TEST_F(ResourceDownloaderMirrorsTest, CountsAnewAfterASuccess) {
    Make({kA, kB});
    Set(kA, Status::Failed);
    Set(kB, Status::Failed);
    Fail(2);
    Set(kA, Status::Ok);
    EXPECT_EQ(Download(), Status::Ok);
    Set(kA, Status::Failed);
    // The third of the other one.
    Fail(1);
    EXPECT_THAT(AskedByADownload(), ElementsAre(kA));
}

TEST_F(ResourceDownloaderMirrorsTest, AsksAllWhenAllAreLeftOut) {
    Make({kA, kB});
    Set(kA, Status::Failed);
    Set(kB, Status::NetworkFailure);
    Fail(5);
    EXPECT_THAT(AskedByADownload(), ElementsAre(kA, kB));
    Set(kB, Status::Ok);
    EXPECT_THAT(AskedByADownload(), ElementsAre(kA, kB));
    EXPECT_THAT(AskedByADownload(), ElementsAre(kB));
}

TEST_F(ResourceDownloaderMirrorsTest, AsksAHostAgainAfterAWhileAndNotBefore) {
    constexpr std::chrono::milliseconds kTime(50);
    Make({kA, kB}, kTime);
    Set(kA, Status::Failed);
    Set(kB, Status::Failed);
    Fail(2);
    Set(kB, Status::Ok);
    const auto before = std::chrono::steady_clock::now();
    EXPECT_THAT(AskedByADownload(), ElementsAre(kA, kB));
    Set(kB, Status::Failed);
    ASSERT_TRUE(WaitUntil([&] {
        Set(kB, Status::Ok);
        Download();
        Set(kB, Status::Failed);
        return AskedByADownload() == std::vector<std::string>{kB, kA};
    }));
    EXPECT_GE(std::chrono::steady_clock::now() - before, kTime);
}

TEST_F(ResourceDownloaderMirrorsTest, LeavesAHostOutAgainWhenItFailsAfterTheWhile) {
    constexpr std::chrono::milliseconds kTime(200);
    Make({kA, kB}, kTime);
    Set(kA, Status::Failed);
    Set(kB, Status::Failed);
    Fail(3);
    // Once it is asked again, the next task does not ask it, unless the machine was so slow that
    // the time has passed once more.
    EXPECT_TRUE(WaitUntil([&] {
        Set(kB, Status::Ok);
        Download();
        Set(kB, Status::Failed);
        if (AskedByADownload() != std::vector<std::string>{kB, kA})
            return false;
        return AskedByADownload() == std::vector<std::string>{kB};
    }));
}

TEST_F(ResourceDownloaderMirrorsTest, LeavesNoHostOutForNoTime) {
    for (const int milliseconds : {0, -1}) {
        Make({kA, kB}, std::chrono::milliseconds(milliseconds));
        Set(kA, Status::Failed);
        Set(kB, Status::Failed);
        Fail(4);
        Set(kB, Status::Ok);
        EXPECT_THAT(AskedByADownload(), ElementsAre(kA, kB));
        Set(kB, Status::Failed);
        EXPECT_THAT(AskedByADownload(), ElementsAre(kB, kA));
    }
}

TEST_F(ResourceDownloaderMirrorsTest, LeavesAHostOutForTheLongestTimeThereIs) {
    Make({kA, kB}, std::chrono::milliseconds::max());
    Set(kA, Status::Failed);
    Set(kB, Status::Failed);
    Fail(3);
    Set(kB, Status::Ok);
    Download();
    Set(kB, Status::Failed);
    EXPECT_THAT(AskedByADownload(), ElementsAre(kB));
}

/// Of two mirrors, whether the failures of one count for the other.
struct TwoAddresses {
    const char* name;
    const char* first;
    const char* second;
    bool areOneHost;
};

class ResourceDownloaderMirrorsHostTest : public ResourceDownloaderMirrorsTest,
                                          public testing::WithParamInterface<TwoAddresses> {};

INSTANTIATE_TEST_SUITE_P(
    Addresses, ResourceDownloaderMirrorsHostTest,
    testing::Values(
        TwoAddresses{"OtherPath", "http://a.example/x/", "http://a.example/y/", true},
        TwoAddresses{"OtherCase", "http://a.example/x/", "http://A.Example/y/", true},
        TwoAddresses{"UsualPort", "http://a.example/", "http://a.example:80/", true},
        TwoAddresses{"UsualPortOfTls", "https://a.example/", "https://a.example:443/", true},
        TwoAddresses{"OtherPort", "http://a.example:8001/", "http://a.example:8002/", false},
        TwoAddresses{"OtherScheme", "http://a.example/", "https://a.example/", false},
        TwoAddresses{"OtherName", "http://a.example/", "http://b.example/", false},
        TwoAddresses{"NoAddresses", "", "?", false}),
    [](const auto& param) { return std::string(param.param.name); });

TEST_P(ResourceDownloaderMirrorsHostTest, CountsFailuresByNameAndPort) {
    const TwoAddresses& addresses = GetParam();
    Make({addresses.first, addresses.second, kC});
    Set(addresses.first, Status::Failed);
    Set(addresses.second, Status::Failed);
    EXPECT_EQ(Download(), Status::Ok);
    Set(kC, Status::Failed);
    Fail(1);
    TakeAsked();
    Fail(1);
    // By now two tasks have asked both: two failures each, or three of one host.
    EXPECT_EQ(TakeAsked().size(), addresses.areOneHost ? 1U : 3U);
}

TEST_F(ResourceDownloaderMirrorsTest, SaysOnceThatAHostIsLeftOut) {
    Make({kA}, std::chrono::seconds(60));
    Set(kA, Status::Failed);
    const LogCapture log;
    Fail(2);
    EXPECT_THAT(log.Lines(), IsEmpty());
    Fail(3);
    ASSERT_EQ(log.Lines().size(), 1U);
    EXPECT_EQ(log.Lines()[0].severity, google::GLOG_WARNING);
    EXPECT_EQ(log.Lines()[0].text,
              "host=a.example:80 has failed 3 times in a row and is left out for 60000 ms after "
              "each failure, until it works again.");
}

// How a task ends

TEST_F(ResourceDownloaderMirrorsTest, IsWorthARetryLaterWhenOneOfTheFailuresWas) {
    const auto outcome = [&](Status first, Status second) {
        Make({kA, kB});
        Set(kA, first);
        Set(kB, second);
        return Download();
    };
    EXPECT_EQ(outcome(Status::Failed, Status::Failed), Status::Failed);
    EXPECT_EQ(outcome(Status::Failed, Status::NetworkFailure), Status::NetworkFailure);
    EXPECT_EQ(outcome(Status::NetworkFailure, Status::Failed), Status::NetworkFailure);
    EXPECT_EQ(outcome(Status::NetworkFailure, Status::NetworkFailure), Status::NetworkFailure);
}

TEST_F(ResourceDownloaderMirrorsTest, EndsWithTheFirstAttemptThatIsCancelled) {
    Make({kA, kB, kC});
    Set(kA, Status::Failed);
    Set(kB, Status::Cancelled);
    EXPECT_EQ(Download(), Status::Cancelled);
    EXPECT_THAT(TakeAsked(), ElementsAre(kA, kB));
}

TEST_F(ResourceDownloaderMirrorsTest, CountsNoCancellationAgainstAHost) {
    Make({kA, kB});
    Set(kA, Status::Cancelled);
    Fail(4);
    EXPECT_THAT(AskedByADownload(), ElementsAre(kA));
}

TEST_F(ResourceDownloaderMirrorsTest, AsksWhetherToCancelBetweenTwoMirrors) {
    Make({kA, kB});
    Set(kA, Status::Failed);
    bool isCancelled = false;
    m_duringDownload = [&](const Task&) {
        isCancelled = true;
    };
    Task task = ATask();
    task.cancellationQuery = [&] {
        return isCancelled;
    };
    EXPECT_EQ(m_mirrors->Exec(std::move(task)), Status::Cancelled);
    EXPECT_THAT(TakeAsked(), ElementsAre(kA));
}

TEST_F(ResourceDownloaderMirrorsTest, PassesTheQuestionWhetherToCancelOn) {
    Make({kA});
    bool isCancelled = false;
    m_duringDownload = [&](const Task& task) {
        EXPECT_FALSE(task.cancellationQuery());
        isCancelled = true;
        EXPECT_TRUE(task.cancellationQuery());
    };
    Task task = ATask();
    task.cancellationQuery = [&] {
        return isCancelled;
    };
    EXPECT_EQ(m_mirrors->Exec(std::move(task)), Status::Ok);
}

TEST_F(ResourceDownloaderMirrorsTest, PassesAbortOnAndTriesNoFurtherMirror) {
    Make({kA, kB});
    Set(kA, Status::Failed);
    m_duringDownload = [&](const Task&) {
        m_mirrors->Abort();
    };
    EXPECT_EQ(Download(), Status::Cancelled);
    EXPECT_EQ(m_inner->AbortCount(), 1U);
    EXPECT_THAT(TakeAsked(), ElementsAre(kA));
    EXPECT_EQ(Download(), Status::Cancelled);
    EXPECT_THAT(TakeAsked(), IsEmpty());
}

TEST_F(ResourceDownloaderMirrorsTest, TriesNoFurtherMirrorWhileOffline) {
    Make({kA, kB});
    Set(kA, Status::NetworkFailure);
    m_network->isOffline = true;
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(Download(), Status::NetworkFailure);
        EXPECT_THAT(TakeAsked(), ElementsAre(kA));
    }
    m_network->isOffline = false;
    // Nothing has counted.
    EXPECT_EQ(Download(), Status::Ok);
    EXPECT_THAT(TakeAsked(), ElementsAre(kA, kB));
}

TEST_F(ResourceDownloaderMirrorsTest, IsOnlineWithoutAChecker) {
    const ResourceDownloaderMirrors mirrors(m_inner, {kA, kB});
    Set(kA, Status::NetworkFailure);
    EXPECT_EQ(mirrors.Exec(ATask()), Status::Ok);
}

TEST_F(ResourceDownloaderMirrorsTest, FailsWithoutADownloader) {
    ResourceDownloaderMirrors mirrors(nullptr, {kA});
    const LogCapture log;
    EXPECT_EQ(mirrors.Exec(ATask()), Status::Failed);
    EXPECT_THAT(log.Errors(), ElementsAre("there is no downloader for request=file.bin"));
    mirrors.Abort();
}

TEST_F(ResourceDownloaderMirrorsTest, PassesTasksOnAsTheyAreWithoutMirrors) {
    Make({});
    Set("http://origin.example/", Status::NetworkFailure);
    EXPECT_EQ(Download(), Status::NetworkFailure);
    EXPECT_THAT(TakeAsked(), ElementsAre("http://origin.example/"));
}

// Callbacks

using Reports = std::vector<std::pair<std::size_t, std::size_t>>;

/// What a task reports when its downloads report these.
class ResourceDownloaderMirrorsProgressTest : public ResourceDownloaderMirrorsTest {
protected:
    Reports ReportedBy(const std::map<std::string, Reports>& reports) {
        Make({kA, kB});
        Set(kA, Status::Failed);
        m_duringDownload = [&](const Task& task) {
            for (const auto& [done, total] : reports.at(task.descriptor->baseUrl))
                task.progressCallback(done, total);
        };
        Reports reported;
        Task task = ATask();
        task.progressCallback = [&](std::size_t done, std::size_t total) {
            reported.emplace_back(done, total);
        };
        EXPECT_EQ(m_mirrors->Exec(std::move(task)), Status::Ok);
        return reported;
    }
};

TEST_F(ResourceDownloaderMirrorsProgressTest, StandsStillUntilTheNextMirrorHasCaughtUp) {
    EXPECT_EQ(ReportedBy({{kA, {{0, 100}, {40, 100}, {60, 100}}},
                          {kB, {{0, 100}, {50, 100}, {60, 100}, {100, 100}}}}),
              (Reports{{0, 100}, {40, 100}, {60, 100}, {60, 100}, {100, 100}}));
}

TEST_F(ResourceDownloaderMirrorsProgressTest, ComparesFractionsWhenTheMirrorsDifferInSize) {
    EXPECT_EQ(ReportedBy({{kA, {{60, 100}}}, {kB, {{70, 200}, {120, 200}, {200, 200}}}}),
              (Reports{{60, 100}, {120, 200}, {200, 200}}));
}

TEST_F(ResourceDownloaderMirrorsProgressTest, PassesOnWhatIsNotANumberAndMeasuresNothingByIt) {
    EXPECT_EQ(ReportedBy({{kA, {{0, 0}}}, {kB, {{1, 2}, {0, 0}, {0, 2}, {2, 2}}}}),
              (Reports{{0, 0}, {1, 2}, {0, 0}, {2, 2}}));
}

TEST_F(ResourceDownloaderMirrorsTest, HasDestroyedTheCallbacksWhenItReturns) {
    for (const bool works : {true, false}) {
        Make({kA, kB});
        Set(kA, Status::Failed);
        Set(kB, works ? Status::Ok : Status::Failed);
        const auto token = std::make_shared<int>();
        Task task = ATask();
        task.progressCallback = [token](std::size_t, std::size_t) {
        };
        task.cancellationQuery = [token] {
            return false;
        };
        // A temporary argument may live to the end of the whole expression.
        EXPECT_EQ((static_cast<void>(m_mirrors->Exec(std::move(task))), token.use_count()), 1);
    }
}

TEST_F(ResourceDownloaderMirrorsTest, LetsOutWhatACallbackThrows) {
    Make({kA, kB});
    m_duringDownload = [](const Task& task) {
        task.progressCallback(1, 2);
    };
    Task task = ATask();
    task.progressCallback = [](std::size_t, std::size_t) {
        throw std::runtime_error("enough");
    };
    EXPECT_THROW(m_mirrors->Exec(std::move(task)), std::runtime_error);
    EXPECT_THAT(TakeAsked(), ElementsAre(kA));
}

TEST_F(ResourceDownloaderMirrorsTest, ServesManyThreads) {
    Make({kA, kB, kC}, std::chrono::milliseconds(1));
    std::atomic<int> succeeded{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&, i] {
            for (int round = 0; round < 200; ++round) {
                Set(i % 2 == 0 ? kA : kB, round % 3 == 0 ? Status::Ok : Status::Failed);
                // The last one always works, unless it is none of those that are asked.
                succeeded += Download() == Status::Ok;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    // It has never failed, so it is never left out.
    EXPECT_EQ(succeeded, 8 * 200);
}

// With real servers

class ResourceDownloaderMirrorsHttpTest : public testing::Test {
protected:
    Testing::Application::Dependencies OverTheMirrors() {
        Testing::Application::Dependencies dependencies;
        dependencies.resourceDownloader = std::make_shared<ResourceDownloaderMirrors>(
            std::make_shared<App::ResourceDownloaderHttp>(
                Networking::createHttpClient(Networking::HttpClientType::Native), nullptr, nullptr),
            std::vector<std::string>{m_first.Url(""), m_second.Url("")});
        return dependencies;
    }

    ScriptedHttpServer m_first;
    ScriptedHttpServer m_second;
    Testing::Application m_application{{}, OverTheMirrors()};
    const ResourceDescriptor& m_file = m_application.AddFile("http://127.0.0.1:9/", "file.bin");
    App::IRemoteResource* const m_resource = m_application.Schedule({&m_file});
};

TEST_F(ResourceDownloaderMirrorsHttpTest, TakesFromTheSecondServerWhatTheFirstOneLacks) {
    m_second.On("/file.bin", Reply::Ok("body"));
    m_application.Run();
    EXPECT_EQ(Outcome(m_resource->GetState()), "Available NoError");
    EXPECT_EQ(ReadFile(m_file.localPath), "body");
    EXPECT_EQ(m_first.RequestCount("/file.bin"), 1U);
}

TEST_F(ResourceDownloaderMirrorsHttpTest, TakesTheWholeFileFromTheSecondServerAfterHalfOfIt) {
    constexpr std::size_t kSize = 300'000;
    m_first.On("/file.bin", Reply::Generated(kSize, 1).CutAfter(kSize / 2));
    m_second.On("/file.bin", Reply::Generated(kSize, 2));
    m_application.Run();
    EXPECT_EQ(Outcome(m_resource->GetState()), "Available NoError");
    EXPECT_TRUE(ReadFile(m_file.localPath) == GeneratedBytes(0, kSize, 2));
}

TEST_F(ResourceDownloaderMirrorsHttpTest, TakesAFileWithAUrlOfItsOwnFromThere) {
    ScriptedHttpServer other;
    other.On("/other", Reply::Ok("other"));
    m_first.On("/plain", Reply::Ok("plain"));
    const Testing::TemporaryFolder folder;
    const ManifestResult result = Manifest::Parse(
        R"({"baseUrl": "http://127.0.0.1:9/", "bundles": [{"name": "b", "files": [
            {"path": "plain"}, {"path": "own", "url": ")" +
            other.Url("/other") + R"("}]}]})",
        "m.json", {folder.Path()});
    ASSERT_NE(result.manifest, nullptr);
    Testing::Application application({}, OverTheMirrors());
    App::IRemoteResource* const resource =
        application.manager.GetMainScheduler()->RegisterAutoSchedule(
            &result.manifest->Bundles()[0].descriptors,
            App::ISchedulableResource::SchedulePriority::Normal);
    application.Run();
    EXPECT_EQ(Outcome(resource->GetState()), "Available NoError");
    EXPECT_EQ(ReadFile(folder / "plain"), "plain");
    EXPECT_EQ(ReadFile(folder / "own"), "other");
    EXPECT_EQ(m_first.Requests().size(), 1U);
    EXPECT_THAT(m_second.Requests(), IsEmpty());
}

TEST_F(ResourceDownloaderMirrorsHttpTest, EndsInAnErrorWhenNoServerHasIt) {
    m_application.Run();
    EXPECT_EQ(Outcome(m_resource->GetState()), "Error GeneralError");
    // Each is asked by the first attempt and by the retry.
    EXPECT_EQ(m_first.RequestCount("/file.bin"), 2U);
    EXPECT_EQ(m_second.RequestCount("/file.bin"), 2U);
    EXPECT_EQ(m_application.folder.List(), "");
}

TEST_F(ResourceDownloaderMirrorsHttpTest, IsAbortedWhileAServerIsSilent) {
    m_first.On("/file.bin", Reply::Silence());
    m_second.On("/file.bin", Reply::Ok("body"));
    m_application.manager.StartEventLoopThread();
    ASSERT_TRUE(m_first.WaitForRequests("/file.bin"));
    EXPECT_LT(m_application.TimedAbort(), Testing::kPrompt);
    EXPECT_EQ(Outcome(m_resource->GetState()), "Error Cancelled");
    EXPECT_EQ(m_second.RequestCount("/file.bin"), 0U);
}

} // namespace
} // namespace Halvex::Kit
