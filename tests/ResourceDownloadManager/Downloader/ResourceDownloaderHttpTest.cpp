#include "ResourceDownloadManager/Downloader/ResourceDownloaderHttp.h"

#include "ResourceDownloadManager/INetworkStateChecker.h"
#include "ResourceDownloadManager/IProxyProvider.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "support/FakeHttpClient.h"
#include "support/FileSizeLimit.h"
#include "support/LogCapture.h"
#include "support/TemporaryFolder.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <future>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Halvex::App {

namespace {

using Networking::Options;
using Networking::Request;
using Networking::Response;
using Status = IResourceDownloader::Status;
using NetworkState = INetworkStateChecker::State;
using Proxy = IProxyProvider::Proxy;
using testing::ElementsAre;
using Testing::Event;
using Testing::FakeHttpClient;
using Testing::FileSizeLimit;
using testing::IsEmpty;
using Testing::LogCapture;
using Testing::ReadFile;
using testing::StartsWith;
using Testing::TemporaryFolder;
using Testing::WaitUntil;

constexpr char kUrl[] = "http://server/data/file.bin";
constexpr char kStarted[] = "HTTP download=http://server/data/file.bin";
constexpr char kWasCancelled[] = "request=http://server/data/file.bin was cancelled.";
constexpr char kFailedWith[] = "request=http://server/data/file.bin failed with error=";
constexpr char kOfflineNote[] = " (App OFFLINE mode activated!)";

class FakeProxyProvider : public IProxyProvider {
public:
    Proxy GetSystemProxy(const std::string& url) const override { return answer(url); }

    std::function<Proxy(const std::string&)> answer = [](const std::string&) {
        return Proxy{};
    };
};

class FakeNetworkStateChecker : public INetworkStateChecker {
public:
    NetworkState GetState() const override { return answer(); }

    std::atomic<NetworkState> state{NetworkState::Online};
    std::function<NetworkState()> answer = [this] {
        return state.load();
    };
};

bool IsOpenInThisProcess(const ioPath& path) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        if (std::filesystem::read_symlink(entry.path(), error) == path.string())
            return true;
    }
    return false;
}

class ResourceDownloaderHttpTest : public testing::Test {
protected:
    using Steps = std::vector<std::string>;

    ResourceDownloaderHttpTest() : descriptor(Descriptor("file")) {}

    /// A resource with the paths name.part and name.bin in the folder.
    ResourceDescriptor Descriptor(const std::string& name) const {
        ResourceDescriptor result;
        result.tempPath = folder / (name + ".part");
        result.downloadPath = folder / (name + ".bin");
        result.baseUrl = "http://server/data";
        result.relativePath = name + ".bin";
        return result;
    }

    Status Download() { return Download(descriptor, query); }

    Status Download(const ResourceDescriptor& which, std::function<bool()> cancellationQuery) {
        IResourceDownloader::Task task;
        task.descriptor = &which;
        task.progressCallback = progress;
        task.cancellationQuery = std::move(cancellationQuery);
        return downloader.Exec(std::move(task));
    }

    /// The options that the client was given by one download.
    Options OptionsOfADownload() {
        EXPECT_EQ(Download(), Status::Ok);
        return client->Calls().at(0).options;
    }

    /// A script that ends like the Qt client: as soon as the query says so with code 15.
    static FakeHttpClient::Script DeliverUntilCancelled(std::string body) {
        return [=](const Request&, const Options& options) {
            options.dataCallback(body);
            options.progressCallback(body.size(), 2 * body.size());
            EXPECT_TRUE(options.cancellationQuery());
            return FakeHttpClient::Response(15);
        };
    }

    TemporaryFolder folder;
    std::shared_ptr<FakeHttpClient> client = std::make_shared<FakeHttpClient>();
    std::shared_ptr<FakeProxyProvider> proxies = std::make_shared<FakeProxyProvider>();
    std::shared_ptr<FakeNetworkStateChecker> network = std::make_shared<FakeNetworkStateChecker>();
    ResourceDownloaderHttp downloader{client, proxies, network};
    ResourceDescriptor descriptor;
    std::function<bool()> query = [] {
        return false;
    };
    std::function<void(std::size_t, std::size_t)> progress = [](std::size_t, std::size_t) {
    };
};

// The URL.

struct Joining {
    const char* baseUrl;
    const char* relativePath;
    const char* url;
};

void PrintTo(const Joining& joining, std::ostream* stream) {
    *stream << '"' << joining.baseUrl << "\" and \"" << joining.relativePath << '"';
}

class ResourceDownloaderHttpUrl : public ResourceDownloaderHttpTest,
                                  public testing::WithParamInterface<Joining> {
protected:
    ResourceDownloaderHttpUrl() {
        descriptor.baseUrl = GetParam().baseUrl;
        descriptor.relativePath = GetParam().relativePath;
    }
};

TEST_P(ResourceDownloaderHttpUrl, IsWhatTheClientIsAskedFor) {
    Download();
    EXPECT_EQ(client->Calls().at(0).request.url.toString(), GetParam().url);
}

TEST_P(ResourceDownloaderHttpUrl, IsWhatTheProxyIsAskedFor) {
    std::vector<std::string> asked;
    proxies->answer = [&](const std::string& url) {
        asked.push_back(url);
        return Proxy{};
    };
    Download();
    EXPECT_THAT(asked, ElementsAre(GetParam().url));
}

TEST_P(ResourceDownloaderHttpUrl, IsWhatIsLogged) {
    const LogCapture log;
    Download();
    EXPECT_THAT(log.Infos(), ElementsAre(std::string("HTTP download=") + GetParam().url));
}

INSTANTIATE_TEST_SUITE_P(
    Joinings, ResourceDownloaderHttpUrl,
    testing::Values(Joining{"http://server/data", "a/b.bin", "http://server/data/a/b.bin"},
                    Joining{"http://server/data/", "a/b.bin", "http://server/data/a/b.bin"},
                    Joining{"http://server/data", "/a/b.bin", "http://server/data/a/b.bin"},
                    Joining{"http://server/data/", "/a/b.bin", "http://server/data/a/b.bin"},
                    Joining{"http://server/data//", "//b.bin", "http://server/data///b.bin"},
                    Joining{"http://server", "", "http://server/"},
                    Joining{"http://server/", "/", "http://server/"},
                    Joining{"http://server/a b", "\xC3\xA4?x#y", "http://server/a b/\xC3\xA4?x#y"},
                    Joining{"", "/b.bin", "b.bin"}, Joining{"", "b.bin", "b.bin"},
                    Joining{"", "", ""}));

// The request and its options.

TEST_F(ResourceDownloaderHttpTest, SendsNoHeadersAndNoCookies) {
    Download();
    EXPECT_THAT(client->Calls().at(0).request.headers, IsEmpty());
    EXPECT_THAT(client->Calls().at(0).request.cookies, IsEmpty());
}

TEST_F(ResourceDownloaderHttpTest, AsksTheClientOnce) {
    Download();
    EXPECT_EQ(client->Calls().size(), 1U);
}

TEST_F(ResourceDownloaderHttpTest, PassesALowSpeedLimitOf1024) {
    EXPECT_EQ(OptionsOfADownload().lowSpeedLimit, 1024);
}

TEST_F(ResourceDownloaderHttpTest, PassesAConnectTimeoutOf5WithoutProxy) {
    EXPECT_EQ(OptionsOfADownload().connectTimeout, 5);
}

TEST_F(ResourceDownloaderHttpTest, PassesATimeoutOfOneHour) {
    EXPECT_EQ(OptionsOfADownload().timeout, 3'600'000'000);
}

TEST_F(ResourceDownloaderHttpTest, PassesThreeResumeAttempts) {
    EXPECT_EQ(OptionsOfADownload().resume, std::make_pair(true, std::int32_t{3}));
}

TEST_F(ResourceDownloaderHttpTest, PassesALowSpeedTimeOf20000) {
    EXPECT_EQ(OptionsOfADownload().lowSpeedTime, 20'000);
}

TEST_F(ResourceDownloaderHttpTest, PassesNoProxyWhenThereIsNone) {
    EXPECT_EQ(OptionsOfADownload().proxy, "");
}

TEST_F(ResourceDownloaderHttpTest, ReportsTheClientsProgressToTheTask) {
    std::vector<std::pair<std::size_t, std::size_t>> reports;
    progress = [&](std::size_t done, std::size_t total) {
        reports.push_back({done, total});
    };
    constexpr std::size_t kUnknown = std::numeric_limits<std::size_t>::max();
    client->Play([](const Request&, const Options& options) {
        options.progressCallback(1, 7);
        options.progressCallback(0, 0);
        options.progressCallback(5, kUnknown);
        return FakeHttpClient::Response(0);
    });
    Download();
    EXPECT_THAT(reports, ElementsAre(std::make_pair(1, 7), std::make_pair(0, 0),
                                     std::make_pair(5, kUnknown)));
}

TEST_F(ResourceDownloaderHttpTest, ReportsNoProgressOfItsOwn) {
    progress = [](std::size_t, std::size_t) {
        ADD_FAILURE();
    };
    EXPECT_EQ(Download(), Status::Ok);
}

TEST_F(ResourceDownloaderHttpTest, WritesEveryPieceOfTheBodyInOrder) {
    const std::string binary = std::string("\0\r\n\xFF", 4) + Testing::SomeBytes(300'000);
    client->Play([&](const Request&, const Options& options) {
        options.dataCallback("first,");
        options.dataCallback("");
        options.dataCallback(binary);
        options.dataCallback("last");
        return FakeHttpClient::Response(0);
    });
    EXPECT_EQ(Download(), Status::Ok);
    EXPECT_TRUE(ReadFile(descriptor.downloadPath) == "first," + binary + "last");
}

TEST_F(ResourceDownloaderHttpTest, WritesAPieceAtOnce) {
    client->Play([&](const Request&, const Options& options) {
        options.dataCallback("first");
        EXPECT_EQ(ReadFile(descriptor.tempPath), "first");
        options.dataCallback("second");
        EXPECT_EQ(ReadFile(descriptor.tempPath), "firstsecond");
        return FakeHttpClient::Response(0);
    });
    EXPECT_EQ(Download(), Status::Ok);
}

TEST_F(ResourceDownloaderHttpTest, ABodyInTheResponseIsNotTheFile) {
    client->Play([](const Request&, const Options&) {
        Response response = FakeHttpClient::Response(0);
        response.body = "not streamed";
        return response;
    });
    EXPECT_EQ(Download(), Status::Ok);
    EXPECT_EQ(ReadFile(descriptor.downloadPath), "");
}

// Proxies.

struct ProxyCase {
    Proxy proxy;
    const char* option;
    std::int32_t connectTimeout;
};

void PrintTo(const ProxyCase& proxyCase, std::ostream* stream) {
    *stream << static_cast<std::int32_t>(proxyCase.proxy.type) << ' ' << proxyCase.proxy.host << ' '
            << proxyCase.proxy.port;
}

class ResourceDownloaderHttpProxy : public ResourceDownloaderHttpTest,
                                    public testing::WithParamInterface<ProxyCase> {
protected:
    ResourceDownloaderHttpProxy() {
        proxies->answer = [](const std::string&) {
            return GetParam().proxy;
        };
    }
};

TEST_P(ResourceDownloaderHttpProxy, IsPassedAsText) {
    EXPECT_EQ(OptionsOfADownload().proxy, GetParam().option);
}

TEST_P(ResourceDownloaderHttpProxy, DecidesTheConnectTimeout) {
    EXPECT_EQ(OptionsOfADownload().connectTimeout, GetParam().connectTimeout);
}

INSTANTIATE_TEST_SUITE_P(
    Proxies, ResourceDownloaderHttpProxy,
    testing::Values(ProxyCase{{Proxy::Type::None, "p", 8080}, "", 5},
                    ProxyCase{{Proxy::Type::Http, "p", 8080}, "http://p:8080", 20},
                    ProxyCase{{Proxy::Type::Https, "p", 443}, "https://p:443", 20},
                    ProxyCase{{Proxy::Type::Socks4, "10.0.0.1", 1}, "socks4://10.0.0.1:1", 20},
                    ProxyCase{{Proxy::Type::Socks5, "p.test", 65535}, "socks5://p.test:65535", 20},
                    ProxyCase{{Proxy::Type::Http, "p", -1}, "http://p:-1", 20},
                    ProxyCase{{Proxy::Type::Http, "", 0}, "http://:0", 20},
                    ProxyCase{{static_cast<Proxy::Type>(5), "p", 8080}, "", 5},
                    ProxyCase{{static_cast<Proxy::Type>(-1), "p", 8080}, "", 5}));

// Cancellation.

TEST_F(ResourceDownloaderHttpTest, AsksTheQueryAndThenTheNetworkWhetherToCancel) {
    Steps steps;
    query = [&] {
        steps.push_back("query");
        return false;
    };
    network->answer = [&] {
        steps.push_back("network");
        return NetworkState::Online;
    };
    client->Play([&](const Request&, const Options& options) {
        steps.push_back("get");
        EXPECT_FALSE(options.cancellationQuery());
        steps.push_back("end of get");
        return FakeHttpClient::Response(0);
    });
    Download();
    EXPECT_THAT(steps, ElementsAre("get", "query", "network", "end of get", "network"));
}

TEST_F(ResourceDownloaderHttpTest, DoesNotAskTheNetworkOnceTheQueryCancels) {
    int asked = 0;
    query = [] {
        return true;
    };
    network->answer = [&] {
        ++asked;
        return NetworkState::Online;
    };
    client->Play([&](const Request&, const Options& options) {
        EXPECT_TRUE(options.cancellationQuery());
        EXPECT_EQ(asked, 0);
        return FakeHttpClient::Response(15);
    });
    EXPECT_EQ(Download(), Status::Cancelled);
    EXPECT_EQ(asked, 1);
}

TEST_F(ResourceDownloaderHttpTest, AsksNobodyOnceItIsAborted) {
    int asked = 0;
    query = [&] {
        ++asked;
        return false;
    };
    network->answer = [&] {
        ++asked;
        return NetworkState::Online;
    };
    client->Play([&](const Request&, const Options& options) {
        downloader.Abort();
        EXPECT_TRUE(options.cancellationQuery());
        EXPECT_EQ(asked, 0);
        return FakeHttpClient::Response(15);
    });
    EXPECT_EQ(Download(), Status::Cancelled);
}

TEST_F(ResourceDownloaderHttpTest, AsksAnewEachTime) {
    client->Play([&](const Request&, const Options& options) {
        EXPECT_FALSE(options.cancellationQuery());
        network->state = NetworkState::Offline;
        EXPECT_TRUE(options.cancellationQuery());
        network->state = NetworkState::Online;
        EXPECT_FALSE(options.cancellationQuery());
        return FakeHttpClient::Response(0);
    });
    EXPECT_EQ(Download(), Status::Ok);
}

TEST_F(ResourceDownloaderHttpTest, TakesOnlyTheOfflineStateForOffline) {
    network->state = static_cast<NetworkState>(2);
    client->Play([&](const Request&, const Options& options) {
        EXPECT_FALSE(options.cancellationQuery());
        return FakeHttpClient::Response(0);
    });
    EXPECT_EQ(Download(), Status::Ok);
}

TEST_F(ResourceDownloaderHttpTest, IsCancelledByTheTaskInMidTransfer) {
    bool cancel = false;
    query = [&] {
        return cancel;
    };
    progress = [&](std::size_t, std::size_t) {
        cancel = true;
    };
    client->Play(DeliverUntilCancelled("half"));
    const LogCapture log;
    EXPECT_EQ(Download(), Status::Cancelled);
    EXPECT_THAT(log.Infos(), ElementsAre(kStarted, kWasCancelled));
    EXPECT_THAT(log.Errors(), IsEmpty());
    EXPECT_EQ(folder.List(), "");
}

TEST_F(ResourceDownloaderHttpTest, IsCancelledByAbortInMidTransfer) {
    progress = [&](std::size_t, std::size_t) {
        downloader.Abort();
    };
    client->Play(DeliverUntilCancelled("half"));
    EXPECT_EQ(Download(), Status::Cancelled);
    EXPECT_EQ(folder.List(), "");
}

TEST_F(ResourceDownloaderHttpTest, IsStoppedByGoingOfflineInMidTransfer) {
    progress = [&](std::size_t, std::size_t) {
        network->state = NetworkState::Offline;
    };
    client->Play(DeliverUntilCancelled("half"));
    const LogCapture log;
    EXPECT_EQ(Download(), Status::NetworkFailure);
    EXPECT_THAT(log.Infos(), ElementsAre(kStarted));
    EXPECT_THAT(log.Errors(), ElementsAre(std::string(kFailedWith) + kOfflineNote));
    EXPECT_EQ(folder.List(), "");
}

TEST_F(ResourceDownloaderHttpTest, StaysAborted) {
    downloader.Abort();
    client->Play(DeliverUntilCancelled("half"));
    EXPECT_EQ(Download(), Status::Cancelled);
    EXPECT_EQ(Download(), Status::Cancelled);
}

TEST_F(ResourceDownloaderHttpTest, AWholeBodyIsMovedEvenWhenAborted) {
    downloader.Abort();
    client->Play(FakeHttpClient::Deliver("whole"));
    EXPECT_EQ(Download(), Status::Ok);
    EXPECT_EQ(ReadFile(descriptor.downloadPath), "whole");
}

// How a request ends.

struct Ending {
    std::int32_t code;
    NetworkState state;
    Status status;
    /// The one line besides that of the start; empty: none.
    std::string info;
    std::string error;
};

void PrintTo(const Ending& ending, std::ostream* stream) {
    *stream << "code " << ending.code
            << (ending.state == NetworkState::Offline ? " offline" : " online");
}

class ResourceDownloaderHttpEnding : public ResourceDownloaderHttpTest,
                                     public testing::WithParamInterface<Ending> {
protected:
    ResourceDownloaderHttpEnding() {
        network->state = GetParam().state;
        client->Play(FakeHttpClient::Deliver("body", GetParam().code, "the reason"));
    }

    static std::vector<std::string> NonEmpty(std::vector<std::string> lines) {
        lines.erase(std::remove(lines.begin(), lines.end(), ""), lines.end());
        return lines;
    }
};

TEST_P(ResourceDownloaderHttpEnding, DecidesTheStatus) {
    EXPECT_EQ(Download(), GetParam().status);
}

TEST_P(ResourceDownloaderHttpEnding, IsLogged) {
    const LogCapture log;
    Download();
    EXPECT_EQ(log.Infos(), NonEmpty({kStarted, GetParam().info}));
    EXPECT_EQ(log.Errors(), NonEmpty({GetParam().error}));
    EXPECT_EQ(log.Lines().size(), log.Infos().size() + log.Errors().size());
}

TEST_P(ResourceDownloaderHttpEnding, LeavesAFileOnlyWhenTheBodyIsWhole) {
    folder.Write("file.bin", "an old one");
    Download();
    EXPECT_EQ(folder.List(), GetParam().code == 0 ? "file.bin" : "");
}

TEST_P(ResourceDownloaderHttpEnding, LogsFromItsOwnSourceFile) {
    const LogCapture log;
    Download();
    for (const LogCapture::Line& line : log.Lines())
        EXPECT_EQ(line.file, "ResourceDownloaderHttp.cpp");
}

const std::string kReason = std::string(kFailedWith) + "the reason";
constexpr auto kOnline = NetworkState::Online;
constexpr auto kOffline = NetworkState::Offline;

INSTANTIATE_TEST_SUITE_P(
    Endings, ResourceDownloaderHttpEnding,
    testing::Values(Ending{0, kOnline, Status::Ok, "", ""},
                    Ending{0, kOffline, Status::NetworkFailure, "", ""},
                    Ending{15, kOnline, Status::Cancelled, kWasCancelled, ""},
                    Ending{15, kOffline, Status::NetworkFailure, "", kReason + kOfflineNote},
                    Ending{3, kOnline, Status::NetworkFailure, "", kReason},
                    Ending{3, kOffline, Status::NetworkFailure, "", kReason + kOfflineNote},
                    Ending{8, kOnline, Status::NetworkFailure, "", kReason},
                    Ending{8, kOffline, Status::NetworkFailure, "", kReason + kOfflineNote},
                    Ending{4, kOnline, Status::Failed, "", kReason},
                    Ending{4, kOffline, Status::NetworkFailure, "", kReason + kOfflineNote},
                    Ending{1001, kOnline, Status::Failed, "", kReason},
                    Ending{1001, kOffline, Status::NetworkFailure, "", kReason + kOfflineNote},
                    Ending{1, kOnline, Status::Failed, "", kReason},
                    Ending{2, kOnline, Status::Failed, "", kReason},
                    Ending{-1, kOnline, Status::Failed, "", kReason}));

TEST_F(ResourceDownloaderHttpTest, AWholeBodyIsMovedAndStillANetworkFailureWhenOffline) {
    network->state = NetworkState::Offline;
    client->Play(FakeHttpClient::Deliver("whole"));
    EXPECT_EQ(Download(), Status::NetworkFailure);
    EXPECT_EQ(ReadFile(descriptor.downloadPath), "whole");
    EXPECT_EQ(folder.List(), "file.bin");
}

TEST_F(ResourceDownloaderHttpTest, AnEmptyBodyGivesAnEmptyFile) {
    client->Play([](const Request&, const Options&) { return FakeHttpClient::Response(0); });
    EXPECT_EQ(Download(), Status::Ok);
    EXPECT_EQ(ReadFile(descriptor.downloadPath), "");
}

TEST_F(ResourceDownloaderHttpTest, ReplacesAnOldFile) {
    folder.Write("file.bin", "an old and longer one");
    client->Play(FakeHttpClient::Deliver("new"));
    EXPECT_EQ(Download(), Status::Ok);
    EXPECT_EQ(ReadFile(descriptor.downloadPath), "new");
}

// The order of the steps.

TEST_F(ResourceDownloaderHttpTest, DeletesOldFilesBeforeAskingForTheProxy) {
    folder.Write("file.part", "an old part");
    folder.Write("file.bin", "an old file");
    std::string seen;
    proxies->answer = [&](const std::string&) {
        seen = folder.List() + ':' + ReadFile(descriptor.tempPath);
        return Proxy{};
    };
    Download();
    EXPECT_EQ(seen, "file.part:");
}

TEST_F(ResourceDownloaderHttpTest, AsksForTheProxyBeforeTheClientIsCalled) {
    Steps steps;
    proxies->answer = [&](const std::string&) {
        steps.push_back("proxy");
        return Proxy{};
    };
    client->Play([&](const Request&, const Options&) {
        steps.push_back("get");
        return FakeHttpClient::Response(0);
    });
    Download();
    EXPECT_THAT(steps, ElementsAre("proxy", "get"));
}

TEST_F(ResourceDownloaderHttpTest, LogsTheStartBeforeAnythingElseHappens) {
    descriptor.tempPath = folder / "missing/file.part";
    const LogCapture log;
    EXPECT_EQ(Download(), Status::Failed);
    ASSERT_EQ(log.Lines().size(), 2U);
    EXPECT_EQ(log.Lines()[0].text, kStarted);
    EXPECT_THAT(log.Lines()[1].text, StartsWith("failed to create file"));
}

TEST_F(ResourceDownloaderHttpTest, ClosesTheFileBeforeTheStateIsAskedAfterTheTransfer) {
    client->Play([&](const Request&, const Options&) {
        EXPECT_TRUE(IsOpenInThisProcess(descriptor.tempPath));
        return FakeHttpClient::Response(0);
    });
    int asked = 0;
    network->answer = [&] {
        ++asked;
        EXPECT_FALSE(IsOpenInThisProcess(descriptor.tempPath));
        return NetworkState::Online;
    };
    EXPECT_EQ(Download(), Status::Ok);
    EXPECT_EQ(asked, 1);
}

TEST_F(ResourceDownloaderHttpTest, AsksTheStateBeforeTheFileIsMoved) {
    Steps steps;
    network->answer = [&] {
        steps.push_back(folder.List());
        return NetworkState::Online;
    };
    EXPECT_EQ(Download(), Status::Ok);
    EXPECT_THAT(steps, ElementsAre("file.part"));
}

// Missing services.

TEST_F(ResourceDownloaderHttpTest, FailsWithoutAClient) {
    const ResourceDownloaderHttp clientless(nullptr, proxies, network);
    const LogCapture log;
    EXPECT_EQ(clientless.Exec({&descriptor, progress, query}), Status::Failed);
    EXPECT_THAT(log.Errors(), ElementsAre(kFailedWith));
    EXPECT_EQ(folder.List(), "");
}

TEST_F(ResourceDownloaderHttpTest, GoesThereDirectlyWithoutAProxyProvider) {
    const ResourceDownloaderHttp direct(client, nullptr, network);
    EXPECT_EQ(direct.Exec({&descriptor, progress, query}), Status::Ok);
    EXPECT_EQ(client->Calls().at(0).options.proxy, "");
    EXPECT_EQ(client->Calls().at(0).options.connectTimeout, 5);
}

TEST_F(ResourceDownloaderHttpTest, IsOnlineWithoutANetworkStateChecker) {
    const ResourceDownloaderHttp uncheckedOne(client, proxies, nullptr);
    client->Play([](const Request&, const Options& options) {
        EXPECT_FALSE(options.cancellationQuery());
        return FakeHttpClient::Response(0);
    });
    EXPECT_EQ(uncheckedOne.Exec({&descriptor, progress, query}), Status::Ok);
}

// Callbacks and exceptions.

TEST_F(ResourceDownloaderHttpTest, DestroysTheCallbacksBeforeItReturns) {
    auto token = std::make_shared<int>();
    const std::weak_ptr<int> alive = token;
    progress = [token](std::size_t, std::size_t) {
    };
    query = [token] {
        return false;
    };
    IResourceDownloader::Task task{&descriptor, std::move(progress), std::move(query)};
    token.reset();
    // Within one expression, because the parameter itself may live until its end.
    const std::pair<Status, bool> result{downloader.Exec(std::move(task)), alive.expired()};
    EXPECT_EQ(result, std::make_pair(Status::Ok, true));
}

TEST_F(ResourceDownloaderHttpTest, AnExceptionOfTheClientComesOutAndLeavesNothingBehind) {
    client->Play([](const Request&, const Options& options) -> Response {
        options.dataCallback("half");
        throw std::runtime_error("of the client");
    });
    EXPECT_THROW(Download(), std::runtime_error);
    EXPECT_EQ(folder.List(), "");
}

TEST_F(ResourceDownloaderHttpTest, CanDownloadAgainAfterAnException) {
    client->Play([](const Request&, const Options&) -> Response {
        throw std::runtime_error("of the client");
    });
    EXPECT_THROW(Download(), std::runtime_error);
    client->Play(FakeHttpClient::Deliver("body"));
    EXPECT_EQ(Download(), Status::Ok);
}

TEST_F(ResourceDownloaderHttpTest, AnExceptionOfTheProxyProviderComesOutAndLeavesNothingBehind) {
    proxies->answer = [](const std::string&) -> Proxy {
        throw std::runtime_error("of the proxy provider");
    };
    EXPECT_THROW(Download(), std::runtime_error);
    EXPECT_EQ(folder.List(), "");
}

TEST_F(ResourceDownloaderHttpTest, AnExceptionOfTheCheckerComesOutAndLeavesNothingBehind) {
    network->answer = []() -> NetworkState {
        throw std::runtime_error("of the checker");
    };
    EXPECT_THROW(Download(), std::runtime_error);
    EXPECT_EQ(folder.List(), "");
}

// Files that cannot be had.

TEST_F(ResourceDownloaderHttpTest, FailsWhenAFolderIsAtTheTemporaryPath) {
    folder.Write("file.part/inside", "kept");
    folder.Write("file.bin", "kept too");
    const LogCapture log;
    EXPECT_EQ(Download(), Status::Failed);
    EXPECT_EQ(log.Errors().at(0), "Failed to remove file=" + descriptor.tempPath.string());
    EXPECT_THAT(client->Calls(), IsEmpty());
    EXPECT_EQ(folder.List(), "file.bin file.part");
    EXPECT_EQ(ReadFile(folder / "file.part/inside"), "kept");
}

TEST_F(ResourceDownloaderHttpTest, FailsWhenAFolderIsAtTheDestination) {
    folder.Write("file.bin/inside", "kept");
    const LogCapture log;
    EXPECT_EQ(Download(), Status::Failed);
    EXPECT_THAT(log.Errors(),
                ElementsAre("Failed to remove file=" + descriptor.downloadPath.string()));
    EXPECT_THAT(client->Calls(), IsEmpty());
    EXPECT_EQ(folder.List(), "file.bin");
}

TEST_F(ResourceDownloaderHttpTest, FailsWhenTheTemporaryPathsFolderIsMissing) {
    descriptor.tempPath = folder / "missing/file.part";
    const LogCapture log;
    EXPECT_EQ(Download(), Status::Failed);
    EXPECT_THAT(log.Errors(),
                ElementsAre("failed to create file for writing=" + descriptor.tempPath.string() +
                            ", errno=2 (No such file or directory)"));
    EXPECT_THAT(client->Calls(), IsEmpty());
    EXPECT_EQ(folder.List(), "");
}

TEST_F(ResourceDownloaderHttpTest, FailsWhenTheDestinationsFolderIsMissing) {
    descriptor.downloadPath = folder / "missing/file.bin";
    const LogCapture log;
    EXPECT_EQ(Download(), Status::Failed);
    EXPECT_THAT(log.Errors(), ElementsAre("Failed to rename: " + descriptor.tempPath.string() +
                                          " -> " + descriptor.downloadPath.string()));
    EXPECT_EQ(folder.List(), "");
}

TEST_F(ResourceDownloaderHttpTest, AFailedRenameIsANetworkFailureWhenOffline) {
    descriptor.downloadPath = folder / "missing/file.bin";
    network->state = NetworkState::Offline;
    EXPECT_EQ(Download(), Status::NetworkFailure);
}

TEST_F(ResourceDownloaderHttpTest, FailsWhenAFileIsInTheFoldersPlace) {
    folder.Write("file", "no folder");
    descriptor.tempPath = folder / "file/file.part";
    EXPECT_EQ(Download(), Status::Failed);
    EXPECT_THAT(client->Calls(), IsEmpty());
    EXPECT_EQ(folder.List(), "file");
}

TEST_F(ResourceDownloaderHttpTest, FailsWhenANameIsTooLong) {
    descriptor.tempPath = folder / std::string(300, 'x');
    const LogCapture log;
    EXPECT_EQ(Download(), Status::Failed);
    EXPECT_EQ(log.Errors().at(0), "Failed to remove file=" + descriptor.tempPath.string());
    EXPECT_THAT(client->Calls(), IsEmpty());
}

TEST_F(ResourceDownloaderHttpTest, FailsWhenTheDestinationsNameIsTooLong) {
    descriptor.downloadPath = folder / std::string(300, 'x');
    EXPECT_EQ(Download(), Status::Failed);
    EXPECT_THAT(client->Calls(), IsEmpty());
    EXPECT_EQ(folder.List(), "");
}

TEST_F(ResourceDownloaderHttpTest, FailsWhenThePathsAreEmpty) {
    descriptor.tempPath = ioPath();
    descriptor.downloadPath = ioPath();
    EXPECT_EQ(Download(), Status::Failed);
    EXPECT_THAT(client->Calls(), IsEmpty());
}

TEST_F(ResourceDownloaderHttpTest, WritesToAPathOutsideAscii) {
    descriptor = Descriptor("gr\xC3\xBC\xC3\x9F \xE6\x96\x87");
    client->Play(FakeHttpClient::Deliver("body"));
    EXPECT_EQ(Download(), Status::Ok);
    EXPECT_EQ(folder.List(), "gr\xC3\xBC\xC3\x9F \xE6\x96\x87.bin");
    EXPECT_EQ(ReadFile(descriptor.downloadPath), "body");
}

TEST_F(ResourceDownloaderHttpTest, DoesNotWriteThroughALinkPlantedAtTheTemporaryPath) {
    folder.Write("victim", "untouched");
    std::filesystem::create_symlink((folder / "victim").string(), descriptor.tempPath.string());
    client->Play(FakeHttpClient::Deliver("body"));
    Download();
    EXPECT_EQ(ReadFile(folder / "victim"), "untouched");
}

// Writes that fail.

TEST_F(ResourceDownloaderHttpTest, AFailedWriteNeverEndsInOk) {
    client->Play([](const Request&, const Options& options) {
        const FileSizeLimit limit(64 * 1024);
        options.dataCallback(std::string(100 * 1024, 'x'));
        return FakeHttpClient::Response(0);
    });
    const LogCapture log;
    EXPECT_EQ(Download(), Status::Failed);
    EXPECT_THAT(log.Errors(), ElementsAre("failed to write file=" + descriptor.tempPath.string() +
                                              ", errno=27 (File too large)",
                                          "Failed to rename: " + descriptor.tempPath.string() +
                                              " -> " + descriptor.downloadPath.string()));
    EXPECT_EQ(folder.List(), "");
}

TEST_F(ResourceDownloaderHttpTest, AWriteThatSucceedsAfterAFailedOneDoesNotHelp) {
    client->Play([](const Request&, const Options& options) {
        {
            const FileSizeLimit limit(64 * 1024);
            options.dataCallback(std::string(100 * 1024, 'x'));
        }
        options.dataCallback("the rest");
        return FakeHttpClient::Response(0);
    });
    EXPECT_EQ(Download(), Status::Failed);
    EXPECT_EQ(folder.List(), "");
}

// Two downloads that share a temporary path.

/// A first download that stays inside the client until it is released, and a second one that
/// shares its temporary path.
class ResourceDownloaderHttpWait : public ResourceDownloaderHttpTest {
protected:
    ResourceDownloaderHttpWait() : second(Descriptor("second")) {
        second.tempPath = descriptor.tempPath;
        client->Play([this](const Request& request, const Options& options) {
            const bool isFirst = request.url.toString() == kUrl;
            if (isFirst) {
                options.dataCallback("first");
                firstIsInGet.Set();
                EXPECT_TRUE(firstMayEnd.Wait());
            } else {
                options.dataCallback("second");
            }
            return FakeHttpClient::Response(0);
        });
        first = std::async(std::launch::async, [this] { return Download(); });
        EXPECT_TRUE(firstIsInGet.Wait());
    }

    ~ResourceDownloaderHttpWait() override { firstMayEnd.Set(); }

    std::future<Status> StartSecond() {
        return std::async(std::launch::async, [this] {
            return Download(second, [this] {
                secondWaits.Set();
                return cancelSecond.load();
            });
        });
    }

    Status EndFirst() {
        firstMayEnd.Set();
        return first.get();
    }

    ResourceDescriptor second;
    Event firstIsInGet;
    Event firstMayEnd;
    Event secondWaits;
    std::atomic<bool> cancelSecond{false};
    std::future<Status> first;
};

TEST_F(ResourceDownloaderHttpWait, TheSecondBeginsOnlyWhenTheFirstHasEnded) {
    std::future<Status> secondEnd = StartSecond();
    ASSERT_TRUE(secondWaits.Wait());
    EXPECT_EQ(client->Calls().size(), 1U);
    EXPECT_EQ(ReadFile(descriptor.tempPath), "first");
    EXPECT_EQ(EndFirst(), Status::Ok);
    EXPECT_EQ(secondEnd.get(), Status::Ok);
    EXPECT_EQ(ReadFile(descriptor.downloadPath), "first");
    EXPECT_EQ(ReadFile(second.downloadPath), "second");
}

TEST_F(ResourceDownloaderHttpWait, LeavesTheSecondsOldFileAloneUntilThen) {
    folder.Write("second.bin", "an old one");
    std::future<Status> secondEnd = StartSecond();
    ASSERT_TRUE(secondWaits.Wait());
    EXPECT_EQ(ReadFile(second.downloadPath), "an old one");
    EndFirst();
    EXPECT_EQ(secondEnd.get(), Status::Ok);
}

TEST_F(ResourceDownloaderHttpWait, EndsWithTheQueryAsCancelled) {
    const LogCapture log;
    std::future<Status> secondEnd = StartSecond();
    ASSERT_TRUE(secondWaits.Wait());
    cancelSecond = true;
    EXPECT_EQ(secondEnd.get(), Status::Cancelled);
    EXPECT_THAT(log.Infos(), ElementsAre("HTTP download=http://server/data/second.bin",
                                         "request=http://server/data/second.bin was cancelled."));
    EXPECT_THAT(log.Errors(), IsEmpty());
}

TEST_F(ResourceDownloaderHttpWait, EndsWithAbortAsCancelled) {
    std::future<Status> secondEnd = StartSecond();
    ASSERT_TRUE(secondWaits.Wait());
    downloader.Abort();
    EXPECT_EQ(secondEnd.get(), Status::Cancelled);
}

TEST_F(ResourceDownloaderHttpWait, EndsOfflineAsANetworkFailure) {
    const LogCapture log;
    std::future<Status> secondEnd = StartSecond();
    ASSERT_TRUE(secondWaits.Wait());
    network->state = NetworkState::Offline;
    EXPECT_EQ(secondEnd.get(), Status::NetworkFailure);
    EXPECT_THAT(
        log.Errors(),
        ElementsAre(std::string("request=http://server/data/second.bin failed with error=") +
                    kOfflineNote));
}

TEST_F(ResourceDownloaderHttpWait, LeavesTheFirstOnesFileAloneWhenItIsCancelled) {
    cancelSecond = true;
    EXPECT_EQ(StartSecond().get(), Status::Cancelled);
    EXPECT_EQ(ReadFile(descriptor.tempPath), "first");
    EXPECT_EQ(EndFirst(), Status::Ok);
    EXPECT_EQ(ReadFile(descriptor.downloadPath), "first");
}

TEST_F(ResourceDownloaderHttpWait, IsNeededForOtherSpellingsOfThePathToo) {
    second.tempPath = folder / "./sub/../file.part";
    cancelSecond = true;
    EXPECT_EQ(StartSecond().get(), Status::Cancelled);
}

TEST_F(ResourceDownloaderHttpWait, IsNeededAcrossDownloaders) {
    const ResourceDownloaderHttp other(client, proxies, network);
    const auto cancelled = [] {
        return true;
    };
    EXPECT_EQ(other.Exec({&second, progress, cancelled}), Status::Cancelled);
}

TEST_F(ResourceDownloaderHttpWait, IsNotNeededForAnotherTemporaryPath) {
    second.tempPath = folder / "second.part";
    EXPECT_EQ(StartSecond().get(), Status::Ok);
    EXPECT_FALSE(secondWaits.IsSet());
}

// Many threads at once.

TEST_F(ResourceDownloaderHttpTest, DownloadsManyResourcesAtOnce) {
    constexpr int kDownloads = 16;
    std::atomic<int> inside{0};
    client->Play([&](const Request& request, const Options& options) {
        ++inside;
        EXPECT_TRUE(WaitUntil([&] { return inside == kDownloads; }));
        options.dataCallback(request.url.toString());
        EXPECT_FALSE(options.cancellationQuery());
        return FakeHttpClient::Response(0);
    });
    std::vector<ResourceDescriptor> descriptors;
    for (int i = 0; i < kDownloads; ++i)
        descriptors.push_back(Descriptor(std::to_string(i)));
    std::vector<std::future<Status>> ends;
    for (const ResourceDescriptor& one : descriptors)
        ends.push_back(std::async(std::launch::async, [&] { return Download(one, query); }));
    for (std::future<Status>& end : ends)
        EXPECT_EQ(end.get(), Status::Ok);
    for (const ResourceDescriptor& one : descriptors)
        EXPECT_EQ(ReadFile(one.downloadPath), "http://server/data/" + one.relativePath);
}

} // namespace

} // namespace Halvex::App
