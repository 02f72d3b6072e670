#include "support/NginxServer.h"

#include "support/Waiting.h"

#include <array>
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

constexpr const char* kProgram = "/usr/sbin/nginx";

sockaddr_in LoopbackAddress(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

/// A socket that keeps a free port for the one that listens there: as both allow the address to be
/// reused, nginx can bind to it too, and nobody gets it when asking for a free port.
int ReservePort(int& port) {
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    sockaddr_in address = LoopbackAddress(0);
    socklen_t size = sizeof(address);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (socket < 0 || ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
        ::bind(socket, generic, size) != 0 || ::getsockname(socket, generic, &size) != 0)
        throw std::runtime_error("cannot get a port on the loopback interface");
    port = ntohs(address.sin_port);
    return socket;
}

/// One process in the foreground. Relative paths are below the prefix.
std::string Configuration(int port, const std::string& folder, const std::string& directives) {
    const std::string listen = "listen 127.0.0.1:" + std::to_string(port) + ";\n";
    const std::string root = "root \"" + folder + "\";\n";
    return R"(
        daemon off;
        master_process off;
        pid nginx.pid;
        error_log error.log;
        events { worker_connections 1024; }
        http {
            log_format short '$request_method $request_uri $status $body_bytes_sent $http_range';
            access_log access.log short;
            client_body_temp_path client_body;
            proxy_temp_path proxy;
            fastcgi_temp_path fastcgi;
            uwsgi_temp_path uwsgi;
            scgi_temp_path scgi;
            default_type application/octet-stream;
            sendfile on;
            server {
        )" +
           listen + root + directives + "} }\n";
}

} // namespace

NginxServer::NginxServer(const ioPath& folder, const std::string& directives)
    : m_reservation(ReservePort(m_port)) {
    m_folder.Write("nginx.conf", Configuration(m_port, folder.string(), directives));
    Start();
    if (!WaitUntil([&] { return HasEnded() || AcceptsConnections(); }) || m_process < 0) {
        Stop();
        throw std::runtime_error("nginx does not start: " + ReadFile(m_folder / "error.log"));
    }
}

NginxServer::~NginxServer() {
    Stop();
}

std::string NginxServer::Url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(m_port) + path;
}

std::vector<std::string> NginxServer::AccessLog() const {
    std::ifstream file((m_folder / "access.log").string());
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    return lines;
}

bool NginxServer::WaitForRequests(std::size_t count) const {
    return WaitUntil([&] { return AccessLog().size() >= count; });
}

void NginxServer::Start() {
    const std::string configuration = (m_folder / "nginx.conf").string();
    const std::string errors = (m_folder / "error.log").string();
    const std::array<const char*, 8> arguments{
        kProgram,       "-p",   m_folder.Path().c_str(), "-c", configuration.c_str(), "-e",
        errors.c_str(), nullptr};
    const std::array<const char*, 1> environment{nullptr};
    const pid_t parent = ::getpid();
    m_process = ::fork();
    if (m_process != 0)
        return;
    // Only what is safe after the fork of a program with threads.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int output = ::open(errors.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (::getppid() != parent || output < 0)
        ::_exit(126);
    ::dup2(output, STDOUT_FILENO);
    ::dup2(output, STDERR_FILENO);
    ::execve(kProgram, const_cast<char**>(arguments.data()),
             const_cast<char**>(environment.data()));
    ::_exit(127);
}

bool NginxServer::HasEnded() {
    if (m_process >= 0 && ::waitpid(m_process, nullptr, WNOHANG) == m_process)
        m_process = -1;
    return m_process < 0;
}

bool NginxServer::AcceptsConnections() const {
    const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = LoopbackAddress(m_port);
    const bool accepts =
        ::connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    ::close(client);
    return accepts;
}

/// A single process that has nothing to finish needs no gentle end.
void NginxServer::Stop() {
    if (m_process >= 0) {
        ::kill(m_process, SIGKILL);
        ::waitpid(m_process, nullptr, 0);
    }
    ::close(m_reservation);
}

} // namespace Halvex::Testing
