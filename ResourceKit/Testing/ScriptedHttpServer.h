#pragma once

#include "Foundation/Export.h"
#include "ResourceKit/Testing/Reply.h"
#include "ResourceKit/Testing/ServerCertificate.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Halvex::Kit::Testing {

/// An HTTP/1.1 server on the loopback interface that answers as scripted.
///
///     ScriptedHttpServer server;
///     server.On("/a?b", {Reply::Status(503), Reply::Ok("body")});
///     Fetch(server.Url("/a?b"));
///
/// Ready when constructed, at a port of its own. The destructor ends all connections, whatever
/// state they are in, and joins all threads. Thread-safe.
class HALVEX_EXPORT ScriptedHttpServer {
public:
    /// A request as it arrived.
    struct HALVEX_EXPORT Request {
        std::string method;
        /// The path with its query.
        std::string target;
        std::vector<std::pair<std::string, std::string>> headers;
        std::string body;
        /// Counts the connections from 1, in the order in which they were accepted.
        int connection = 0;

        /// The value of the first header of this name, in any case; empty when there is none.
        std::string Header(const std::string& name) const;
    };

    /// With a certificate it serves https and nothing else.
    explicit ScriptedHttpServer(std::optional<ServerCertificate> certificate = {});
    ~ScriptedHttpServer();

    ScriptedHttpServer(const ScriptedHttpServer&) = delete;
    ScriptedHttpServer& operator=(const ScriptedHttpServer&) = delete;

    /// Answers requests for exactly this path, query included, with these replies one after the
    /// other; the last one is repeated. Replaces what the path had before. Every other path is 404.
    void On(const std::string& path, std::vector<Reply> replies);
    void On(const std::string& path, Reply reply) {
        On(path, std::vector<Reply>{std::move(reply)});
    }

    /// Answers the first bytes of each connection with this reply, even before a TLS handshake, and
    /// then ends the connection. They count for no request.
    void AnswerAnything(Reply reply);

    /// The full address of a path.
    std::string Url(const std::string& path) const;
    int Port() const;

    /// All requests so far, in the order of their arrival.
    std::vector<Request> Requests() const;
    /// How many there were for this path.
    std::size_t RequestCount(const std::string& path) const;
    /// Waits until there were so many. False: there were not within the generous limit.
    bool WaitForRequests(const std::string& path, std::size_t count = 1) const;
    /// How many connections have been accepted.
    int ConnectionCount() const;

private:
    class Connection;
    struct Impl;
    const std::unique_ptr<Impl> m_impl;
};

} // namespace Halvex::Kit::Testing
