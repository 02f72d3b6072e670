#include "Foundation/Version.h"
#include "Networking/CurlHttpClient.h"
#include "Networking/QtHttpClient.h"

#include "support/ChildProcess.h"
#include "support/FakeHttpClient.h"
#include "support/NginxServer.h"
#include "support/ScriptedHttpServer.h"
#include "support/TemporaryFolder.h"
#include "support/TestAuthority.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>

#include <QtCore/QMetaObject>
#include <QtCore/QObject>
#include <QtNetwork/QNetworkProxy>
#include <QtNetwork/QSslCertificate>
#include <QtNetwork/QSslConfiguration>

#include <algorithm>
#include <atomic>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <stdexcept>
#include <thread>

namespace Halvex::Networking {
namespace {

using namespace std::chrono_literals;
using testing::AnyOfArray;
using testing::Each;
using Testing::FakeHttpClient;
using testing::Ge;
using Testing::GeneratedBytes;
using testing::IsEmpty;
using Testing::LoopbackPort;
using Testing::NginxServer;
using Testing::Reply;
using Testing::ScriptedHttpServer;
using testing::SizeIs;
using testing::ThrowsMessage;
namespace TestAuthority = Testing::TestAuthority;

constexpr std::int64_t kSecond = 1'000'000;
constexpr std::size_t kUnknown = std::numeric_limits<std::size_t>::max();

/// One request's options, with callbacks that record. Nothing is set at first but time enough.
class Recording {
public:
    Recording() { options.timeout = 60 * kSecond; }

    void StreamTheBody() {
        options.dataCallback = [this](const std::string& piece) {
            calls.emplace_back("data");
            data += piece;
        };
    }
    void WatchProgress() {
        options.progressCallback = [this](std::size_t received, std::size_t total) {
            calls.emplace_back("progress");
            progress.emplace_back(received, total);
        };
        AskForCancellation();
    }
    void AskForCancellation() {
        options.cancellationQuery = [this] {
            ++asked;
            calls.emplace_back("query");
            return cancel.load();
        };
    }

    Options options;
    std::atomic<bool> cancel{false};
    std::atomic<int> asked{0};
    std::vector<std::string> calls;
    std::string data;
    std::vector<std::pair<std::size_t, std::size_t>> progress;
};

Reply SlowReply() {
    return Reply::Generated(std::uint64_t{1} << 40).Drip(16 * 1024, 5ms);
}

// What every client promises, the fake that other tests use in its place included

/// A client, and a server that it asks.
class World {
public:
    virtual ~World() = default;

    virtual IHttpClient& Client() = 0;
    /// From now on the server has this body, and tells its length beforehand or not.
    virtual void Serve(const std::string& path, const std::string& body, bool tellLength) = 0;
    /// From now on it has one that takes far longer to arrive than any client waits before it asks
    /// whether to go on.
    virtual void ServeSlowly(const std::string& path) = 0;
    virtual std::string Url(const std::string& path) const = 0;
    /// How many requests have reached the server.
    virtual std::size_t RequestCount() const = 0;
};

template <typename Client_>
class RealWorld : public World {
public:
    IHttpClient& Client() override { return m_client; }
    void Serve(const std::string& path, const std::string& body, bool tellLength) override {
        m_server.On(path, tellLength ? Reply::Ok(body) : Reply::Ok(body).Chunked());
    }
    void ServeSlowly(const std::string& path) override { m_server.On(path, SlowReply()); }
    std::string Url(const std::string& path) const override { return m_server.Url(path); }
    std::size_t RequestCount() const override { return m_server.Requests().size(); }

private:
    ScriptedHttpServer m_server;
    Client_ m_client;
};

/// The fake's scripts play the server.
class FakeWorld : public World {
public:
    FakeWorld() {
        m_client.Play([this](const Request& request, const Options& options) {
            ++m_requests;
            return m_scripts.at(request.url.toString())(request, options);
        });
    }

    IHttpClient& Client() override { return m_client; }
    void Serve(const std::string& path, const std::string& body, bool tellLength) override {
        constexpr std::size_t kPieceBytes = 16 * 1024;
        std::vector<std::string> pieces;
        for (std::size_t begin = 0; begin < body.size(); begin += kPieceBytes)
            pieces.push_back(body.substr(begin, kPieceBytes));
        m_scripts[Url(path)] = FakeHttpClient::Stream(pieces, tellLength ? body.size() : kUnknown);
    }
    void ServeSlowly(const std::string& path) override {
        Serve(path, GeneratedBytes(0, 10'000'000), true);
    }
    std::string Url(const std::string& path) const override { return "http://server" + path; }
    std::size_t RequestCount() const override { return m_requests; }

private:
    std::atomic<std::size_t> m_requests{0};
    std::map<std::string, FakeHttpClient::Script> m_scripts;
    FakeHttpClient m_client;
};

struct AnyClient {
    const char* name;
    std::function<std::unique_ptr<World>()> makeWorld;
};

void PrintTo(const AnyClient& client, std::ostream* stream) {
    *stream << client.name;
}

class HttpClientContractTest : public testing::TestWithParam<AnyClient>, protected Recording {
protected:
    void Serve(const std::string& body, bool tellLength = true) {
        m_world->Serve("/file", body, tellLength);
    }
    Response Get() { return GetUrl(m_world->Url("/file")); }
    Response GetUrl(const std::string& url) {
        return m_world->Client().get({Url(url), {}, {}}, options);
    }

    const std::unique_ptr<World> m_world = GetParam().makeWorld();
};

TEST_P(HttpClientContractTest, GathersTheBodyWithoutADataCallback) {
    const std::string body = GeneratedBytes(0, 1'000'000);
    Serve(body);
    const Response response = Get();
    EXPECT_EQ(response.errorCode, 0);
    EXPECT_EQ(response.errorText, "");
    EXPECT_TRUE(response.body == body);
}

TEST_P(HttpClientContractTest, GivesTheBodyToTheDataCallbackInOrderAndOnce) {
    const std::string body = GeneratedBytes(0, 3'000'000);
    Serve(body);
    StreamTheBody();
    const Response response = Get();
    EXPECT_EQ(response.errorCode, 0);
    EXPECT_EQ(response.body, "");
    EXPECT_TRUE(data == body);
}

TEST_P(HttpClientContractTest, TakesABodyWhoseLengthIsNotTold) {
    const std::string body = GeneratedBytes(0, 300'000);
    Serve(body, false);
    StreamTheBody();
    EXPECT_EQ(Get().errorCode, 0);
    EXPECT_TRUE(data == body);
}

TEST_P(HttpClientContractTest, TakesAnEmptyBody) {
    Serve("");
    StreamTheBody();
    const Response response = Get();
    EXPECT_EQ(response.errorCode, 0);
    EXPECT_EQ(response.body, "");
    EXPECT_THAT(calls, IsEmpty());
}

TEST_P(HttpClientContractTest, BeginsAnewWithEachRequest) {
    Serve("hello");
    StreamTheBody();
    EXPECT_EQ(Get().errorCode, 0);
    EXPECT_EQ(Get().errorCode, 0);
    EXPECT_EQ(data, "hellohello");
    EXPECT_EQ(m_world->RequestCount(), 2u);
}

TEST_P(HttpClientContractTest, SendsNothingToAnInvalidAddress) {
    StreamTheBody();
    WatchProgress();
    const std::string path = m_world->Url("/file").substr(4);
    for (const std::string& url : {std::string(), std::string("/file"), "ftp" + path,
                                   std::string("http://"), "http" + path + "\n"}) {
        const Response response = GetUrl(url);
        EXPECT_EQ(response.errorCode, 1001) << url;
        EXPECT_EQ(response.errorText, "") << url;
    }
    EXPECT_THAT(calls, IsEmpty());
    EXPECT_EQ(m_world->RequestCount(), 0u);
}

TEST_P(HttpClientContractTest, EndsWithCode15WithoutTime) {
    Serve(GeneratedBytes(0, 10'000'000));
    for (const std::int64_t timeout :
         {std::int64_t{0}, std::int64_t{-1}, std::numeric_limits<std::int64_t>::min()}) {
        options.timeout = timeout;
        EXPECT_EQ(Get().errorCode, 15) << timeout;
    }
}

TEST_P(HttpClientContractTest, TakesAHugeTimeoutForAVeryLongOne) {
    Serve("hello");
    options.timeout = std::numeric_limits<std::int64_t>::max();
    EXPECT_EQ(Get().body, "hello");
}

TEST_P(HttpClientContractTest, ReportsProgressThatNeverGoesBack) {
    Serve(GeneratedBytes(0, 3'000'000));
    StreamTheBody();
    WatchProgress();
    EXPECT_EQ(Get().errorCode, 0);
    EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
}

TEST_P(HttpClientContractTest, ReportsTheWholeAtLast) {
    Serve(GeneratedBytes(0, 3'000'000));
    WatchProgress();
    EXPECT_EQ(Get().errorCode, 0);
    ASSERT_FALSE(progress.empty());
    EXPECT_EQ(progress.back(), std::pair(std::size_t{3'000'000}, std::size_t{3'000'000}));
}

TEST_P(HttpClientContractTest, EndsWithCode15WhenCancelled) {
    m_world->ServeSlowly("/file");
    StreamTheBody();
    WatchProgress();
    options.progressCallback = [this](std::size_t, std::size_t) {
        cancel = true;
    };
    EXPECT_EQ(Get().errorCode, 15);
}

TEST_P(HttpClientContractTest, WorksAgainAfterACancellation) {
    m_world->ServeSlowly("/file");
    WatchProgress();
    cancel = true;
    EXPECT_EQ(Get().errorCode, 15);
    cancel = false;
    Serve("hello");
    EXPECT_EQ(Get().body, "hello");
}

TEST_P(HttpClientContractTest, LetsOutWhatTheDataCallbackThrows) {
    Serve(GeneratedBytes(0, 10'000'000));
    options.dataCallback = [](const std::string&) {
        throw std::runtime_error("mine");
    };
    EXPECT_THAT([this] { Get(); }, ThrowsMessage<std::runtime_error>("mine"));
}

TEST_P(HttpClientContractTest, LetsOutWhatTheProgressCallbackThrows) {
    Serve("hello");
    WatchProgress();
    options.progressCallback = [](std::size_t, std::size_t) {
        throw std::runtime_error("mine");
    };
    EXPECT_THAT([this] { Get(); }, ThrowsMessage<std::runtime_error>("mine"));
}

TEST_P(HttpClientContractTest, LetsOutWhatTheCancellationQueryThrows) {
    Serve("hello");
    WatchProgress();
    options.cancellationQuery = []() -> bool {
        throw std::runtime_error("mine");
    };
    EXPECT_THAT([this] { Get(); }, ThrowsMessage<std::runtime_error>("mine"));
}

TEST_P(HttpClientContractTest, LetsOutWhatIsNoStandardException) {
    Serve("hello");
    options.dataCallback = [](const std::string&) {
        throw 42;
    };
    EXPECT_THROW(Get(), int);
}

TEST_P(HttpClientContractTest, CallsNothingMoreOnceACallbackHasThrown) {
    Serve(GeneratedBytes(0, 10'000'000));
    options.dataCallback = [this](const std::string&) {
        calls.emplace_back("data");
        throw std::runtime_error("mine");
    };
    EXPECT_THROW(Get(), std::runtime_error);
    EXPECT_EQ(calls.size(), 1u);
}

TEST_P(HttpClientContractTest, WorksAgainAfterAnException) {
    Serve("hello");
    options.dataCallback = [](const std::string&) {
        throw std::runtime_error("mine");
    };
    EXPECT_THROW(Get(), std::runtime_error);
    options.dataCallback = nullptr;
    EXPECT_EQ(Get().body, "hello");
}

TEST_P(HttpClientContractTest, CallsItsCallbacksOnTheCallingThread) {
    Serve("hello");
    std::vector<std::thread::id> threads;
    const auto remember = [&threads] {
        threads.push_back(std::this_thread::get_id());
    };
    options.dataCallback = [&](const std::string&) {
        remember();
    };
    options.progressCallback = [&](std::size_t, std::size_t) {
        remember();
    };
    options.cancellationQuery = [&] {
        remember();
        return false;
    };
    std::thread::id caller;
    std::thread([&] {
        caller = std::this_thread::get_id();
        EXPECT_EQ(Get().errorCode, 0);
    }).join();
    EXPECT_THAT(threads, SizeIs(Ge(3u)));
    EXPECT_THAT(threads, Each(caller));
}

TEST_P(HttpClientContractTest, KeepsNoCallback) {
    Serve("hello");
    auto token = std::make_shared<int>();
    const std::weak_ptr<int> alive = token;
    options.dataCallback = [token](const std::string&) {
    };
    options.progressCallback = [token](std::size_t, std::size_t) {
    };
    options.cancellationQuery = [token] {
        return false;
    };
    EXPECT_EQ(Get().errorCode, 0);
    token.reset();
    options = {};
    EXPECT_TRUE(alive.expired());
}

TEST_P(HttpClientContractTest, ServesManyThreadsAtOnce) {
    constexpr unsigned kThreads = 16;
    const auto path = [](unsigned seed) {
        return "/" + std::to_string(seed);
    };
    for (unsigned seed = 0; seed < kThreads; ++seed)
        m_world->Serve(path(seed), GeneratedBytes(0, 200'000, seed), true);
    std::vector<std::thread> threads;
    for (unsigned seed = 0; seed < kThreads; ++seed) {
        threads.emplace_back([&, seed] {
            Recording mine;
            mine.StreamTheBody();
            const Request request{Url(m_world->Url(path(seed))), {}, {}};
            EXPECT_EQ(m_world->Client().get(request, mine.options).errorCode, 0);
            EXPECT_TRUE(mine.data == GeneratedBytes(0, 200'000, seed));
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}

TEST_P(HttpClientContractTest, CanBeCalledByACallback) {
    Serve("hello");
    m_world->Serve("/inner", "inner", true);
    std::string inner;
    options.dataCallback = [&](const std::string&) {
        Recording mine;
        inner = m_world->Client().get({Url(m_world->Url("/inner")), {}, {}}, mine.options).body;
    };
    EXPECT_EQ(Get().errorCode, 0);
    EXPECT_EQ(inner, "inner");
}

template <typename Client>
std::string NameOf(const testing::TestParamInfo<Client>& client) {
    return client.param.name;
}

template <typename World_>
std::unique_ptr<World> Make() {
    return std::make_unique<World_>();
}

INSTANTIATE_TEST_SUITE_P(Clients, HttpClientContractTest,
                         testing::Values(AnyClient{"Native", &Make<RealWorld<CurlHttpClient>>},
                                         AnyClient{"Qt", &Make<RealWorld<QtHttpClient>>},
                                         AnyClient{"Fake", &Make<FakeWorld>}),
                         &NameOf<AnyClient>);

// What the real clients make of a network, and where they differ

using Codes = std::vector<std::int32_t>;

/// What each of the two does, where they differ. docs/http-clients.md says what follows from it.
struct RealClient {
    const char* name;
    std::unique_ptr<IHttpClient> (*make)();
    /// One that trusts the authorities of a file instead of the system's.
    std::unique_ptr<IHttpClient> (*makeTrusting)(const std::string& authorityFile);

    // Codes
    std::int32_t noConnection;
    std::int32_t lostConnection;
    /// A body in chunks, or a coded one, that ends early: any of these, as it happens.
    Codes cutWithoutLength;
    std::int32_t otherSuccessStatus; ///< 201, 204, 206
    std::int32_t twoLengths;
    std::int32_t post;

    // Bodies
    bool hidesErrorPages;
    bool decodesBodies;

    // Progress and cancellation
    bool reportsUnknownTotalToTheEnd;
    bool reportsProgressOfNothing;
    bool asksInSilence;

    // Requests and connections
    bool sendsHeadersAndCookies;
    /// What the target of a redirect gets of the cookie that came with it.
    std::string cookieOfARedirect;
    bool fillsTheResponse;
    bool usesTheOptionsProxy;
    bool usesTheApplicationsProxy;
    bool noticesStalls;
    bool resumes;
    bool reusesConnections;
    const char* protocolOverTls;
    const char* userAgent;
    bool runsTheEventLoop;
};

void PrintTo(const RealClient& client, std::ostream* stream) {
    *stream << client.name;
}

std::unique_ptr<IHttpClient> MakeNative() {
    return std::make_unique<CurlHttpClient>();
}

std::unique_ptr<IHttpClient> MakeTrustingNative(const std::string& authorityFile) {
    return std::make_unique<CurlHttpClient>(authorityFile);
}

std::unique_ptr<IHttpClient> MakeQt() {
    return std::make_unique<QtHttpClient>();
}

std::unique_ptr<IHttpClient> MakeTrustingQt(const std::string& authorityFile) {
    QSslConfiguration trusting = QSslConfiguration::defaultConfiguration();
    trusting.setCaCertificates(
        QSslCertificate::fromPath(QString::fromStdString(authorityFile), QSsl::Pem));
    QSslConfiguration::setDefaultConfiguration(trusting);
    return MakeQt();
}

RealClient Native() {
    RealClient client{};
    client.name = "Native";
    client.make = &MakeNative;
    client.makeTrusting = &MakeTrustingNative;
    client.noConnection = 3;
    client.lostConnection = 8;
    client.cutWithoutLength = {8};
    client.otherSuccessStatus = 4;
    client.twoLengths = 4;
    client.post = 0;
    client.hidesErrorPages = true;
    client.reportsUnknownTotalToTheEnd = true;
    client.asksInSilence = true;
    client.sendsHeadersAndCookies = true;
    client.fillsTheResponse = true;
    client.usesTheOptionsProxy = true;
    client.noticesStalls = true;
    client.resumes = true;
    client.reusesConnections = true;
    client.protocolOverTls = "HTTP/2.0";
    client.userAgent = "HalvexResourceDownloadManager/" HALVEX_VERSION;
    return client;
}

RealClient Qt() {
    RealClient client{};
    client.name = "Qt";
    client.make = &MakeQt;
    client.makeTrusting = &MakeTrustingQt;
    client.noConnection = 4;
    client.lostConnection = 4;
    client.cutWithoutLength = {0, 4};
    client.otherSuccessStatus = 0;
    client.twoLengths = 0;
    client.post = 1001;
    client.decodesBodies = true;
    client.reportsProgressOfNothing = true;
    client.usesTheApplicationsProxy = true;
    client.protocolOverTls = "HTTP/1.1";
    client.userAgent = "Mozilla/5.0";
    client.runsTheEventLoop = true;
    client.cookieOfARedirect = "a=b";
    return client;
}

class HttpClientNetworkContractTest : public testing::TestWithParam<RealClient>,
                                      protected Recording {
protected:
    ~HttpClientNetworkContractTest() override {
        QSslConfiguration::setDefaultConfiguration(m_sslBefore);
    }

    Response Get(const std::string& path) { return GetUrl(m_server.Url(path)); }
    Response GetUrl(const std::string& url) { return m_client->get({Url(url), {}, {}}, options); }

    ScriptedHttpServer m_server;
    const RealClient& m_expected = GetParam();
    std::unique_ptr<IHttpClient> m_client = GetParam().make();

private:
    const QSslConfiguration m_sslBefore = QSslConfiguration::defaultConfiguration();
};

INSTANTIATE_TEST_SUITE_P(Clients, HttpClientNetworkContractTest, testing::Values(Native(), Qt()),
                         &NameOf<RealClient>);

// Bodies

TEST_P(HttpClientNetworkContractTest, TakesABodyThatEndsWithTheConnection) {
    m_server.On("/file", Reply::Generated(300'000).WithoutLength());
    StreamTheBody();
    EXPECT_EQ(Get("/file").errorCode, 0);
    EXPECT_TRUE(data == GeneratedBytes(0, 300'000));
}

TEST_P(HttpClientNetworkContractTest, TakesNoMoreThanIsAnnounced) {
    m_server.On("/file", Reply::Ok("hello and more").Announcing(5));
    const Response response = Get("/file");
    EXPECT_EQ(response.errorCode, 0);
    EXPECT_EQ(response.body, "hello");
}

TEST_P(HttpClientNetworkContractTest, TakesNoCutBodyForAWholeOne) {
    const Reply body = Reply::Generated(100'000);
    for (const std::uint64_t end : std::initializer_list<std::uint64_t>{0, 1, 50'000, 99'999}) {
        m_server.On("/file", Reply(body).CutAfter(end));
        const Response response = Get("/file");
        EXPECT_EQ(response.errorCode, m_expected.lostConnection) << end;
        EXPECT_NE(response.errorText, "") << end;
    }
}

TEST_P(HttpClientNetworkContractTest, TakesNoCutBodyForAWholeOneWhenItIsStreamed) {
    m_server.On("/file", Reply::Generated(100'000).CutAfter(50'000));
    StreamTheBody();
    EXPECT_EQ(Get("/file").errorCode, m_expected.lostConnection);
    EXPECT_TRUE(data == GeneratedBytes(0, data.size()));
}

TEST_P(HttpClientNetworkContractTest, TakesNoResetBodyForAWholeOne) {
    m_server.On("/file", Reply::Generated(100'000).ResetAfter(50'000));
    EXPECT_EQ(Get("/file").errorCode, m_expected.lostConnection);
}

TEST_P(HttpClientNetworkContractTest, FailsWhenTheConnectionEndsBeforeAnAnswer) {
    m_server.On("/file", Reply::Raw(""));
    EXPECT_EQ(Get("/file").errorCode, m_expected.lostConnection);
}

TEST_P(HttpClientNetworkContractTest, FailsWhenTheServerSpeaksNoHttp) {
    m_server.On("/file", Reply::Raw("gibberish\r\n\r\n"));
    StreamTheBody();
    EXPECT_EQ(Get("/file").errorCode, 4);
    EXPECT_EQ(data, "");
}

TEST_P(HttpClientNetworkContractTest, MayTakeChunksCutShortForAWholeBody) {
    m_server.On("/file", Reply::Generated(100'000).Chunked().CutAfter(50'000));
    EXPECT_THAT(Get("/file").errorCode, AnyOfArray(m_expected.cutWithoutLength));
}

TEST_P(HttpClientNetworkContractTest, MayTakeACodedBodyCutShortForAWholeOne) {
    m_server.On("/file", Reply::Gzip(GeneratedBytes(0, 100'000)).CutAfter(50'000));
    EXPECT_THAT(Get("/file").errorCode, AnyOfArray(m_expected.cutWithoutLength));
}

TEST_P(HttpClientNetworkContractTest, RefusesTwoLengthsOrNot) {
    m_server.On("/file", Reply::Ok("hello").Header("Content-Length", "4"));
    EXPECT_EQ(Get("/file").errorCode, m_expected.twoLengths);
}

TEST_P(HttpClientNetworkContractTest, DecodesABodyOrStoresItAsSent) {
    const std::string body = GeneratedBytes(0, 1000);
    m_server.On("/file", Reply::Gzip(body));
    const Response response = Get("/file");
    EXPECT_EQ(response.errorCode, 0);
    EXPECT_EQ(response.body == body, m_expected.decodesBodies);
    EXPECT_EQ(m_server.Requests().at(0).Header("Accept-Encoding").empty(),
              !m_expected.decodesBodies);
}

TEST_P(HttpClientNetworkContractTest, LeavesNoPartOfABodyInAFailedResponse) {
    m_server.On("/file", Reply::Ok("hello").CutAfter(3));
    EXPECT_EQ(Get("/file").body, "");
}

// Statuses

TEST_P(HttpClientNetworkContractTest, FailsWithCode4AndATextAtAnErrorStatus) {
    for (const int status : {400, 401, 403, 404, 410, 416, 429, 500, 503}) {
        m_server.On("/file", Reply::Status(status, "an error page"));
        const Response response = Get("/file");
        EXPECT_EQ(response.errorCode, 4) << status;
        EXPECT_NE(response.errorText, "") << status;
        EXPECT_EQ(response.body, "") << status;
    }
}

TEST_P(HttpClientNetworkContractTest, HidesErrorPagesFromTheCallbacksOrNot) {
    for (const int status : {404, 500}) {
        m_server.On("/file", Reply::Status(status, "an error page"));
        StreamTheBody();
        WatchProgress();
        EXPECT_EQ(Get("/file").errorCode, 4);
    }
    EXPECT_EQ(data, m_expected.hidesErrorPages ? "" : "an error pagean error page");
    EXPECT_EQ(progress.empty(), m_expected.hidesErrorPages);
}

TEST_P(HttpClientNetworkContractTest, TakesAStatusOf203ForSuccess) {
    m_server.On("/file", Reply::Status(203, "hello"));
    EXPECT_EQ(Get("/file").body, "hello");
}

TEST_P(HttpClientNetworkContractTest, TakesOtherStatusesOf200AndAboveForSuccessOrNot) {
    for (const int status : {201, 204, 206}) {
        m_server.On("/file", Reply::Status(status, "hello"));
        EXPECT_EQ(Get("/file").errorCode, m_expected.otherSuccessStatus) << status;
    }
}

// Redirects

TEST_P(HttpClientNetworkContractTest, FollowsRedirects) {
    m_server.On("/to", Reply::Ok("there"));
    StreamTheBody();
    for (const int status : {301, 302, 303, 307, 308}) {
        m_server.On("/from", Reply::Redirect(m_server.Url("/to"), status, "moved"));
        data.clear();
        EXPECT_EQ(Get("/from").errorCode, 0) << status;
        EXPECT_EQ(data, "there") << status;
    }
}

TEST_P(HttpClientNetworkContractTest, FollowsRelativeRedirectsOnAnotherServer) {
    ScriptedHttpServer other;
    other.On("/a/to", Reply::Ok("there"));
    other.On("/a/from", Reply::Redirect("to"));
    m_server.On("/", Reply::Redirect(other.Url("/a/from")));
    EXPECT_EQ(Get("/").body, "there");
}

TEST_P(HttpClientNetworkContractTest, FollowsFiftyRedirects) {
    for (int i = 0; i < 50; ++i)
        m_server.On("/" + std::to_string(i), Reply::Redirect("/" + std::to_string(i + 1)));
    m_server.On("/50", Reply::Ok("there"));
    EXPECT_EQ(Get("/0").body, "there");
}

TEST_P(HttpClientNetworkContractTest, GivesUpAfterFiftyRedirects) {
    m_server.On("/loop", Reply::Redirect("/loop"));
    const Response response = Get("/loop");
    EXPECT_EQ(response.errorCode, 4);
    EXPECT_NE(response.errorText, "");
    EXPECT_GE(m_server.RequestCount("/loop"), 51u);
}

TEST_P(HttpClientNetworkContractTest, FollowsNoRedirectToAnotherScheme) {
    const Testing::TemporaryFolder folder;
    const std::string path = folder.Write("file", "local").string();
    StreamTheBody();
    for (const std::string& target : {"file://" + path, std::string("ftp://127.0.0.1/")}) {
        m_server.On("/from", Reply::Redirect(target));
        EXPECT_EQ(Get("/from").errorCode, 4) << target;
    }
    EXPECT_EQ(data, "");
}

TEST_P(HttpClientNetworkContractTest, FailsAtARedirectThatLeadsNowhere) {
    m_server.On("/from", Reply::Status(302, "moved"));
    EXPECT_EQ(Get("/from").errorCode, 4);
}

TEST_P(HttpClientNetworkContractTest, FailsWhenTheTargetOfARedirectDoes) {
    m_server.On("/from", Reply::Redirect("/missing"));
    EXPECT_EQ(Get("/from").errorCode, 4);
    m_server.On("/from", Reply::Redirect("/cut", 302, "moved"));
    m_server.On("/cut", Reply::Ok("hello").CutAfter(3));
    EXPECT_EQ(Get("/from").errorCode, m_expected.lostConnection);
}

// Progress

TEST_P(HttpClientNetworkContractTest, ReportsAnUnknownTotalAsTheLargestValue) {
    m_server.On("/file", Reply::Generated(30).Chunked().Drip(1, 20ms));
    WatchProgress();
    EXPECT_EQ(Get("/file").errorCode, 0);
    ASSERT_THAT(progress, SizeIs(Ge(2u)));
    EXPECT_LT(progress.front().first, 30u);
    EXPECT_EQ(progress.front().second, kUnknown);
    const std::size_t lastTotal = m_expected.reportsUnknownTotalToTheEnd ? kUnknown : 30;
    EXPECT_EQ(progress.back(), std::pair(std::size_t{30}, lastTotal));
}

TEST_P(HttpClientNetworkContractTest, ReportsProgressOfAnEmptyBodyOrNot) {
    m_server.On("/file", Reply::Ok(""));
    WatchProgress();
    EXPECT_EQ(Get("/file").errorCode, 0);
    EXPECT_EQ(!progress.empty(), m_expected.reportsProgressOfNothing);
    EXPECT_THAT(progress, Each(std::pair<std::size_t, std::size_t>(0, 0)));
}

// Time

TEST_P(HttpClientNetworkContractTest, EndsWithCode15AtATimeoutInSilence) {
    m_server.On("/file", Reply::Silence());
    options.timeout = kSecond / 5;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(Get("/file").errorCode, 15);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 199ms);
}

TEST_P(HttpClientNetworkContractTest, EndsWithCode15AtATimeoutInMidBody) {
    m_server.On("/file", Reply::Ok("hello").StallAt(3));
    options.timeout = kSecond / 5;
    EXPECT_EQ(Get("/file").errorCode, 15);
}

TEST_P(HttpClientNetworkContractTest, TakesAStallForALostConnectionOrWaitsOn) {
    m_server.On("/file", Reply::Ok("hello").StallAt(3));
    options.lowSpeedLimit = 1024;
    options.lowSpeedTime = 100;
    options.timeout = m_expected.noticesStalls ? 60 * kSecond : kSecond;
    EXPECT_EQ(Get("/file").errorCode, m_expected.noticesStalls ? 8 : 15);
}

// Cancellation

TEST_P(HttpClientNetworkContractTest, LeavesTheServerAloneOnceCancelled) {
    m_server.On("/file", Reply::Generated(std::uint64_t{1} << 40));
    m_server.On("/next", Reply::Ok("next"));
    StreamTheBody();
    WatchProgress();
    cancel = true;
    EXPECT_EQ(Get("/file").errorCode, 15);
    cancel = false;
    EXPECT_EQ(Get("/next").errorCode, 0);
    EXPECT_LE(m_server.RequestCount("/file"), 1u);
}

TEST_P(HttpClientNetworkContractTest, IsCancelledInSilenceOrWaitsOn) {
    m_server.On("/file", Reply::Silence());
    WatchProgress();
    const std::chrono::microseconds limit = m_expected.asksInSilence ? 60s : 1s;
    options.timeout = limit.count();
    std::thread canceller([this] {
        EXPECT_TRUE(m_server.WaitForRequests("/file"));
        cancel = true;
    });
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(Get("/file").errorCode, 15);
    const auto elapsed = std::chrono::steady_clock::now() - begin;
    canceller.join();
    EXPECT_EQ(elapsed < limit / 2, m_expected.asksInSilence);
}

TEST_P(HttpClientNetworkContractTest, AsksForCancellationBeforeItConnectsOrNot) {
    m_server.On("/file", SlowReply());
    WatchProgress();
    cancel = true;
    EXPECT_EQ(Get("/file").errorCode, 15);
    EXPECT_EQ(m_server.ConnectionCount(), m_expected.asksInSilence ? 0 : 1);
}

TEST_P(HttpClientNetworkContractTest, AsksForCancellationWithoutAProgressCallbackOrNot) {
    m_server.On("/file", Reply::Ok("hello"));
    AskForCancellation();
    cancel = true;
    EXPECT_EQ(Get("/file").errorCode, m_expected.asksInSilence ? 15 : 0);
}

// Requests

TEST_P(HttpClientNetworkContractTest, AsksWithGet) {
    Get("/a?b=c");
    const auto sent = m_server.Requests().at(0);
    EXPECT_EQ(sent.method, "GET");
    EXPECT_EQ(sent.target, "/a?b=c");
    EXPECT_EQ(sent.body, "");
}

TEST_P(HttpClientNetworkContractTest, SendsAnAddressAsABrowserDoes) {
    m_server.On("/a%20b/%C3%A4%25zz?c%20d", Reply::Ok("found"));
    EXPECT_EQ(Get("/a b/\xC3\xA4%zz?c d#fragment").body, "found");
}

TEST_P(HttpClientNetworkContractTest, SendsHeadersAndCookiesOrNot) {
    m_client->get({Url(m_server.Url("/file")), {{"X-Mine", "1"}}, {{"mine", "2"}}}, options);
    const auto sent = m_server.Requests().at(0);
    EXPECT_EQ(sent.Header("X-Mine"), m_expected.sendsHeadersAndCookies ? "1" : "");
    EXPECT_EQ(sent.Header("Cookie"), m_expected.sendsHeadersAndCookies ? "mine=2" : "");
}

TEST_P(HttpClientNetworkContractTest, NamesItself) {
    Get("/file");
    EXPECT_EQ(m_server.Requests().at(0).Header("User-Agent"), m_expected.userAgent);
}

TEST_P(HttpClientNetworkContractTest, SendsNoCookieThatAServerHasSet) {
    m_server.On("/file", Reply::Ok("hello").Header("Set-Cookie", "a=b; Path=/"));
    Get("/file");
    Get("/file");
    EXPECT_EQ(m_server.Requests().at(1).Header("Cookie"), "");
}

TEST_P(HttpClientNetworkContractTest, PassesOnCookiesOfARedirectOrNot) {
    m_server.On("/from", Reply::Redirect("/to").Header("Set-Cookie", "a=b; Path=/"));
    m_server.On("/to", Reply::Ok("there"));
    EXPECT_EQ(Get("/from").body, "there");
    EXPECT_EQ(m_server.Requests().back().Header("Cookie"), m_expected.cookieOfARedirect);
}

TEST_P(HttpClientNetworkContractTest, FillsTheResponseOrNot) {
    m_server.On("/file", Reply::Ok("hello")
                             .Header("Content-Type", "text/plain")
                             .Header("Set-Cookie", "a=b; Path=/"));
    const Response response = Get("/file");
    const bool fills = m_expected.fillsTheResponse;
    EXPECT_EQ(response.status, fills ? 200 : 0);
    EXPECT_EQ(response.contentType, fills ? "text/plain" : "");
    EXPECT_EQ(response.effectiveUrl, fills ? m_server.Url("/file") : "");
    EXPECT_EQ(response.cookies.size(), fills ? 1u : 0u);
    EXPECT_EQ(!response.headers.empty(), fills);
}

TEST_P(HttpClientNetworkContractTest, UploadsOrNot) {
    m_server.On("/form", Reply::Ok("thanks"));
    const Request request{Url(m_server.Url("/form")), {}, {}};
    const Response plain = m_client->post(request, std::string("a body"), options);
    const Response form = m_client->post(request, MultiPart{{{"name", "", "", "value"}}}, options);
    EXPECT_EQ(plain.errorCode, m_expected.post);
    EXPECT_EQ(form.errorCode, m_expected.post);
    EXPECT_EQ(m_server.RequestCount("/form"), m_expected.post == 0 ? 2u : 0u);
}

// Connections

TEST_P(HttpClientNetworkContractTest, FailsWhereNobodyListens) {
    const LoopbackPort port;
    const Response response = GetUrl("http://" + port.Address() + "/");
    EXPECT_EQ(response.errorCode, m_expected.noConnection);
    EXPECT_NE(response.errorText, "");
}

TEST_P(HttpClientNetworkContractTest, ResumesALostConnectionOrNot) {
    m_server.On("/file", {Reply::Ok("hello").Header("ETag", "\"1\"").CutAfter(3),
                          Reply::Status(206, "lo").Header("Content-Range", "bytes 3-4/5")});
    options.resume = {true, 3};
    const Response response = Get("/file");
    EXPECT_EQ(response.errorCode, m_expected.resumes ? 0 : m_expected.lostConnection);
    EXPECT_EQ(response.body, m_expected.resumes ? "hello" : "");
}

TEST_P(HttpClientNetworkContractTest, ReusesAConnectionOrNot) {
    m_server.On("/file", Reply::Ok("hello"));
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(Get("/file").errorCode, 0);
    EXPECT_EQ(m_server.ConnectionCount(), m_expected.reusesConnections ? 1 : 5);
}

TEST_P(HttpClientNetworkContractTest, GoesThroughTheProxyOfTheOptionsOrNot) {
    ScriptedHttpServer proxy;
    proxy.On(m_server.Url("/file"), Reply::Ok("through the proxy"));
    m_server.On("/file", Reply::Ok("directly"));
    options.proxy = proxy.Url("");
    EXPECT_EQ(Get("/file").body, m_expected.usesTheOptionsProxy ? "through the proxy" : "directly");
}

/// The application's proxy while it lives.
class ApplicationProxy {
public:
    explicit ApplicationProxy(int port) {
        QNetworkProxy::setApplicationProxy({QNetworkProxy::HttpCachingProxy,
                                            QStringLiteral("127.0.0.1"),
                                            static_cast<quint16>(port)});
    }
    ~ApplicationProxy() { QNetworkProxy::setApplicationProxy(m_before); }

    ApplicationProxy(const ApplicationProxy&) = delete;
    ApplicationProxy& operator=(const ApplicationProxy&) = delete;

private:
    const QNetworkProxy m_before = QNetworkProxy::applicationProxy();
};

TEST_P(HttpClientNetworkContractTest, GoesThroughTheProxyOfTheApplicationOrNot) {
    // Another name of this machine: Qt goes to 127.0.0.1 directly in any case.
    const std::string url = "http://0.0.0.0:" + std::to_string(m_server.Port()) + "/file";
    ScriptedHttpServer proxy;
    proxy.On(url, Reply::Ok("through the proxy"));
    m_server.On("/file", Reply::Ok("directly"));
    const ApplicationProxy used(proxy.Port());
    EXPECT_EQ(GetUrl(url).body,
              m_expected.usesTheApplicationsProxy ? "through the proxy" : "directly");
    EXPECT_EQ(Get("/file").body, "directly");
}

TEST_P(HttpClientNetworkContractTest, RunsTheCallersEventLoopOrNot) {
    m_server.On("/file", Reply::Ok("hello"));
    bool ran = false;
    QObject receiver;
    QMetaObject::invokeMethod(
        &receiver, [&ran] { ran = true; }, ::Qt::QueuedConnection);
    EXPECT_EQ(Get("/file").errorCode, 0);
    EXPECT_EQ(ran, m_expected.runsTheEventLoop);
}

// TLS

class HttpClientTlsContractTest : public HttpClientNetworkContractTest {
protected:
    std::string SecureUrl(const std::string& path) const { return m_secure.SecureUrl(path); }
    void TrustTheServer() {
        const ioPath authority = m_folder.Write("authority.pem", TestAuthority::Certificate());
        m_client = m_expected.makeTrusting(authority.string());
    }

    const Testing::TemporaryFolder m_folder;
    const NginxServer m_secure{m_folder / "",
                               "location = /protocol { return 200 $server_protocol; }\n"
                               "location = /insecure { return 302 " +
                                   m_server.Url("/to") + "; }\n",
                               NginxServer::Https{TestAuthority::ForLoopback()}};
};

INSTANTIATE_TEST_SUITE_P(Clients, HttpClientTlsContractTest, testing::Values(Native(), Qt()),
                         &NameOf<RealClient>);

TEST_P(HttpClientTlsContractTest, TrustsNoUnknownAuthority) {
    StreamTheBody();
    const Response response = GetUrl(SecureUrl("/protocol"));
    EXPECT_EQ(response.errorCode, 4);
    EXPECT_NE(response.errorText, "");
    EXPECT_EQ(data, "");
}

TEST_P(HttpClientTlsContractTest, TrustsNoBadCertificate) {
    TrustTheServer();
    StreamTheBody();
    for (const auto& certificate :
         {TestAuthority::ForAnotherHost(), TestAuthority::Expired(), TestAuthority::SelfSigned()}) {
        const NginxServer bad(m_folder / "", "location / { return 200 hello; }\n",
                              NginxServer::Https{certificate});
        EXPECT_EQ(GetUrl(bad.SecureUrl("/")).errorCode, 4);
    }
    EXPECT_EQ(data, "");
}

TEST_P(HttpClientTlsContractTest, SpeaksItsProtocolOverTls) {
    TrustTheServer();
    const Response response = GetUrl(SecureUrl("/protocol"));
    EXPECT_EQ(response.errorCode, 0) << response.errorText;
    EXPECT_EQ(response.body, m_expected.protocolOverTls);
}

TEST_P(HttpClientTlsContractTest, FollowsARedirectFromHttpToHttps) {
    TrustTheServer();
    m_server.On("/from", Reply::Redirect(SecureUrl("/protocol")));
    const Response response = Get("/from");
    EXPECT_EQ(response.errorCode, 0) << response.errorText;
    EXPECT_EQ(response.body, m_expected.protocolOverTls);
}

TEST_P(HttpClientTlsContractTest, FollowsNoRedirectFromHttpsToHttp) {
    TrustTheServer();
    m_server.On("/to", Reply::Ok("there"));
    StreamTheBody();
    const Response response = GetUrl(SecureUrl("/insecure"));
    EXPECT_EQ(response.errorCode, 4);
    EXPECT_NE(response.errorText, "");
    EXPECT_EQ(data, "");
    EXPECT_EQ(m_server.ConnectionCount(), 0);
}

} // namespace
} // namespace Halvex::Networking
