#include "support/ChildProcess.h"

#include "support/TemporaryFolder.h"
#include "support/Waiting.h"

#include <csignal>
#include <fstream>
#include <stdexcept>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Halvex::Testing {

namespace {

sockaddr_in LoopbackAddress(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

} // namespace

LoopbackPort::LoopbackPort() : m_socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const int on = 1;
    sockaddr_in address = LoopbackAddress(0);
    socklen_t size = sizeof(address);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (m_socket < 0 || ::setsockopt(m_socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
        ::bind(m_socket, generic, size) != 0 || ::getsockname(m_socket, generic, &size) != 0)
        throw std::runtime_error("cannot get a port on the loopback interface");
    m_number = ntohs(address.sin_port);
}

LoopbackPort::~LoopbackPort() {
    ::close(m_socket);
}

bool LoopbackPort::AcceptsConnections() const {
    const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = LoopbackAddress(m_number);
    const bool accepts =
        ::connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    ::close(client);
    return accepts;
}

void LoopbackPort::Listen() const {
    constexpr int kWaiting = 8;
    if (::listen(m_socket, kWaiting) != 0)
        throw std::runtime_error("cannot listen at " + Address());
}

int LoopbackPort::Accept() const {
    return ::accept4(m_socket, nullptr, nullptr, SOCK_CLOEXEC);
}

void LoopbackPort::StopListening() const {
    ::shutdown(m_socket, SHUT_RDWR);
}

ChildProcess::ChildProcess(const std::vector<std::string>& command, const ioPath& output)
    : m_program(command.front()), m_output(output) {
    std::vector<char*> arguments;
    for (const std::string& argument : command)
        arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    char* environment[] = {nullptr};
    const std::string outputPath = output.string();
    const pid_t parent = ::getpid();
    m_process = ::fork();
    if (m_process < 0)
        throw std::runtime_error("cannot make a child process");
    if (m_process > 0)
        return;
    // Only what is safe after the fork of a program with threads.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int file = ::open(outputPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (::getppid() != parent || file < 0)
        ::_exit(126);
    ::dup2(file, STDOUT_FILENO);
    ::dup2(file, STDERR_FILENO);
    ::execve(arguments.front(), arguments.data(), environment);
    ::_exit(127);
}

/// A server that has nothing to finish needs no gentle end.
ChildProcess::~ChildProcess() {
    if (m_process >= 0) {
        ::kill(m_process, SIGKILL);
        ::waitpid(m_process, nullptr, 0);
    }
}

void ChildProcess::WaitUntilItListens(const LoopbackPort& port) {
    if (!WaitUntil([&] { return HasEnded() || port.AcceptsConnections(); }) || m_process < 0)
        throw std::runtime_error(m_program + " does not start: " + ReadFile(m_output));
}

bool ChildProcess::HasEnded() {
    if (m_process >= 0 && ::waitpid(m_process, nullptr, WNOHANG) == m_process)
        m_process = -1;
    return m_process < 0;
}

std::vector<std::string> ReadLines(const ioPath& path) {
    std::ifstream file(path.string());
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    return lines;
}

} // namespace Halvex::Testing
