#include "support/NginxServer.h"

#include "support/Waiting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Halvex::Testing {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;
using testing::ThrowsMessage;

/// What the server sends for a request; empty when it does not accept the connection.
std::string Ask(int port, const std::string& path, const std::string& headers = {}) {
    const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    std::string reply;
    if (::connect(client, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
        const std::string request = "GET " + path + " HTTP/1.0\r\n" + headers + "\r\n";
        EXPECT_GT(::send(client, request.data(), request.size(), MSG_NOSIGNAL), 0);
        char buffer[4096];
        for (ssize_t size = 0; (size = ::recv(client, buffer, sizeof(buffer), 0)) > 0;)
            reply.append(buffer, static_cast<std::size_t>(size));
    }
    ::close(client);
    return reply;
}

/// Whether a process is there that has the path in its command line and is not dead.
bool RunsWith(const std::string& path) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        std::ifstream file(entry.path() / "cmdline");
        std::string line;
        if (std::getline(file, line) && line.find(path) != std::string::npos)
            return true;
    }
    return false;
}

TEST(NginxServer, ServesTheFilesOfAFolder) {
    const TemporaryFolder folder;
    folder.Write("a/b.bin", "content");
    const NginxServer server(ioPath(folder.Path()));
    const std::string reply = Ask(server.Port(), "/a/b.bin");
    EXPECT_THAT(reply, StartsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_THAT(reply, EndsWith("\r\n\r\ncontent"));
}

TEST(NginxServer, TellsTheFullAddress) {
    const TemporaryFolder folder;
    const NginxServer server(ioPath(folder.Path()));
    EXPECT_EQ(server.Url("/a"), "http://127.0.0.1:" + std::to_string(server.Port()) + "/a");
}

TEST(NginxServer, LogsTheRequestsThatHaveEnded) {
    const TemporaryFolder folder;
    folder.Write("here", "content");
    const NginxServer server(ioPath(folder.Path()));
    EXPECT_THAT(server.AccessLog(), ElementsAre());
    Ask(server.Port(), "/here?x");
    Ask(server.Port(), "/here", "Range: bytes=2-3\r\n");
    EXPECT_TRUE(server.WaitForRequests(2));
    EXPECT_THAT(server.AccessLog(),
                ElementsAre("GET /here?x 200 7 -", "GET /here 206 2 bytes=2-3"));
}

TEST(NginxServer, TakesFurtherDirectives) {
    const TemporaryFolder folder;
    const NginxServer server(ioPath(folder.Path()), "location = /gone { return 410; }");
    EXPECT_THAT(Ask(server.Port(), "/gone"), StartsWith("HTTP/1.1 410 "));
}

TEST(NginxServer, ThrowsWhatNginxSaysWhenItDoesNotStart) {
    const TemporaryFolder folder;
    EXPECT_THAT([&] { NginxServer(ioPath(folder.Path()), "no_such_directive;"); },
                ThrowsMessage<std::runtime_error>(HasSubstr("no_such_directive")));
}

TEST(NginxServer, RunsSeveralTimesAtOnce) {
    const TemporaryFolder folder;
    const NginxServer first(ioPath(folder.Path()));
    const NginxServer second(ioPath(folder.Path()));
    EXPECT_NE(first.Port(), second.Port());
    EXPECT_THAT(Ask(first.Port(), "/"), StartsWith("HTTP/1.1 "));
    EXPECT_THAT(Ask(second.Port(), "/"), StartsWith("HTTP/1.1 "));
}

TEST(NginxServer, StopsWithItself) {
    const TemporaryFolder folder;
    int port = 0;
    std::string prefix;
    {
        const NginxServer server(ioPath(folder.Path()));
        port = server.Port();
        prefix = server.Prefix();
        EXPECT_TRUE(RunsWith(prefix));
    }
    EXPECT_EQ(Ask(port, "/"), "");
    EXPECT_FALSE(RunsWith(prefix));
    EXPECT_FALSE(std::filesystem::exists(prefix));
}

TEST(NginxServer, EndsWhenTheThreadThatMadeItDies) {
    const TemporaryFolder folder;
    std::unique_ptr<NginxServer> server;
    std::thread([&] { server = std::make_unique<NginxServer>(ioPath(folder.Path())); }).join();
    EXPECT_TRUE(WaitUntil([&] { return !RunsWith(server->Prefix()); }));
}

} // namespace
} // namespace Halvex::Testing
