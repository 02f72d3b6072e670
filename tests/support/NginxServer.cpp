#include "support/NginxServer.h"

#include "support/Waiting.h"

#include <sstream>

namespace Halvex::Testing {

namespace {

/// Writes the certificate beside the configuration, where the directives look for it. The versions
/// and the session cache are those of most servers; without them nginx resumes no session of a
/// client that takes no tickets in TLS 1.2.
std::string HttpsDirectives(const TemporaryFolder& folder, const LoopbackPort& port,
                            const NginxServer::Https& https) {
    folder.Write("certificate.pem", https.certificate.certificate);
    folder.Write("key.pem", https.certificate.privateKey);
    return "listen " + port.Address() + " ssl" + (https.http2 ? " http2" : "") + ";\n" +
           "ssl_certificate certificate.pem;\nssl_certificate_key key.pem;\n"
           "ssl_protocols TLSv1.2 TLSv1.3;\nssl_session_cache shared:sessions:1m;\n";
}

/// One process in the foreground. Relative paths are below the prefix. Of the two logs the last one
/// is written last, so that who waits for its line finds those of the other there too.
std::string Configuration(const std::string& serverDirectives) {
    return R"(
        daemon off;
        master_process off;
        pid nginx.pid;
        error_log error.log;
        events { worker_connections 1024; }
        http {
            log_format arrival '$connection $server_protocol $ssl_session_reused';
            log_format short '$request_method $request_uri $status $body_bytes_sent $http_range';
            access_log arrival.log arrival;
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
           serverDirectives + "} }\n";
}

std::vector<std::string> Command(const TemporaryFolder& folder, const std::string& directives) {
    const ioPath configuration = folder.Write("nginx.conf", Configuration(directives));
    return {"/usr/sbin/nginx",
            "-p",
            folder.Path(),
            "-c",
            configuration.string(),
            "-e",
            (folder / "error.log").string()};
}

} // namespace

NginxServer::NginxServer(const ioPath& folder, const std::string& directives,
                         const std::optional<Https>& https)
    : m_process(
          Command(m_folder, "listen " + m_port.Address() + ";\n" +
                                (https ? HttpsDirectives(m_folder, m_securePort, *https) : "") +
                                "root \"" + folder.string() + "\";\n" + directives),
          m_folder / "error.log") {
    m_process.WaitUntilItListens(m_port);
    if (https)
        m_process.WaitUntilItListens(m_securePort);
}

std::vector<NginxServer::Arrival> NginxServer::Arrivals() const {
    std::vector<Arrival> arrivals;
    for (const std::string& line : ReadLines(m_folder / "arrival.log")) {
        Arrival arrival;
        std::string session;
        std::istringstream(line) >> arrival.connection >> arrival.protocol >> session;
        arrival.resumedSession = session == "r";
        arrivals.push_back(arrival);
    }
    return arrivals;
}

bool NginxServer::WaitForRequests(std::size_t count) const {
    return WaitUntil([&] { return AccessLog().size() >= count; });
}

} // namespace Halvex::Testing
