#include "Networking/CurlHttpClient.h"

#include "Networking/CurlHandlePool.h"
#include "ResourceKit/Testing/ServerTls.h"
#include "support/NginxServer.h"
#include "support/ProxyServers.h"
#include "support/ScriptedHttpServer.h"
#include "support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <array>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Halvex::Networking {
namespace {

using Kit::Testing::ServerTls;
using testing::Combine;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using Testing::HttpProxyServer;
using testing::IsEmpty;
using Testing::LoopbackPort;
using Testing::NginxServer;
using testing::Not;
using Testing::Reply;
using Testing::ScriptedHttpServer;
using testing::SizeIs;
using Testing::SocksProxyServer;
using testing::StrCaseEq;
using Testing::TemporaryFolder;
using testing::Values;

namespace TestAuthority = Testing::TestAuthority;

/// A server with one file, for http and https, and a client that trusts it.
class CurlHttpClientProxyTest : public testing::Test {
protected:
    CurlHttpClientProxyTest() {
        m_folder.Write("file", m_content);
        m_options.timeout = 3'600'000'000;
        m_options.resume = {true, 3};
        m_options.dataCallback = [this](const std::string& piece) {
            m_data += piece;
        };
    }

    Response Get(const std::string& url) {
        Request request;
        request.url = Url(url);
        return m_client.get(request, m_options);
    }
    /// The file's address, the host given by name.
    std::string NamedUrl(const std::string& scheme) const {
        return scheme + "://localhost:" +
               std::to_string(scheme == "https" ? m_server.SecurePort() : m_server.Port()) +
               "/file";
    }

    const std::string m_content = Testing::SomeBytes(100'000);
    const TemporaryFolder m_folder;
    const TemporaryFolder m_trust;
    const NginxServer m_server{m_folder / "", "location = /from { return 302 /file; }",
                               NginxServer::Https{TestAuthority::ForLoopback()}};
    CurlHttpClient m_client{m_trust.Write("authority.pem", TestAuthority::Certificate()).string()};
    Options m_options;
    std::string m_data;
};

// An HTTP proxy

TEST_F(CurlHttpClientProxyTest, FetchesHttpThroughAnHttpProxy) {
    const HttpProxyServer proxy;
    m_options.proxy = proxy.Url();
    const Response response = Get(m_server.Url("/file"));
    EXPECT_EQ(response.errorCode, 0) << response.errorText;
    EXPECT_TRUE(m_data == m_content);
    EXPECT_THAT(proxy.Requests(), ElementsAre("GET " + m_server.Url("/file") + " HTTP/1.1"));
}

TEST_F(CurlHttpClientProxyTest, FetchesHttpsThroughAnHttpProxy) {
    const HttpProxyServer proxy;
    m_options.proxy = proxy.Url();
    const Response response = Get(m_server.SecureUrl("/file"));
    EXPECT_EQ(response.errorCode, 0) << response.errorText;
    EXPECT_TRUE(m_data == m_content);
    EXPECT_THAT(proxy.Requests(), ElementsAre("CONNECT 127.0.0.1:" +
                                              std::to_string(m_server.SecurePort()) + " HTTP/1.1"));
}

TEST_F(CurlHttpClientProxyTest, HidesTheHeadersOfTheTunnel) {
    const HttpProxyServer proxy;
    m_options.proxy = proxy.Url();
    const Response response = Get(m_server.SecureUrl("/file"));
    EXPECT_EQ(response.status, 200);
    for (const auto& [name, value] : response.headers)
        EXPECT_NE(name, "Proxy-agent") << value;
}

TEST_F(CurlHttpClientProxyTest, ReusesTheTunnel) {
    const HttpProxyServer proxy;
    m_options.proxy = proxy.Url();
    EXPECT_EQ(Get(m_server.SecureUrl("/file")).errorCode, 0);
    EXPECT_EQ(Get(m_server.SecureUrl("/file")).errorCode, 0);
    EXPECT_THAT(proxy.Requests(), SizeIs(1));
}

TEST_F(CurlHttpClientProxyTest, FollowsRedirectsThroughTheProxy) {
    const HttpProxyServer proxy;
    m_options.proxy = proxy.Url();
    EXPECT_EQ(Get(m_server.Url("/from")).errorCode, 0);
    EXPECT_TRUE(m_data == m_content);
    EXPECT_THAT(proxy.Requests(), ElementsAre("GET " + m_server.Url("/from") + " HTTP/1.1",
                                              "GET " + m_server.Url("/file") + " HTTP/1.1"));
}

TEST_F(CurlHttpClientProxyTest, ResumesThroughTheProxy) {
    ScriptedHttpServer server;
    server.On("/file", {Reply::Ok("0123456789").Header("ETag", "\"1\"").CutAfter(4),
                        Reply::Status(206, "456789").Header("Content-Range", "bytes 4-9/10")});
    const HttpProxyServer proxy;
    m_options.proxy = proxy.Url();
    const Response response = Get(server.Url("/file"));
    EXPECT_EQ(response.errorCode, 0) << response.errorText;
    EXPECT_EQ(m_data, "0123456789");
    EXPECT_THAT(proxy.Requests(), SizeIs(2));
}

TEST_F(CurlHttpClientProxyTest, FailsWhenTheProxyRefusesToForward) {
    const HttpProxyServer proxy("Deny 127.0.0.1");
    m_options.proxy = proxy.Url();
    const Response response = Get(m_server.Url("/file"));
    EXPECT_EQ(response.errorCode, 4);
    EXPECT_THAT(response.errorText, HasSubstr("403"));
    EXPECT_EQ(m_data, "");
}

TEST_F(CurlHttpClientProxyTest, FailsWhenTheProxyRefusesATunnel) {
    const HttpProxyServer proxy("ConnectPort 1");
    m_options.proxy = proxy.Url();
    const Response response = Get(m_server.SecureUrl("/file"));
    EXPECT_EQ(response.errorCode, 4);
    EXPECT_THAT(response.errorText, HasSubstr("403"));
    EXPECT_EQ(m_data, "");
}

TEST_F(CurlHttpClientProxyTest, FailsWhenTheProxyAsksForAName) {
    const HttpProxyServer proxy("BasicAuth somebody secret");
    m_options.proxy = proxy.Url();
    for (const std::string& url : {m_server.Url("/file"), m_server.SecureUrl("/file")}) {
        SCOPED_TRACE(url);
        const Response response = Get(url);
        EXPECT_EQ(response.errorCode, 4);
        EXPECT_THAT(response.errorText, HasSubstr("407"));
        EXPECT_EQ(m_data, "");
    }
}

TEST_F(CurlHttpClientProxyTest, FailsWhenTheProxyCannotReachTheServer) {
    const LoopbackPort nobody;
    const HttpProxyServer proxy;
    m_options.proxy = proxy.Url();
    const Response response = Get("http://" + nobody.Address() + "/file");
    EXPECT_EQ(response.errorCode, 4);
    EXPECT_THAT(response.errorText, HasSubstr("HTTP status 500"));
    EXPECT_EQ(m_data, "");
}

TEST_F(CurlHttpClientProxyTest, FailsWhenTheProxyCannotMakeATunnelToTheServer) {
    const LoopbackPort nobody;
    const HttpProxyServer proxy;
    m_options.proxy = proxy.Url();
    const Response response = Get("https://" + nobody.Address() + "/file");
    EXPECT_EQ(response.errorCode, 4);
    EXPECT_THAT(response.errorText, HasSubstr("500"));
}

TEST_F(CurlHttpClientProxyTest, CannotConnectWhenTheProxyDoesNotAnswerInTime) {
    ScriptedHttpServer proxy;
    proxy.On("127.0.0.1:" + std::to_string(m_server.SecurePort()), Reply::Silence());
    m_options.proxy = proxy.Url("");
    m_options.connectTimeout = 1;
    EXPECT_EQ(Get(m_server.SecureUrl("/file")).errorCode, 3);
}

/// The fields of all requests that a server has received, by name.
std::vector<std::string> FieldNames(const ScriptedHttpServer& server) {
    std::vector<std::string> names;
    for (const ScriptedHttpServer::Request& request : server.Requests()) {
        for (const auto& [name, value] : request.headers)
            names.push_back(name);
    }
    return names;
}

// As the system's settings give it.
TEST_F(CurlHttpClientProxyTest, TakesAnAddressOfIpv6WithoutBrackets) {
    const LoopbackPort nobody;
    m_options.proxy = "http://::1:" + std::to_string(nobody.Number());
    const Response response = Get(m_server.Url("/file"));
    EXPECT_EQ(response.errorCode, 3);
    EXPECT_THAT(response.errorText, HasSubstr("connect to ::1 port"));
}

TEST_F(CurlHttpClientProxyTest, TellsTheProxysPasswordToNoServer) {
    const HttpProxyServer proxy("BasicAuth user secret");
    m_options.proxy = proxy.Url("user:secret");
    ScriptedHttpServer plain;
    ScriptedHttpServer secure(TestAuthority::ForLoopback());
    ScriptedHttpServer other(TestAuthority::ForLoopback());
    plain.On("/file", Reply::Redirect(secure.Url("/file")));
    secure.On("/file", Reply::Redirect(other.Url("/file")));
    other.On("/file", Reply::Ok("content"));
    const Response response = Get(plain.Url("/file"));
    EXPECT_EQ(response.errorCode, 0) << response.errorText;
    EXPECT_EQ(m_data, "content");
    EXPECT_THAT(proxy.Requests(), SizeIs(3));
    for (const ScriptedHttpServer* server : {&plain, &secure, &other}) {
        EXPECT_THAT(FieldNames(*server), Contains("Host"));
        EXPECT_THAT(FieldNames(*server), Not(Contains(StrCaseEq("Proxy-Authorization"))));
    }
}

// An HTTP proxy that is spoken to over TLS

int ConnectTo(int port) {
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    EXPECT_EQ(::connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    return socket;
}

/// Makes one tunnel to a server on the loopback interface, whatever it is asked for, and says
/// goodbye to the client when the server ends it, however it does.
class PoliteTlsProxy {
public:
    explicit PoliteTlsProxy(int serverPort) {
        m_port.Listen();
        m_thread = std::thread([this, serverPort] { Serve(serverPort); });
    }
    ~PoliteTlsProxy() { m_thread.join(); }

    PoliteTlsProxy(const PoliteTlsProxy&) = delete;
    PoliteTlsProxy& operator=(const PoliteTlsProxy&) = delete;

    std::string Url() const { return "https://" + m_port.Address(); }

private:
    void Serve(int serverPort) const {
        const SigpipeBlock block;
        const int client = m_port.Accept();
        const int server = ConnectTo(serverPort);
        {
            ServerTls tls(client, TestAuthority::ForLoopback());
            EXPECT_THAT(tls.Receive().value_or(""), HasSubstr("CONNECT "));
            EXPECT_TRUE(tls.Send("HTTP/1.1 200 OK\r\n\r\n"));
            while (PassOn(tls, client, server)) {
            }
        }
        ::close(server);
        ::close(client);
    }
    /// False: one of the two has ended.
    static bool PassOn(ServerTls& tls, int client, int server) {
        std::array<pollfd, 2> polls{{{client, POLLIN, 0}, {server, POLLIN, 0}}};
        EXPECT_GT(::poll(polls.data(), polls.size(), -1), 0);
        if (polls[0].revents != 0) {
            const std::optional<std::string> bytes = tls.Receive();
            return bytes && ::send(server, bytes->data(), bytes->size(), MSG_NOSIGNAL) > 0;
        }
        std::array<char, 4096> buffer{};
        const ssize_t size = ::recv(server, buffer.data(), buffer.size(), 0);
        if (size > 0)
            return tls.Send({buffer.data(), static_cast<std::size_t>(size)});
        tls.SayGoodbye();
        return false;
    }

    const LoopbackPort m_port;
    std::thread m_thread;
};

class CurlHttpClientTlsProxyTest : public CurlHttpClientProxyTest {
protected:
    ScriptedHttpServer m_scripted{TestAuthority::ForLoopback()};
    const PoliteTlsProxy m_proxy{m_scripted.Port()};
};

TEST_F(CurlHttpClientTlsProxyTest, TakesABodyForWholeThatTheServerEnds) {
    m_scripted.On("/file", Reply::Ok("content").WithoutLength());
    m_options.proxy = m_proxy.Url();
    const Response response = Get(m_scripted.Url("/file"));
    EXPECT_EQ(response.errorCode, 0) << response.errorText;
    EXPECT_EQ(m_data, "content");
}

TEST_F(CurlHttpClientTlsProxyTest, DoesNotTakeTheProxysGoodbyeForTheServers) {
    m_scripted.On("/file", Reply::Ok("content").WithoutLength().CutAfter(4).WithoutGoodbye());
    m_options.proxy = m_proxy.Url();
    const Response response = Get(m_scripted.Url("/file"));
    EXPECT_EQ(response.errorCode, 8);
    EXPECT_THAT(response.errorText, HasSubstr("TLS"));
    EXPECT_EQ(m_data, "cont");
}

// A SOCKS5 proxy

TEST_F(CurlHttpClientProxyTest, FetchesHttpThroughASocksProxy) {
    const SocksProxyServer proxy;
    m_options.proxy = proxy.Url();
    const Response response = Get(m_server.Url("/file"));
    EXPECT_EQ(response.errorCode, 0) << response.errorText;
    EXPECT_TRUE(m_data == m_content);
    EXPECT_THAT(proxy.Targets(), ElementsAre("127.0.0.1:" + std::to_string(m_server.Port())));
}

TEST_F(CurlHttpClientProxyTest, FetchesHttpsThroughASocksProxy) {
    const SocksProxyServer proxy;
    m_options.proxy = proxy.Url();
    const Response response = Get(m_server.SecureUrl("/file"));
    EXPECT_EQ(response.errorCode, 0) << response.errorText;
    EXPECT_TRUE(m_data == m_content);
    EXPECT_THAT(proxy.Targets(), ElementsAre("127.0.0.1:" + std::to_string(m_server.SecurePort())));
}

TEST_F(CurlHttpClientProxyTest, LetsTheSocksProxyResolveTheNameForHttp) {
    const SocksProxyServer proxy;
    m_options.proxy = proxy.Url();
    EXPECT_EQ(Get(NamedUrl("http")).errorCode, 0);
    EXPECT_THAT(proxy.Targets(), ElementsAre("localhost:" + std::to_string(m_server.Port())));
}

TEST_F(CurlHttpClientProxyTest, LetsTheSocksProxyResolveTheNameForHttps) {
    const SocksProxyServer proxy;
    m_options.proxy = proxy.Url();
    EXPECT_EQ(Get(NamedUrl("https")).errorCode, 0);
    EXPECT_THAT(proxy.Targets(), ElementsAre("localhost:" + std::to_string(m_server.SecurePort())));
}

TEST_F(CurlHttpClientProxyTest, ReusesTheConnectionThroughTheSocksProxy) {
    const SocksProxyServer proxy;
    m_options.proxy = proxy.Url();
    EXPECT_EQ(Get(m_server.SecureUrl("/file")).errorCode, 0);
    EXPECT_EQ(Get(m_server.SecureUrl("/file")).errorCode, 0);
    EXPECT_THAT(proxy.Targets(), SizeIs(1));
}

TEST_F(CurlHttpClientProxyTest, CannotConnectWhenTheSocksProxyCannot) {
    const LoopbackPort nobody;
    const SocksProxyServer proxy;
    m_options.proxy = proxy.Url();
    const Response response = Get("http://" + nobody.Address() + "/file");
    EXPECT_EQ(response.errorCode, 3);
    EXPECT_THAT(response.errorText, HasSubstr(nobody.Address()));
    EXPECT_THAT(response.errorText, HasSubstr("SOCKS5"));
}

// No proxy where one should be

/// The proxy's scheme and the server's.
class CurlHttpClientDeadProxyTest
    : public CurlHttpClientProxyTest,
      public testing::WithParamInterface<std::tuple<const char*, const char*>> {};

TEST_P(CurlHttpClientDeadProxyTest, CannotBeConnectedTo) {
    const LoopbackPort nobody;
    const auto& [proxyScheme, scheme] = GetParam();
    m_options.proxy = std::string(proxyScheme) + "://" + nobody.Address();
    const Response response = Get(NamedUrl(scheme));
    EXPECT_EQ(response.errorCode, 3);
    EXPECT_THAT(response.errorText, HasSubstr("127.0.0.1 port " + std::to_string(nobody.Number())));
    EXPECT_THAT(m_server.AccessLog(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Proxies, CurlHttpClientDeadProxyTest,
                         Combine(Values("http", "socks5"), Values("http", "https")));

// The environment

/// A variable of the environment while it lives.
class EnvironmentVariable {
public:
    EnvironmentVariable(const char* name, const std::string& value) : m_name(name) {
        ::setenv(name, value.c_str(), 1);
    }
    ~EnvironmentVariable() { ::unsetenv(m_name); }

    EnvironmentVariable(const EnvironmentVariable&) = delete;
    EnvironmentVariable& operator=(const EnvironmentVariable&) = delete;

private:
    const char* const m_name;
};

/// The name of a variable that names a proxy.
class CurlHttpClientProxyVariableTest : public CurlHttpClientProxyTest,
                                        public testing::WithParamInterface<const char*> {
protected:
    const LoopbackPort m_nobody;
    const EnvironmentVariable m_variable{GetParam(), "http://" + m_nobody.Address()};
};

TEST_P(CurlHttpClientProxyVariableTest, GivesNoProxyToAClientWithoutOne) {
    EXPECT_EQ(Get(m_server.Url("/file")).errorCode, 0);
    EXPECT_EQ(Get(m_server.SecureUrl("/file")).errorCode, 0);
}

TEST_P(CurlHttpClientProxyVariableTest, DoesNotReplaceAnHttpProxy) {
    const HttpProxyServer proxy;
    m_options.proxy = proxy.Url();
    EXPECT_EQ(Get(m_server.Url("/file")).errorCode, 0);
    EXPECT_EQ(Get(m_server.SecureUrl("/file")).errorCode, 0);
    EXPECT_THAT(proxy.Requests(), SizeIs(2));
}

TEST_P(CurlHttpClientProxyVariableTest, DoesNotReplaceASocksProxy) {
    const SocksProxyServer proxy;
    m_options.proxy = proxy.Url();
    EXPECT_EQ(Get(m_server.Url("/file")).errorCode, 0);
    EXPECT_EQ(Get(m_server.SecureUrl("/file")).errorCode, 0);
    EXPECT_THAT(proxy.Targets(), SizeIs(2));
}

INSTANTIATE_TEST_SUITE_P(Environment, CurlHttpClientProxyVariableTest,
                         Values("http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY",
                                "all_proxy", "ALL_PROXY"));

/// The name of a variable that names hosts for which there is no proxy, and its value.
class CurlHttpClientNoProxyVariableTest
    : public CurlHttpClientProxyTest,
      public testing::WithParamInterface<std::tuple<const char*, const char*>> {
protected:
    const EnvironmentVariable m_variable{std::get<0>(GetParam()), std::get<1>(GetParam())};
};

TEST_P(CurlHttpClientNoProxyVariableTest, KeepsNothingFromAnHttpProxy) {
    const HttpProxyServer proxy;
    m_options.proxy = proxy.Url();
    EXPECT_EQ(Get(m_server.Url("/file")).errorCode, 0);
    EXPECT_EQ(Get(m_server.SecureUrl("/file")).errorCode, 0);
    EXPECT_THAT(proxy.Requests(), SizeIs(2));
}

TEST_P(CurlHttpClientNoProxyVariableTest, KeepsNothingFromASocksProxy) {
    const SocksProxyServer proxy;
    m_options.proxy = proxy.Url();
    EXPECT_EQ(Get(m_server.Url("/file")).errorCode, 0);
    EXPECT_EQ(Get(m_server.SecureUrl("/file")).errorCode, 0);
    EXPECT_THAT(proxy.Targets(), SizeIs(2));
}

INSTANTIATE_TEST_SUITE_P(Environment, CurlHttpClientNoProxyVariableTest,
                         Combine(Values("no_proxy", "NO_PROXY"), Values("*", "127.0.0.1")));

} // namespace
} // namespace Halvex::Networking
