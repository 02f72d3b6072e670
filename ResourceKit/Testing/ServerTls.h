#pragma once

#include "ResourceKit/Testing/ServerCertificate.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace Halvex::Kit::Testing {

/// The server's side of TLS on one accepted socket. Speaks HTTP/1.1 only.
///
/// The thread that uses it must have SIGPIPE blocked. One thread at a time, caller synchronises.
class ServerTls {
public:
    /// Makes the handshake. Throws when it fails. The socket is borrowed.
    ServerTls(int socket, const ServerCertificate& certificate);
    ~ServerTls();

    ServerTls(const ServerTls&) = delete;
    ServerTls& operator=(const ServerTls&) = delete;

    /// False: the connection has ended.
    bool Send(std::string_view bytes);
    /// What has come; nothing when the connection has ended.
    std::optional<std::string> Receive();
    /// Tells the other end that nothing more will come.
    void SayGoodbye();

private:
    struct Impl;
    const std::unique_ptr<Impl> m_impl;
};

} // namespace Halvex::Kit::Testing
