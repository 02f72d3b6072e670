#pragma once

#include <array>
#include <cstddef>
#include <stdexcept>
#include <string>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Halvex::Testing {

/// A port of the loopback interface at which connections are neither accepted nor refused: its
/// listener's queue is full.
///
/// Immutable; safe from any thread.
class SilentPort {
public:
    SilentPort() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof(address);
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        if (::bind(m_sockets.at(0), generic, size) != 0 || ::listen(m_sockets.at(0), 0) != 0 ||
            ::getsockname(m_sockets.at(0), generic, &size) != 0)
            throw std::runtime_error("cannot listen on the loopback interface");
        for (std::size_t i = 1; i < m_sockets.size(); ++i)
            ::connect(m_sockets.at(i), generic, size);
        m_number = ntohs(address.sin_port);
    }
    ~SilentPort() {
        for (const int socket : m_sockets)
            ::close(socket);
    }

    SilentPort(const SilentPort&) = delete;
    SilentPort& operator=(const SilentPort&) = delete;

    /// With the host: 127.0.0.1:number.
    std::string Address() const { return "127.0.0.1:" + std::to_string(m_number); }

private:
    static int NewSocket() {
        return ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    }

    const std::array<int, 5> m_sockets{NewSocket(), NewSocket(), NewSocket(), NewSocket(),
                                       NewSocket()};
    int m_number = 0;
};

} // namespace Halvex::Testing
