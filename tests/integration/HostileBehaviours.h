#pragma once

#include "support/ChildProcess.h"
#include "support/ScriptedHttpServer.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <ostream>
#include <string>
#include <vector>

namespace Halvex::Testing {

/// How a download ends, as an application sees it: the state of the resource, and the file at its
/// destination. With an error there is no file.
enum class End {
    Whole,     ///< Available, with what the server has
    Decoded,   ///< Available, with what the server has, its content coding undone
    Empty,     ///< Available, with an empty file
    Cut,       ///< Available, with the beginning of what the server has
    Other,     ///< Available, with something else
    Failed,    ///< GeneralError
    Lost,      ///< InternetConnectionLost
    Cancelled, ///< Cancelled
};

/// What makes it end, and so what it takes.
enum class Pace {
    Prompt,        ///< the server
    Large,         ///< the server, after gibibytes
    ConnectLimit,  ///< the limit for connecting
    StallLimit,    ///< the limit for slow transfers
    Timeout,       ///< the time-out for the whole request
    LateTimeout,   ///< that time-out, but the client listens for some seconds more
    TimeoutAtLast, ///< the server or that time-out, as it happens
};

/// The limits of a request that is to reach them. That for connecting is the downloader's own.
constexpr std::chrono::milliseconds kStallLimit(1000);
constexpr std::chrono::milliseconds kTimeout(1500);

/// What a download takes, on a slow and loaded machine too, and with a sanitizer.
struct Bounds {
    std::chrono::milliseconds least;
    std::chrono::milliseconds most;
    /// By how much it enlarges the process, the server included, at most.
    std::uint64_t memoryBytes;
};
Bounds BoundsOf(Pace pace);

/// What one client makes of a behaviour.
struct Outcomes {
    /// One of these, as it happens.
    std::vector<End> ends;
    /// How many requests reach the server.
    std::size_t fewestRequests;
    std::size_t mostRequests;
    Pace pace = Pace::Prompt;
};

/// The bytes that a server has when nothing else is said.
const std::string& HonestBody();

/// What a behaviour is set up in, and what is then downloaded.
struct Scene {
    /// Another server, over TLS.
    ScriptedHttpServer& Secure(const ServerCertificate& certificate) {
        return others.emplace_back(certificate);
    }
    /// Of all servers.
    std::size_t RequestCount() const;

    ScriptedHttpServer server;
    std::list<ScriptedHttpServer> others;
    /// Nobody listens here.
    LoopbackPort deadPort;

    std::string baseUrl = server.Url("");
    std::string path = "file";
    /// What an honest server would have brought to the destination.
    std::string whole = HonestBody();
    /// Not 0: so many GeneratedBytes instead.
    std::uint64_t generatedSize = 0;
    /// The same, its content coding undone.
    std::string decoded;
    /// Fetch /first before, over a connection that the client may keep. It is not counted.
    bool fetchesAnotherBefore = false;
    /// Use the scheduler that retries.
    bool retries = false;
    /// Trust the authority that has signed the servers' certificates.
    bool trusts = true;
};

/// One thing that a server does, and how a download ends then: a row of the table.
struct Behaviour {
    std::string group;
    std::string name;
    /// What the server does, for people.
    std::string words;
    std::function<void(Scene&)> prepare;
    Outcomes native;
    Outcomes qt;
};

const std::vector<Behaviour>& AllBehaviours();

/// The table of all behaviours for docs/reliability.md.
std::string BehavioursInMarkdown();

std::ostream& operator<<(std::ostream& stream, End end);

} // namespace Halvex::Testing
