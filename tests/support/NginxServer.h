#pragma once

#include "Foundation/ioPath.h"
#include "support/ChildProcess.h"
#include "support/TemporaryFolder.h"
#include "support/TestAuthority.h"

#include <optional>
#include <string>
#include <vector>

namespace Halvex::Testing {

/// The system's nginx as a child process on the loopback interface, serving one folder, by http
/// and, if wanted, by https too.
///
/// Answers when constructed, at ports of its own; its files lie in a folder of its own. It ends in
/// the destructor, and also when the thread that made it ends, a crash of the test included. One
/// thread at a time, caller synchronises.
class NginxServer {
public:
    /// How https is served.
    struct Https {
        ServerCertificate certificate;
        /// Whether HTTP/2 is offered beside HTTP/1.1.
        bool http2 = true;
    };
    /// How a request came in.
    struct Arrival {
        /// Counts nginx's connections, with gaps.
        std::string connection;
        /// Such as HTTP/1.1.
        std::string protocol;
        /// Whether the connection resumed a TLS session instead of making a full handshake.
        bool resumedSession = false;
    };

    /// The directives are added to the configuration's server block, for instance
    /// "limit_rate 100k;". Throws with nginx's own words when it does not start.
    explicit NginxServer(const ioPath& folder, const std::string& directives = {},
                         const std::optional<Https>& https = {});

    /// The full address of a path below the folder.
    std::string Url(const std::string& path) const { return "http://" + m_port.Address() + path; }
    int Port() const { return m_port.Number(); }
    /// The same for https.
    std::string SecureUrl(const std::string& path) const {
        return "https://" + m_securePort.Address() + path;
    }
    int SecurePort() const { return m_securePort.Number(); }
    /// The folder of nginx's own files.
    const std::string& Prefix() const { return m_folder.Path(); }

    /// One line per request that has ended: method, path with its query, status, body bytes sent
    /// and the Range header or "-", parted by blanks. A line appears shortly after the client has
    /// the answer.
    std::vector<std::string> AccessLog() const { return ReadLines(m_folder / "access.log"); }
    /// How each of these requests came in.
    std::vector<Arrival> Arrivals() const;
    /// Waits until so many requests have ended. False: they have not within the generous limit.
    bool WaitForRequests(std::size_t count) const;

private:
    TemporaryFolder m_folder;
    LoopbackPort m_port;
    LoopbackPort m_securePort;
    ChildProcess m_process;
};

} // namespace Halvex::Testing
