#pragma once

#include "support/ChildProcess.h"
#include "support/TemporaryFolder.h"

#include <string>
#include <vector>

namespace Halvex::Testing {

/// The system's tinyproxy, an HTTP proxy, as a child process on the loopback interface.
///
/// Answers when constructed, at a port of its own; its files lie in a folder of its own. It ends as
/// a ChildProcess does. One thread at a time, caller synchronises.
class HttpProxyServer {
public:
    /// The directives are added to the configuration, for instance "ConnectPort 443". Throws with
    /// tinyproxy's own words when it does not start.
    explicit HttpProxyServer(const std::string& directives = {});

    /// As the clients take it.
    std::string Url() const { return "http://" + m_port.Address(); }
    /// The same for a user, given as name:password.
    std::string Url(const std::string& user) const {
        return "http://" + user + "@" + m_port.Address();
    }

    /// The first line of each request so far, such as "CONNECT localhost:443 HTTP/1.1". It is there
    /// before the request is answered.
    std::vector<std::string> Requests() const;

private:
    TemporaryFolder m_folder;
    LoopbackPort m_port;
    ChildProcess m_process;
};

/// The system's microsocks, a SOCKS5 proxy, in the same way.
class SocksProxyServer {
public:
    SocksProxyServer();

    /// As the clients take it.
    std::string Url() const { return "socks5://" + m_port.Address(); }

    /// Where each connection made so far leads, such as "localhost:443", in the words in which it
    /// was asked for. It is there before the client is told that the connection stands.
    std::vector<std::string> Targets() const;

private:
    TemporaryFolder m_folder;
    LoopbackPort m_port;
    ChildProcess m_process;
};

} // namespace Halvex::Testing
