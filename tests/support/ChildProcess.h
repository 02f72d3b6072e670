#pragma once

#include "Foundation/ioPath.h"

#include <string>
#include <vector>

#include <sys/types.h>

namespace Halvex::Testing {

/// A free port of the loopback interface, kept from everyone who asks for just any free port. A
/// program that is told the number can listen there all the same, if it allows the address to be
/// reused, as servers do; until then every connection is refused.
///
/// Immutable; safe from any thread.
class LoopbackPort {
public:
    LoopbackPort();
    ~LoopbackPort();

    LoopbackPort(const LoopbackPort&) = delete;
    LoopbackPort& operator=(const LoopbackPort&) = delete;

    int Number() const { return m_number; }
    /// With the host: 127.0.0.1:number.
    std::string Address() const { return "127.0.0.1:" + std::to_string(m_number); }
    bool AcceptsConnections() const;

    /// Listens there itself, for a test that is a server which misbehaves. Connections stand from
    /// then on, whether anyone takes them or not.
    void Listen() const;
    /// Waits for a connection and takes it; the caller closes it. -1 once StopListening is called.
    int Accept() const;
    /// Ends the wait of a server for a connection that has not come, before its thread is joined.
    void StopListening() const;

private:
    const int m_socket;
    int m_number = 0;
};

/// A server program as a child process, in the foreground and with an empty environment.
///
/// It ends in the destructor, and also when the thread that made it ends, a crash of the test
/// included. One thread at a time, caller synchronises.
class ChildProcess {
public:
    /// The command is the program's full path and its arguments. What the program says is added to
    /// the output file.
    ChildProcess(const std::vector<std::string>& command, const ioPath& output);
    ~ChildProcess();

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// Waits until connections to the port are accepted. Throws with the program's own words when
    /// it ends first.
    void WaitUntilItListens(const LoopbackPort& port);

private:
    bool HasEnded();

    const std::string m_program;
    const ioPath m_output;
    /// -1: it has ended.
    pid_t m_process = -1;
};

/// The lines of a file; none when there is no file.
std::vector<std::string> ReadLines(const ioPath& path);

} // namespace Halvex::Testing
