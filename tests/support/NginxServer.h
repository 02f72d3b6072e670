#pragma once

#include "Foundation/ioPath.h"
#include "support/TemporaryFolder.h"

#include <string>
#include <vector>

#include <sys/types.h>

namespace Halvex::Testing {

/// The system's nginx as a child process on the loopback interface, serving one folder.
///
/// Answers when constructed, at a port of its own; its files lie in a folder of its own. It ends in
/// the destructor, and also when the thread that made it ends, a crash of the test included. One
/// thread at a time, caller synchronises.
class NginxServer {
public:
    /// The directives are added to the configuration's server block, for instance
    /// "limit_rate 100k;". Throws with nginx's own words when it does not start.
    explicit NginxServer(const ioPath& folder, const std::string& directives = {});
    ~NginxServer();

    NginxServer(const NginxServer&) = delete;
    NginxServer& operator=(const NginxServer&) = delete;

    /// The full address of a path below the folder.
    std::string Url(const std::string& path) const;
    int Port() const { return m_port; }
    /// The folder of nginx's own files.
    const std::string& Prefix() const { return m_folder.Path(); }

    /// One line per request that has ended: method, path with its query, status, body bytes sent
    /// and the Range header or "-", parted by blanks. A line appears shortly after the client has
    /// the answer.
    std::vector<std::string> AccessLog() const;
    /// Waits until so many requests have ended. False: they have not within the generous limit.
    bool WaitForRequests(std::size_t count) const;

private:
    void Start();
    bool HasEnded();
    bool AcceptsConnections() const;
    void Stop();

    TemporaryFolder m_folder;
    int m_port = 0;
    const int m_reservation;
    /// -1: it has ended.
    pid_t m_process = -1;
};

} // namespace Halvex::Testing
