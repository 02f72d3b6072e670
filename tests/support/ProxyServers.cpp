#include "support/ProxyServers.h"

namespace Halvex::Testing {

namespace {

constexpr const char* kOutput = "output.log";

std::vector<std::string> TinyproxyCommand(const TemporaryFolder& folder, const LoopbackPort& port,
                                          const std::string& directives) {
    const ioPath configuration =
        folder.Write("tinyproxy.conf", "Listen 127.0.0.1\nPort " + std::to_string(port.Number()) +
                                           "\nLogLevel Connect\n" + directives + "\n");
    return {"/usr/bin/tinyproxy", "-d", "-c", configuration.string()};
}

/// What follows the mark in each line of a file that has it.
std::vector<std::string> AfterMark(const ioPath& path, const std::string& mark) {
    std::vector<std::string> found;
    for (const std::string& line : ReadLines(path)) {
        const std::size_t at = line.find(mark);
        if (at != std::string::npos)
            found.push_back(line.substr(at + mark.size()));
    }
    return found;
}

} // namespace

HttpProxyServer::HttpProxyServer(const std::string& directives)
    : m_process(TinyproxyCommand(m_folder, m_port, directives), m_folder / kOutput) {
    m_process.WaitUntilItListens(m_port);
}

std::vector<std::string> HttpProxyServer::Requests() const {
    std::vector<std::string> requests = AfterMark(m_folder / kOutput, "Request (file descriptor ");
    for (std::string& request : requests)
        request.erase(0, request.find("): ") + 3);
    return requests;
}

SocksProxyServer::SocksProxyServer()
    : m_process({"/usr/bin/microsocks", "-i", "127.0.0.1", "-p", std::to_string(m_port.Number())},
                m_folder / kOutput) {
    m_process.WaitUntilItListens(m_port);
}

std::vector<std::string> SocksProxyServer::Targets() const {
    return AfterMark(m_folder / kOutput, ": connected to ");
}

} // namespace Halvex::Testing
