#include "ResourceKit/Testing/ScriptedHttpServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

namespace Halvex::Kit::Testing {
namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

/// A connection of a client that sees every byte.
class RawClient {
public:
    explicit RawClient(const ScriptedHttpServer& server)
        : m_socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<std::uint16_t>(server.Port()));
        const timeval limit{kGenerousLimit.count(), 0};
        ::setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        EXPECT_EQ(::connect(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    }
    ~RawClient() { Go(); }

    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    void Go() {
        if (m_socket >= 0)
            ::close(m_socket);
        m_socket = -1;
    }

    void Send(const std::string& text) {
        EXPECT_EQ(::send(m_socket, text.data(), text.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size()));
    }

    void Get(const std::string& path) { Send("GET " + path + " HTTP/1.1\r\nHost: here\r\n\r\n"); }

    /// What arrives until the text ends so.
    std::string ReceiveUntil(const std::string& end) {
        std::string text;
        while (text.size() < end.size() || text.substr(text.size() - end.size()) != end) {
            char byte = '\0';
            if (::recv(m_socket, &byte, 1, 0) != 1)
                return text + " [ended]";
            text += byte;
        }
        return text;
    }

    /// What arrives until the connection ends; error is 0 for an orderly end.
    std::string ReceiveAll(int* error = nullptr) {
        std::string text;
        for (;;) {
            char buffer[4096];
            const ssize_t received = ::recv(m_socket, buffer, sizeof(buffer), 0);
            if (error != nullptr)
                *error = received < 0 ? errno : 0;
            else
                EXPECT_GE(received, 0) << errno;
            if (received <= 0)
                return text;
            text.append(buffer, static_cast<std::size_t>(received));
        }
    }

private:
    int m_socket;
};

std::string BodyOf(const std::string& reply) {
    const std::size_t end = reply.find("\r\n\r\n");
    return end == std::string::npos ? "no head: " + reply : reply.substr(end + 4);
}

/// The whole of what the server sends for a reply that ends the connection.
std::string Fetch(const Reply& reply) {
    ScriptedHttpServer server;
    server.On("/", reply);
    RawClient client(server);
    client.Get("/");
    return client.ReceiveAll();
}

TEST(GeneratedBytes, AreTheSameWhereverReadingBegins) {
    const std::string whole = GeneratedBytes(0, 100);
    EXPECT_EQ(GeneratedBytes(0, 7) + GeneratedBytes(7, 20) + GeneratedBytes(27, 73), whole);
    EXPECT_EQ(GeneratedBytes(40, 60), whole.substr(40));
    EXPECT_EQ(GeneratedBytes(40, 0), "");
}

TEST(GeneratedBytes, DifferWithTheSeedAndThePlace) {
    EXPECT_NE(GeneratedBytes(0, 16, 1), GeneratedBytes(0, 16, 2));
    EXPECT_NE(GeneratedBytes(0, 16), GeneratedBytes(16, 16));
    EXPECT_NE(GeneratedBytes(0, 16), GeneratedBytes(std::uint64_t{1} << 32, 16));
}

TEST(ScriptedHttpServer, SendsStatusHeadersAndBody) {
    EXPECT_EQ(Fetch(Reply::Status(503, "later").Header("Retry-After", "1").ThenClose()),
              "HTTP/1.1 503 Service Unavailable\r\nRetry-After: 1\r\nConnection: close\r\n"
              "Content-Length: 5\r\n\r\nlater");
}

TEST(ScriptedHttpServer, SendsNoBodyAndNoLengthWith204) {
    EXPECT_EQ(Fetch(Reply::Status(204, "nothing").ThenClose()),
              "HTTP/1.1 204 No Content\r\nConnection: close\r\n\r\n");
}

TEST(ScriptedHttpServer, SendsAGeneratedBody) {
    const std::string reply = Fetch(Reply::Generated(300'001, 7).ThenClose());
    EXPECT_THAT(reply, HasSubstr("Content-Length: 300001\r\n"));
    EXPECT_EQ(BodyOf(reply), GeneratedBytes(0, 300'001, 7));
}

TEST(ScriptedHttpServer, SendsChunks) {
    const std::string reply = Fetch(Reply::Ok("abcdefghijklm").Chunked(11).ThenClose());
    EXPECT_THAT(reply, AllOf(HasSubstr("Transfer-Encoding: chunked\r\n"),
                             Not(HasSubstr("Content-Length"))));
    EXPECT_EQ(BodyOf(reply), "b\r\nabcdefghijk\r\n2\r\nlm\r\n0\r\n\r\n");
}

TEST(ScriptedHttpServer, LeavesTheLastChunkOutWhenCut) {
    EXPECT_EQ(BodyOf(Fetch(Reply::Ok("abc").Chunked(2).CutAfter(3))), "2\r\nab\r\n1\r\nc\r\n");
}

TEST(ScriptedHttpServer, EndsTheConnectionWhereALengthIsLeftOut) {
    EXPECT_EQ(Fetch(Reply::Ok("abc").WithoutLength()), "HTTP/1.1 200 OK\r\n\r\nabc");
}

TEST(ScriptedHttpServer, AnnouncesAnyLength) {
    EXPECT_EQ(Fetch(Reply::Ok("abc").Announcing(9)),
              "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nabc");
    EXPECT_EQ(Fetch(Reply::Ok("abc").Announcing(2)),
              "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nabc");
}

TEST(ScriptedHttpServer, RepeatsAHeaderThatIsAdded) {
    EXPECT_EQ(Fetch(Reply::Ok("abc").Header("Content-Length", "5").ThenClose()),
              "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nConnection: close\r\nContent-Length: 3\r\n"
              "\r\nabc");
}

TEST(ScriptedHttpServer, CutsABody) {
    EXPECT_EQ(Fetch(Reply::Ok("abcdef").CutAfter(4)),
              "HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nabcd");
}

TEST(ScriptedHttpServer, ResetsAConnection) {
    ScriptedHttpServer server;
    server.On("/", Reply::Ok("abcdef").ResetAfter(4));
    RawClient client(server);
    client.Get("/");
    int error = 0;
    client.ReceiveAll(&error);
    EXPECT_EQ(error, ECONNRESET);
}

TEST(ScriptedHttpServer, SendsRawBytesAsTheyAre) {
    EXPECT_EQ(Fetch(Reply::Raw("gibberish\n")), "gibberish\n");
    EXPECT_EQ(Fetch(Reply::Raw("gibberish").CutAfter(3)), "gib");
}

TEST(ScriptedHttpServer, RedirectsWithABody) {
    EXPECT_EQ(Fetch(Reply::Redirect("/there", 307, "go").ThenClose()),
              "HTTP/1.1 307 Temporary Redirect\r\nLocation: /there\r\nConnection: close\r\n"
              "Content-Length: 2\r\n\r\ngo");
}

TEST(ScriptedHttpServer, CodesABodyAsGzip) {
    // Made by: printf hello | gzip --no-name, its compressed block replaced by a stored one.
    const std::string coded("\x1f\x8b\x08\0\0\0\0\0\0\xff\x01\x05\0\xfa\xffhello\x86\xa6\x10\x36\5"
                            "\0\0\0",
                            28);
    const std::string reply = Fetch(Reply::Gzip("hello").ThenClose());
    EXPECT_THAT(reply, HasSubstr("Content-Encoding: gzip\r\n"));
    EXPECT_EQ(BodyOf(reply), coded);
}

TEST(ScriptedHttpServer, SendsTheRestWhenAStallIsReleased) {
    Event release;
    ScriptedHttpServer server;
    server.On("/", Reply::Ok("abcdef").StallAt(4, release).ThenClose());
    RawClient client(server);
    client.Get("/");
    EXPECT_THAT(client.ReceiveUntil("cd"), EndsWith("\r\n\r\nabcd"));
    release.Set();
    EXPECT_EQ(client.ReceiveAll(), "ef");
}

TEST(ScriptedHttpServer, StallsBehindTheWholeBody) {
    Event release;
    ScriptedHttpServer server;
    server.On("/", Reply::Ok("abc").Announcing(9).StallAt(3, release));
    RawClient client(server);
    client.Get("/");
    EXPECT_THAT(client.ReceiveUntil("abc"), EndsWith("\r\n\r\nabc"));
    release.Set();
    EXPECT_EQ(client.ReceiveAll(), "");
}

TEST(ScriptedHttpServer, DripsPieces) {
    EXPECT_THAT(Fetch(Reply::Ok("abcdef").Drip(1, std::chrono::milliseconds(1)).ThenClose()),
                EndsWith("\r\n\r\nabcdef"));
}

TEST(ScriptedHttpServer, PausesBetweenThePiecesOfADrip) {
    const auto start = std::chrono::steady_clock::now();
    Fetch(Reply::Ok("abcdef").Drip(2, std::chrono::milliseconds(20)).ThenClose());
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(40));
}

TEST(ScriptedHttpServer, AnswersInTurnAndRepeatsTheLastReply) {
    ScriptedHttpServer server;
    server.On("/", {Reply::Status(503), Reply::Ok("first"), Reply::Ok("last")});
    RawClient client(server);
    client.Get("/");
    EXPECT_THAT(client.ReceiveUntil("\r\n\r\n"), StartsWith("HTTP/1.1 503 "));
    for (const std::string body : {"first", "last", "last"}) {
        client.Get("/");
        EXPECT_THAT(client.ReceiveUntil(body), StartsWith("HTTP/1.1 200 OK\r\n"));
    }
}

TEST(ScriptedHttpServer, TellsPathsApartByTheirQueries) {
    ScriptedHttpServer server;
    server.On("/a?1", Reply::Ok("one"));
    RawClient client(server);
    client.Get("/a?1");
    EXPECT_THAT(client.ReceiveUntil("one"), StartsWith("HTTP/1.1 200 "));
    client.Get("/a");
    EXPECT_THAT(client.ReceiveUntil("here"), StartsWith("HTTP/1.1 404 Not Found\r\n"));
}

TEST(ScriptedHttpServer, RecordsRequests) {
    ScriptedHttpServer server;
    server.On("/a", Reply::Ok("got"));
    RawClient first(server);
    first.Get("/a");
    first.ReceiveUntil("got");
    RawClient second(server);
    second.Send("PUT /a?b HTTP/1.1\r\nX-Two:  words here\r\nContent-Length: 4\r\n\r\nbody");
    second.ReceiveUntil("here");
    first.Get("/a");
    first.ReceiveUntil("got");

    const std::vector<ScriptedHttpServer::Request> requests = server.Requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0].method, "GET");
    EXPECT_EQ(requests[0].target, "/a");
    EXPECT_EQ(requests[0].connection, 1);
    EXPECT_EQ(requests[1].method, "PUT");
    EXPECT_EQ(requests[1].target, "/a?b");
    EXPECT_EQ(requests[1].Header("x-two"), "words here");
    EXPECT_EQ(requests[1].Header("X-Three"), "");
    EXPECT_EQ(requests[1].body, "body");
    EXPECT_EQ(requests[1].connection, 2);
    EXPECT_EQ(requests[2].connection, 1);
    EXPECT_EQ(server.RequestCount("/a"), 2u);
    EXPECT_EQ(server.ConnectionCount(), 2);
}

TEST(ScriptedHttpServer, TellsWhenARequestHasArrived) {
    ScriptedHttpServer server;
    server.On("/", Reply::Silence());
    RawClient client(server);
    client.Get("/");
    EXPECT_TRUE(server.WaitForRequests("/"));
    EXPECT_EQ(server.RequestCount("/"), 1u);
}

TEST(ScriptedHttpServer, SendsNothingInSilence) {
    auto server = std::make_unique<ScriptedHttpServer>();
    server->On("/", Reply::Silence());
    RawClient client(*server);
    client.Get("/");
    EXPECT_TRUE(server->WaitForRequests("/"));
    server.reset();
    EXPECT_EQ(client.ReceiveAll(), "");
}

TEST(ScriptedHttpServer, FloodsUntilTheClientGoes) {
    ScriptedHttpServer server;
    server.On("/flood", Reply::Flood("begin ", "abc"));
    RawClient client(server);
    client.Get("/flood");
    EXPECT_EQ(client.ReceiveUntil("begin abcabca"), "begin abcabca");
}

TEST(ScriptedHttpServer, FloodsInPiecesOfAnySize) {
    ScriptedHttpServer server;
    server.On("/flood",
              Reply::Flood("begin ", "abc").Drip(4, std::chrono::milliseconds(0)).CutAfter(13));
    RawClient client(server);
    client.Get("/flood");
    EXPECT_EQ(client.ReceiveAll(), "begin abcabca");
}

TEST(ScriptedHttpServer, KeepsTheConnectionAfterRawBytesWhenToldTo) {
    ScriptedHttpServer server;
    server.On("/raw", Reply::Raw("raw").KeepOpen());
    server.On("/next", Reply::Ok("next"));
    RawClient client(server);
    client.Get("/raw");
    EXPECT_EQ(client.ReceiveUntil("raw"), "raw");
    client.Get("/next");
    EXPECT_THAT(client.ReceiveUntil("next"), EndsWith("\r\n\r\nnext"));
    EXPECT_EQ(server.ConnectionCount(), 1);
}

TEST(ScriptedHttpServer, AnswersAnythingThatIsNoRequest) {
    ScriptedHttpServer server;
    server.AnswerAnything(Reply::Raw("whatever"));
    RawClient client(server);
    client.Send("\x16\x03\x01");
    EXPECT_EQ(client.ReceiveAll(), "whatever");
    EXPECT_TRUE(server.Requests().empty());
}

TEST(ScriptedHttpServer, EndsTheConnectionOfARequestWhoseLengthIsNoNumber) {
    ScriptedHttpServer server;
    server.On("/", Reply::Ok("good"));
    RawClient confused(server);
    confused.Send("POST / HTTP/1.1\r\nContent-Length: many\r\n\r\n");
    EXPECT_EQ(confused.ReceiveAll(), "");
    RawClient client(server);
    client.Get("/");
    EXPECT_EQ(BodyOf(client.ReceiveUntil("good")), "good");
}

TEST(ScriptedHttpServer, ServesManyConnectionsAtOnce) {
    Event release;
    ScriptedHttpServer server;
    server.On("/slow", Reply::Ok("slow").StallAt(0, release));
    server.On("/quick", Reply::Ok("quick"));
    RawClient slow(server);
    slow.Get("/slow");
    RawClient quick(server);
    quick.Get("/quick");
    EXPECT_THAT(quick.ReceiveUntil("quick"), EndsWith("\r\n\r\nquick"));
    release.Set();
    EXPECT_THAT(slow.ReceiveUntil("slow"), EndsWith("\r\n\r\nslow"));
}

TEST(ScriptedHttpServer, SurvivesClientsThatGo) {
    ScriptedHttpServer server;
    server.On("/endless", Reply::Generated(std::uint64_t{1} << 40));
    server.On("/stalled", Reply::Ok("abc").StallAt(1));
    server.On("/", Reply::Ok("still here"));
    for (const std::string path : {"/endless", "/stalled"}) {
        RawClient client(server);
        client.Get(path);
        EXPECT_TRUE(server.WaitForRequests(path));
    }
    RawClient client(server);
    client.Get("/");
    EXPECT_THAT(client.ReceiveUntil("still here"), StartsWith("HTTP/1.1 200 "));
}

TEST(ScriptedHttpServer, EndsConnectionsInAnyStateWithItself) {
    Event never;
    auto server = std::make_unique<ScriptedHttpServer>();
    server->On("/endless", Reply::Generated(std::uint64_t{1} << 40));
    server->On("/stalled", Reply::Ok("abc").StallAt(1));
    server->On("/waiting", Reply::Ok("abc").StallAt(1, never));
    server->On("/dripping", Reply::Ok("abc").Drip(1, std::chrono::hours(1)));
    RawClient idle(*server);
    RawClient inMidRequest(*server);
    inMidRequest.Send("GET /");
    RawClient endless(*server);
    endless.Get("/endless");
    RawClient stalled(*server);
    stalled.Get("/stalled");
    RawClient waiting(*server);
    waiting.Get("/waiting");
    RawClient dripping(*server);
    dripping.Get("/dripping");
    EXPECT_TRUE(server->WaitForRequests("/endless"));
    for (RawClient* client : {&stalled, &waiting, &dripping})
        EXPECT_THAT(client->ReceiveUntil("\r\n\r\na"), StartsWith("HTTP/1.1 200 "));
    server.reset();
    for (RawClient* client : {&idle, &inMidRequest, &stalled, &waiting, &dripping})
        EXPECT_EQ(client->ReceiveAll(), "");
}

} // namespace
} // namespace Halvex::Kit::Testing
