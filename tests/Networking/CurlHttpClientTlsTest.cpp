#include "Networking/CurlHttpClient.h"

#include "support/NextFunction.h"
#include "support/NginxServer.h"
#include "support/ScriptedHttpServer.h"
#include "support/TemporaryFolder.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <iomanip>
#include <map>
#include <optional>
#include <sstream>
#include <thread>

#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Halvex::Networking {
namespace {

/// Whether the system is to raise SIGPIPE whatever the sender asks for: curl 7.88 asks it not to,
/// where earlier versions leave TLS connections to OpenSSL, which does not.
std::atomic<bool> sendingMayRaiseSigpipe{false};

} // namespace
} // namespace Halvex::Networking

/// Stands in front of the system's function, or the sanitizer's, for the whole program.
extern "C" __attribute__((visibility("default"))) ssize_t send(int socket, const void* data,
                                                               std::size_t size, int flags) {
    static const auto next = Halvex::Testing::NextFunction(&send, "send");
    const int removed = Halvex::Networking::sendingMayRaiseSigpipe ? MSG_NOSIGNAL : 0;
    return next(socket, data, size, flags & ~removed);
}

namespace Halvex::Networking {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using Testing::LoopbackPort;
using Testing::NginxServer;
using Testing::Reply;
using Testing::ScriptedHttpServer;
using Testing::ServerCertificate;
using testing::SizeIs;
using Testing::TemporaryFolder;
using testing::UnorderedElementsAre;

namespace TestAuthority = Testing::TestAuthority;

MATCHER_P(IsResumed, expected, "") {
    return arg.resumedSession == expected;
}

/// A client that trusts the test authority, and a folder to serve.
class CurlHttpClientTlsTest : public testing::Test {
protected:
    CurlHttpClientTlsTest() {
        m_options.connectTimeout = 30;
        m_options.timeout = 3'600'000'000;
        m_options.resume = {true, 3};
        m_options.dataCallback = [this](const std::string& piece) {
            m_data += piece;
        };
    }

    NginxServer Serve(const std::string& directives = {}, bool http2 = true) const {
        return NginxServer(m_folder / "", directives,
                           NginxServer::Https{TestAuthority::ForLoopback(), http2});
    }
    Response Get(const std::string& url) { return Get(url, m_options); }
    Response Get(const std::string& url, const Options& options) {
        Request request;
        request.url = Url(url);
        return m_client.get(request, options);
    }

    const TemporaryFolder m_folder;
    const TemporaryFolder m_trust;
    CurlHttpClient m_client{m_trust.Write("authority.pem", TestAuthority::Certificate()).string()};
    Options m_options;
    std::string m_data;
};

// A server that can be trusted

class CurlHttpClientHttpsTest : public CurlHttpClientTlsTest,
                                public testing::WithParamInterface<bool> {
protected:
    /// An https server that passes on what the scripted one answers.
    NginxServer ServeScripted(const std::string& directives = {}) const {
        return Serve("location / { proxy_buffering off; proxy_pass " + m_scripted.Url("") + "; }" +
                         directives,
                     GetParam());
    }

    ScriptedHttpServer m_scripted;
};

TEST_P(CurlHttpClientHttpsTest, FetchesAWholeFile) {
    const std::string content = Testing::SomeBytes(3'000'000);
    m_folder.Write("file", content);
    const NginxServer server = Serve({}, GetParam());
    const Response response = Get(server.SecureUrl("/file"));
    EXPECT_EQ(response.errorCode, 0) << response.errorText;
    EXPECT_EQ(response.status, 200);
    EXPECT_TRUE(m_data == content);
}

TEST_P(CurlHttpClientHttpsTest, SpeaksTheNewestProtocolThatIsOffered) {
    m_folder.Write("file", "content");
    const NginxServer server = Serve({}, GetParam());
    EXPECT_EQ(Get(server.SecureUrl("/file")).errorCode, 0);
    EXPECT_TRUE(server.WaitForRequests(1));
    EXPECT_EQ(server.Arrivals().at(0).protocol, GetParam() ? "HTTP/2.0" : "HTTP/1.1");
}

TEST_P(CurlHttpClientHttpsTest, ResumesALostConnection) {
    m_scripted.On("/file", {Reply::Ok("0123456789").Header("ETag", "\"1\"").CutAfter(4),
                            Reply::Status(206, "456789").Header("Content-Range", "bytes 4-9/10")});
    const NginxServer server = ServeScripted();
    const Response response = Get(server.SecureUrl("/file"));
    EXPECT_EQ(response.errorCode, 0) << response.errorText;
    EXPECT_EQ(m_data, "0123456789");
    EXPECT_EQ(m_scripted.Requests().at(1).Header("Range"), "bytes=4-");
    EXPECT_EQ(m_scripted.Requests().at(1).Header("If-Range"), "\"1\"");
}

TEST_P(CurlHttpClientHttpsTest, ReportsAShortBodyAsALostConnection) {
    m_scripted.On("/file", Reply::Ok("0123456789").CutAfter(4));
    const NginxServer server = ServeScripted();
    EXPECT_EQ(Get(server.SecureUrl("/file")).errorCode, 8);
    EXPECT_EQ(m_data, "0123");
}

TEST_F(CurlHttpClientTlsTest, DoesNotTakeABodyForWholeWhenTheConnectionWasCut) {
    ScriptedHttpServer scripted;
    scripted.On("/whole", Reply::Ok("whole ").WithoutLength());
    scripted.On("/file", Reply::Ok("content").WithoutLength().StallAt(4));
    std::optional<NginxServer> server;
    server.emplace(m_folder / "",
                   "location / { proxy_buffering off; proxy_pass " + scripted.Url("") +
                       "; } chunked_transfer_encoding off;",
                   NginxServer::Https{TestAuthority::ForLoopback(), false});
    EXPECT_EQ(Get(server->SecureUrl("/whole")).errorCode, 0);
    m_options.progressCallback = [&](std::size_t, std::size_t) {
        server.reset();
    };
    m_options.cancellationQuery = [] {
        return false;
    };
    const Response response = Get(server->SecureUrl("/file"));
    EXPECT_EQ(response.errorCode, 8);
    EXPECT_THAT(response.errorText, HasSubstr("TLS"));
    EXPECT_EQ(m_data, "whole cont");
}

/// The states of connections as the system writes them.
constexpr const char* kEstablished = "01";
constexpr const char* kClosedByServer = "08";

/// Whether the system knows of a connection to the port in this state.
bool HasConnectionTo(int port, const std::string& state) {
    std::ostringstream entry;
    entry << "0100007F:" << std::uppercase << std::hex << std::setw(4) << std::setfill('0') << port
          << ' ' << state << ' ';
    return Testing::ReadFile(ioPath("/proc/self/net/tcp")).find(entry.str()) != std::string::npos;
}

TEST_F(CurlHttpClientTlsTest, DoesNotTakeTheEndOfAnIdleConnectionForThatOfTheNext) {
    ScriptedHttpServer scripted;
    scripted.On("/whole", Reply::Ok("whole "));
    scripted.On("/file", Reply::Ok("content").WithoutLength().StallAt(4));
    std::optional<NginxServer> server;
    server.emplace(m_folder / "",
                   "keepalive_timeout 1s; location / { proxy_buffering off; proxy_pass " +
                       scripted.Url("") + "; } chunked_transfer_encoding off;",
                   NginxServer::Https{TestAuthority::ForLoopback(), false});
    EXPECT_EQ(Get(server->SecureUrl("/whole")).errorCode, 0);
    EXPECT_TRUE(
        Testing::WaitUntil([&] { return HasConnectionTo(server->SecurePort(), kClosedByServer); }));
    m_options.progressCallback = [&](std::size_t, std::size_t) {
        server.reset();
    };
    m_options.cancellationQuery = [] {
        return false;
    };
    EXPECT_EQ(Get(server->SecureUrl("/file")).errorCode, 8);
    EXPECT_EQ(m_data, "whole cont");
}

TEST_F(CurlHttpClientTlsTest, TakesNoUnaskedResponseForTheNextOne) {
    const std::string first = "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\none ";
    const std::string unasked = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nwrong";
    Testing::Event release;
    ScriptedHttpServer server(TestAuthority::ForLoopback());
    server.On("/one", Reply::Raw(first + unasked).StallAt(first.size(), release));
    server.On("/two", Reply::Ok("two"));
    EXPECT_EQ(Get(server.Url("/one")).errorCode, 0);
    release.Set();
    EXPECT_TRUE(
        Testing::WaitUntil([&] { return HasConnectionTo(server.Port(), kClosedByServer); }));
    EXPECT_EQ(Get(server.Url("/two")).errorCode, 0);
    EXPECT_EQ(m_data, "one two");
}

TEST_P(CurlHttpClientHttpsTest, TakesABodyThatEndsWithTheConnection) {
    m_scripted.On("/file", Reply::Ok("content").WithoutLength());
    const NginxServer server = ServeScripted("chunked_transfer_encoding off;");
    const Response response = Get(server.SecureUrl("/file"));
    EXPECT_EQ(response.errorCode, 0) << response.errorText;
    EXPECT_EQ(m_data, "content");
}

// The second request is made while the first one has the only connection.
TEST_P(CurlHttpClientHttpsTest, ResumesTheSessionOfAnotherConnection) {
    m_folder.Write("file", "content");
    const NginxServer server = Serve({}, GetParam());
    Options within = m_options;
    m_options.dataCallback = [&](const std::string&) {
        EXPECT_EQ(Get(server.SecureUrl("/file"), within).errorCode, 0);
    };
    EXPECT_EQ(Get(server.SecureUrl("/file")).errorCode, 0);
    EXPECT_TRUE(server.WaitForRequests(2));
    EXPECT_THAT(server.Arrivals(), UnorderedElementsAre(IsResumed(false), IsResumed(true)));
}

INSTANTIATE_TEST_SUITE_P(Http2OrNot, CurlHttpClientHttpsTest, testing::Bool());

TEST_F(CurlHttpClientTlsTest, TrustsAServerByItsName) {
    m_folder.Write("file", "content");
    const NginxServer server = Serve();
    const std::string port = std::to_string(server.SecurePort());
    EXPECT_EQ(Get("https://localhost:" + port + "/file").errorCode, 0);
    EXPECT_EQ(m_data, "content");
}

TEST_F(CurlHttpClientTlsTest, FollowsARedirectFromHttpToHttps) {
    m_folder.Write("file", "content");
    const NginxServer server = Serve();
    ScriptedHttpServer plain;
    plain.On("/from", Reply::Redirect(server.SecureUrl("/file")));
    const Response response = Get(plain.Url("/from"));
    EXPECT_EQ(response.errorCode, 0) << response.errorText;
    EXPECT_EQ(response.effectiveUrl, server.SecureUrl("/file"));
    EXPECT_EQ(m_data, "content");
}

TEST_F(CurlHttpClientTlsTest, FollowsNoRedirectFromHttpsToHttp) {
    ScriptedHttpServer plain;
    plain.On("/to", Reply::Ok("content"));
    const NginxServer server = Serve("location = /from { return 302 " + plain.Url("/to") + "; }");
    const Response response = Get(server.SecureUrl("/from"));
    EXPECT_EQ(response.errorCode, 4);
    EXPECT_THAT(response.errorText, HasSubstr("redirected from https to http://127.0.0.1"));
    EXPECT_EQ(m_data, "");
    EXPECT_THAT(plain.Requests(), IsEmpty());
}

// A server that cannot be trusted

struct BadCertificate {
    const char* name;
    ServerCertificate (*certificate)();
    const char* reason;
};

class CurlHttpClientBadCertificateTest : public CurlHttpClientTlsTest,
                                         public testing::WithParamInterface<BadCertificate> {};

TEST_P(CurlHttpClientBadCertificateTest, IsRefusedWithItsReasonBeforeAnyByte) {
    m_folder.Write("file", "content");
    const NginxServer server(m_folder / "", {}, NginxServer::Https{GetParam().certificate()});
    const Response response = Get(server.SecureUrl("/file"));
    EXPECT_EQ(response.errorCode, 4);
    EXPECT_THAT(response.errorText, HasSubstr(GetParam().reason));
    EXPECT_THAT(response.errorText, HasSubstr("127.0.0.1:" + std::to_string(server.SecurePort())));
    EXPECT_EQ(m_data, "");
    EXPECT_EQ(response.body, "");
}

INSTANTIATE_TEST_SUITE_P(
    Certificates, CurlHttpClientBadCertificateTest,
    testing::Values(
        BadCertificate{"SelfSigned", &TestAuthority::SelfSigned, "self-signed certificate"},
        BadCertificate{"Expired", &TestAuthority::Expired, "certificate has expired"},
        BadCertificate{
            "ForAnotherHost", &TestAuthority::ForAnotherHost,
            "no alternative certificate subject name matches target host name '127.0.0.1'"}),
    [](const auto& row) { return row.param.name; });

TEST_F(CurlHttpClientTlsTest, TrustsNobodyOfAnUnknownAuthority) {
    m_folder.Write("file", "content");
    const NginxServer server = Serve();
    Request request;
    request.url = Url(server.SecureUrl("/file"));
    const Response response = CurlHttpClient().get(request, m_options);
    EXPECT_EQ(response.errorCode, 4);
    EXPECT_THAT(response.errorText, HasSubstr("certificate"));
    EXPECT_THAT(response.errorText, HasSubstr("issuer"));
    EXPECT_EQ(m_data, "");
}

// Authorities that cannot be had

/// What a file that should hold certificate authorities holds instead; null: there is no such file.
struct BadAuthorityFile {
    const char* name;
    const char* content;
};

class CurlHttpClientBadAuthorityFileTest : public CurlHttpClientTlsTest,
                                           public testing::WithParamInterface<BadAuthorityFile> {};

TEST_P(CurlHttpClientBadAuthorityFileTest, IsToldAndNothingIsFetched) {
    m_folder.Write("file", "content");
    const NginxServer server = Serve();
    const ioPath path = m_trust / "bad.pem";
    if (GetParam().content != nullptr)
        m_trust.Write("bad.pem", GetParam().content);
    Request request;
    request.url = Url(server.SecureUrl("/file"));
    const Response response = CurlHttpClient(path.string()).get(request, m_options);
    EXPECT_EQ(response.errorCode, 4);
    EXPECT_THAT(response.errorText, HasSubstr("127.0.0.1:" + std::to_string(server.SecurePort())));
    EXPECT_THAT(response.errorText,
                EndsWith("no certificate authority can be read from " + path.string()));
    EXPECT_EQ(m_data, "");
    EXPECT_EQ(response.body, "");
    EXPECT_THAT(server.AccessLog(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Files, CurlHttpClientBadAuthorityFileTest,
                         testing::Values(BadAuthorityFile{"Missing", nullptr},
                                         BadAuthorityFile{"Empty", ""},
                                         BadAuthorityFile{"Garbage", "no certificate at all"},
                                         BadAuthorityFile{"BrokenCertificate",
                                                          "-----BEGIN CERTIFICATE-----\n!!!\n"
                                                          "-----END CERTIFICATE-----\n"}),
                         [](const auto& row) { return row.param.name; });

// A server that does not speak TLS, or stops to

/// Counts how often a file is opened, if one opening is closed before the next.
class OpeningsOf {
public:
    explicit OpeningsOf(const ioPath& file) {
        EXPECT_GE(::inotify_add_watch(m_events, file.string().c_str(), IN_OPEN | IN_CLOSE), 0);
    }
    ~OpeningsOf() { ::close(m_events); }

    OpeningsOf(const OpeningsOf&) = delete;
    OpeningsOf& operator=(const OpeningsOf&) = delete;

    int Count() {
        inotify_event event{};
        while (::read(m_events, &event, sizeof(event)) == sizeof(event))
            m_count += (event.mask & IN_OPEN) != 0 ? 1 : 0;
        return m_count;
    }

private:
    const int m_events = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    int m_count = 0;
};

TEST_F(CurlHttpClientTlsTest, ReadsItsAuthoritiesOnceForAllConnections) {
    constexpr int kAtOnce = 4;
    m_folder.Write("file", "content");
    const NginxServer server = Serve();
    OpeningsOf openings(m_trust / "authority.pem");
    // Each within the one before, so that each has a connection of its own.
    int requests = 0;
    m_options.progressCallback = [&](std::size_t, std::size_t) {
        if (++requests < kAtOnce) {
            EXPECT_EQ(Get(server.SecureUrl("/file")).errorCode, 0);
        }
    };
    EXPECT_EQ(Get(server.SecureUrl("/file")).errorCode, 0);
    EXPECT_GE(requests, kAtOnce);
    EXPECT_TRUE(server.WaitForRequests(kAtOnce));
    EXPECT_EQ(openings.Count(), 1);
}

TEST_F(CurlHttpClientTlsTest, FailsWhenItSpeaksPlainlyWithATlsServer) {
    const NginxServer server = Serve();
    const std::string port = std::to_string(server.SecurePort());
    const Response response = Get("http://127.0.0.1:" + port + "/file");
    EXPECT_EQ(response.errorCode, 4);
    EXPECT_THAT(response.errorText, HasSubstr("HTTP status 400"));
    EXPECT_EQ(m_data, "");
}

TEST_F(CurlHttpClientTlsTest, FailsWhenAPlainServerIsToSpeakTls) {
    const NginxServer server = Serve();
    const std::string port = std::to_string(server.Port());
    const Response response = Get("https://127.0.0.1:" + port + "/file");
    EXPECT_EQ(response.errorCode, 4);
    EXPECT_THAT(response.errorText, HasSubstr("SSL"));
    EXPECT_EQ(m_data, "");
}

// Signals

const std::string kLargeBody(10'000'000, 'x');

/// In a process that a SIGPIPE ends.
void UploadToAServerThatHangsUpAtOnce() {
    ::signal(SIGPIPE, SIG_DFL);
    const LoopbackPort port;
    port.Listen();
    std::thread server([&port] { ::close(port.Accept()); });
    Request request;
    request.url = Url("http://" + port.Address() + "/form");
    Options options;
    options.timeout = 3'600'000'000;
    EXPECT_EQ(CurlHttpClient().post(request, kLargeBody, options).errorCode, 8);
    server.join();
}

/// A client that keeps a connection over TLS which the server has reset, in a process that a
/// SIGPIPE ends.
class ClientOfAServerThatHangsUp {
public:
    ClientOfAServerThatHangsUp() {
        ::signal(SIGPIPE, SIG_DFL);
        sendingMayRaiseSigpipe = true;
        m_options.timeout = 3'600'000'000;
        m_server.On("/reset", Reply::Ok("content").ResetAfter(7));
        m_server.On("/form", Reply::Ok(""));
        EXPECT_EQ(m_client.get(RequestOf("/reset"), m_options).errorCode, 0);
        EXPECT_TRUE(
            Testing::WaitUntil([this] { return !HasConnectionTo(m_server.Port(), kEstablished); }));
    }

    void Upload() {
        EXPECT_EQ(m_client.post(RequestOf("/form"), kLargeBody, m_options).errorCode, 0);
        EXPECT_EQ(m_server.ConnectionCount(), 2);
    }

private:
    Request RequestOf(const std::string& path) const {
        Request request;
        request.url = Url(m_server.Url(path));
        return request;
    }

    ScriptedHttpServer m_server{TestAuthority::ForLoopback()};
    const TemporaryFolder m_trust;
    CurlHttpClient m_client{m_trust.Write("authority.pem", TestAuthority::Certificate()).string()};
    Options m_options;
};

[[noreturn]] void EndProcess() {
    std::_Exit(testing::Test::HasFailure() ? 1 : 0);
}

class CurlHttpClientDeathTest : public testing::Test {
protected:
    CurlHttpClientDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(CurlHttpClientDeathTest, SurvivesAnUploadToAServerThatHangsUpAtOnce) {
    EXPECT_EXIT(
        {
            UploadToAServerThatHangsUpAtOnce();
            EndProcess();
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(CurlHttpClientDeathTest, SurvivesAnUploadAfterTheServerHasHungUp) {
    EXPECT_EXIT(
        {
            ClientOfAServerThatHangsUp().Upload();
            EndProcess();
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(CurlHttpClientDeathTest, SurvivesTheEndOfAClientAfterTheServerHasHungUp) {
    EXPECT_EXIT(
        {
            ClientOfAServerThatHangsUp{};
            EndProcess();
        },
        testing::ExitedWithCode(0), "");
}

/// The parameter: whether the connection is reset, which it is when it ends with bytes unread;
/// otherwise it ends in an orderly way.
class CurlHttpClientCutHandshakeTest : public CurlHttpClientTlsTest,
                                       public testing::WithParamInterface<bool> {};

TEST_P(CurlHttpClientCutHandshakeTest, IsNoConnection) {
    const LoopbackPort port;
    port.Listen();
    std::thread server([&port] {
        const int connection = port.Accept();
        char hello[16 * 1024];
        EXPECT_GT(::recv(connection, hello, sizeof(hello), GetParam() ? MSG_PEEK : 0), 0);
        ::close(connection);
    });
    const Response response = Get("https://" + port.Address() + "/file");
    server.join();
    EXPECT_EQ(response.errorCode, 3) << response.errorText;
    EXPECT_THAT(response.errorText, HasSubstr(port.Address()));
    EXPECT_EQ(m_data, "");
}

INSTANTIATE_TEST_SUITE_P(ResetOrNot, CurlHttpClientCutHandshakeTest, testing::Bool());

TEST_F(CurlHttpClientTlsTest, CannotConnectWhenTheHandshakeIsNotAnsweredInTime) {
    const LoopbackPort port;
    port.Listen();
    m_options.connectTimeout = 1;
    const Response response = Get("https://" + port.Address() + "/file");
    EXPECT_EQ(response.errorCode, 3) << response.errorText;
}

// Many files

/// A file that is fetched many times by eight threads at once, as by the workers of a queue.
class CurlHttpClientManyOverTlsTest : public CurlHttpClientTlsTest {
protected:
    static constexpr std::size_t kThreads = 8;

    CurlHttpClientManyOverTlsTest() {
        m_folder.Write("file", m_content);
        m_options.dataCallback = nullptr;
    }

    void Fetch(const NginxServer& server, std::size_t count) {
        std::atomic<std::size_t> next{0};
        std::vector<std::thread> threads;
        for (std::size_t i = 0; i < kThreads; ++i) {
            threads.emplace_back([&] {
                while (next++ < count) {
                    const Response response = Get(server.SecureUrl("/file"));
                    EXPECT_EQ(response.errorCode, 0) << response.errorText;
                    EXPECT_TRUE(response.body == m_content);
                }
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        m_fetched += count;
        EXPECT_TRUE(server.WaitForRequests(m_fetched));
    }

    /// The numbers of the connections that the server has had, and how many requests each brought.
    static std::map<std::string, std::size_t> Connections(const NginxServer& server) {
        std::map<std::string, std::size_t> requests;
        for (const NginxServer::Arrival& arrival : server.Arrivals())
            ++requests[arrival.connection];
        return requests;
    }

    /// Of requests by a connection of their own.
    static std::size_t FullHandshakes(const NginxServer& server) {
        const auto arrivals = server.Arrivals();
        return static_cast<std::size_t>(
            std::count_if(arrivals.begin(), arrivals.end(),
                          [](const auto& arrival) { return !arrival.resumedSession; }));
    }

    const std::string m_content = Testing::SomeBytes(16 * 1024);
    std::size_t m_fetched = 0;
};

/// The parameter: whether HTTP/2 is offered.
class CurlHttpClientManyOverHttp2OrNotTest : public CurlHttpClientManyOverTlsTest,
                                             public testing::WithParamInterface<bool> {};

TEST_P(CurlHttpClientManyOverHttp2OrNotTest, OpensOneConnectionForEachThreadAndEachThatWasEnded) {
    constexpr std::size_t kMostRequests = 150;
    const NginxServer server =
        Serve("keepalive_requests " + std::to_string(kMostRequests) + ";", GetParam());
    Fetch(server, 2000);
    const auto connections = Connections(server);
    const auto ended =
        std::count_if(connections.begin(), connections.end(),
                      [](const auto& connection) { return connection.second == kMostRequests; });
    EXPECT_LE(connections.size(), kThreads + static_cast<std::size_t>(ended));
}

TEST_P(CurlHttpClientManyOverHttp2OrNotTest, ReusesTheConnectionsThatEarlierThreadsHaveLeft) {
    const NginxServer server = Serve({}, GetParam());
    Fetch(server, 200);
    Fetch(server, 200);
    EXPECT_LE(Connections(server).size(), kThreads);
}

INSTANTIATE_TEST_SUITE_P(Http2OrNot, CurlHttpClientManyOverHttp2OrNotTest, testing::Bool());

// By HTTP/1.1 only: curl 7.88 ends a connection of HTTP/2 without telling OpenSSL, which then takes
// its session for a bad one.
TEST_F(CurlHttpClientManyOverTlsTest, ResumesSessionsWhereConnectionsDoNotLast) {
    constexpr std::size_t kRequests = 200;
    const NginxServer server = Serve("keepalive_timeout 0;", false);
    Fetch(server, kRequests);
    Fetch(server, kRequests);
    EXPECT_THAT(Connections(server), SizeIs(2 * kRequests));
    // Every thread may begin before there is a session, and now and then one is not accepted.
    EXPECT_LE(FullHandshakes(server), kRequests / 2);
}

TEST_F(CurlHttpClientManyOverTlsTest, KeepsASessionLongerThanItsConnection) {
    const NginxServer server = Serve("keepalive_timeout 0;", false);
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(Get(server.SecureUrl("/file")).errorCode, 0);
    EXPECT_TRUE(server.WaitForRequests(10));
    EXPECT_THAT(Connections(server), SizeIs(10));
    EXPECT_EQ(FullHandshakes(server), 1u);
}

} // namespace
} // namespace Halvex::Networking
