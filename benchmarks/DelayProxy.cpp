// A TCP proxy that delays every byte, where one may not have a network of one's own.
//
//     HalvexDelayProxy PORT MILLISECONDS
//
// Listens at a free port of 127.0.0.1, whose number it prints, and passes each connection on to
// PORT there. What is read in either direction is written so many milliseconds later: a request and
// its answer take twice as long. That a connection is made takes no longer than without it.

#include "Delaying.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <iterator>
#include <list>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace Halvex::Benchmarks;

/// What is under way in one direction at most: more than 50 connections' share of a fast line.
constexpr std::size_t kMostBytes = 4 * 1024 * 1024;

sockaddr_in Loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

int NewSocket() {
    const int socket = Checked(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    const int on = 1;
    Checked(::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)), "setsockopt");
    return socket;
}

/// One direction of one connection.
class Direction {
public:
    Direction(int from, int to, Clock::duration delay) : m_from(from), m_to(to), m_delay(delay) {}

    bool WantsToRead() const { return !m_ended && m_bytes < kMostBytes; }
    bool HasEnded() const { return m_ended && m_pieces.empty(); }
    std::optional<Clock::time_point> Due() const {
        return m_pieces.empty() ? std::nullopt : std::optional(m_pieces.front().due);
    }

    void Read() {
        std::array<char, 64 * 1024> buffer;
        const ssize_t count = ::recv(m_from, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (count < 0 && errno == EAGAIN)
            return;
        m_ended = count <= 0;
        std::string data(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        m_bytes += data.size();
        m_pieces.push_back({Clock::now() + m_delay, std::move(data)});
    }

    /// Writes what is due, and waits until it is taken; an empty piece is the end.
    void Write() {
        while (!m_pieces.empty() && m_pieces.front().due <= Clock::now()) {
            std::string& data = m_pieces.front().data;
            const ssize_t count = ::send(m_to, data.data(), data.size(), MSG_NOSIGNAL);
            const std::size_t written = count < 0 ? data.size() : static_cast<std::size_t>(count);
            m_bytes -= written;
            data.erase(0, written);
            if (!data.empty())
                continue;
            m_pieces.pop_front();
            if (m_pieces.empty() && m_ended)
                ::shutdown(m_to, SHUT_WR);
        }
    }

private:
    struct Piece {
        Clock::time_point due;
        std::string data;
    };

    const int m_from;
    const int m_to;
    const Clock::duration m_delay;
    std::deque<Piece> m_pieces;
    std::size_t m_bytes = 0;
    bool m_ended = false;
};

struct Connection {
    Connection(int clientSocket, int serverSocket, Clock::duration delay)
        : client(clientSocket), server(serverSocket), there(client, server, delay),
          back(server, client, delay) {}
    ~Connection() {
        ::close(client);
        ::close(server);
    }

    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    const int client;
    const int server;
    Direction there;
    Direction back;
};

void Accept(int listener, int port, Clock::duration delay, std::list<Connection>& connections) {
    const int client = Checked(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), "accept");
    const int on = 1;
    Checked(::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)), "setsockopt");
    const int server = NewSocket();
    const sockaddr_in address = Loopback(port);
    Checked(::connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
            "connect");
    connections.emplace_back(client, server, delay);
}

/// How long until the next piece is due; nothing: none is.
std::optional<timespec> TimeToWait(const std::list<Connection>& connections) {
    std::optional<Clock::time_point> next;
    for (const Connection& connection : connections) {
        for (const Direction* direction : {&connection.there, &connection.back}) {
            if (const auto due = direction->Due())
                next = std::min(next.value_or(*due), *due);
        }
    }
    return next ? std::optional(TimeUntil(*next)) : std::nullopt;
}

void Serve(int listener, int port, Clock::duration delay) {
    std::list<Connection> connections;
    while (true) {
        std::vector<pollfd> watched{{listener, POLLIN, 0}};
        const auto events = [](const Direction& direction) {
            return static_cast<short>(direction.WantsToRead() ? POLLIN : 0);
        };
        for (const Connection& connection : connections) {
            watched.push_back({connection.client, events(connection.there), 0});
            watched.push_back({connection.server, events(connection.back), 0});
        }
        const auto wait = TimeToWait(connections);
        Checked(::ppoll(watched.data(), watched.size(), wait ? &*wait : nullptr, nullptr), "ppoll");
        auto entry = std::next(watched.begin());
        for (auto connection = connections.begin(); connection != connections.end();) {
            for (Direction* direction : {&connection->there, &connection->back}) {
                if ((entry++)->revents != 0 && direction->WantsToRead())
                    direction->Read();
                direction->Write();
            }
            const bool ended = connection->there.HasEnded() && connection->back.HasEnded();
            connection = ended ? connections.erase(connection) : std::next(connection);
        }
        if (watched.front().revents != 0)
            Accept(listener, port, delay, connections);
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: HalvexDelayProxy PORT MILLISECONDS\n");
        return 2;
    }
    const int listener = NewSocket();
    sockaddr_in address = Loopback(0);
    socklen_t size = sizeof(address);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    Checked(::bind(listener, generic, size), "bind");
    Checked(::listen(listener, SOMAXCONN), "listen");
    Checked(::getsockname(listener, generic, &size), "getsockname");
    std::printf("%d\n", ntohs(address.sin_port));
    std::fflush(stdout);
    Serve(listener, std::atoi(argv[1]), std::chrono::milliseconds(std::atoi(argv[2])));
}
