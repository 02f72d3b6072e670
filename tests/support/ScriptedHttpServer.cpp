#include "support/ScriptedHttpServer.h"

#include "support/ServerTls.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Halvex::Testing {

namespace {

/// The eight bytes at the n-th multiple of eight.
std::uint64_t Scramble(std::uint64_t n, std::uint64_t seed) {
    std::uint64_t word = (n + 1) * 0x9E3779B97F4A7C15u + seed * 0xD1B54A32D192ED03u;
    word = (word ^ (word >> 30)) * 0xBF58476D1CE4E5B9u;
    word = (word ^ (word >> 27)) * 0x94D049BB133111EBu;
    return word ^ (word >> 31);
}

std::string ReasonPhrase(int status) {
    static const std::map<int, std::string> kPhrases = {
        {200, "OK"},
        {204, "No Content"},
        {206, "Partial Content"},
        {301, "Moved Permanently"},
        {302, "Found"},
        {303, "See Other"},
        {304, "Not Modified"},
        {307, "Temporary Redirect"},
        {308, "Permanent Redirect"},
        {401, "Unauthorized"},
        {403, "Forbidden"},
        {404, "Not Found"},
        {416, "Range Not Satisfiable"},
        {500, "Internal Server Error"},
        {503, "Service Unavailable"},
    };
    const auto found = kPhrases.find(status);
    return found == kPhrases.end() ? "Status" : found->second;
}

bool HasNoBody(int status) {
    return status == 204 || status == 304;
}

void AppendLittleEndian(std::string& bytes, std::uint32_t value, int size) {
    for (int i = 0; i < size; ++i)
        bytes += static_cast<char>(value >> (8 * i));
}

std::uint32_t Crc32(std::string_view bytes) {
    std::uint32_t crc = 0xFFFFFFFFu;
    for (const char byte : bytes) {
        crc ^= static_cast<unsigned char>(byte);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xEDB88320u : 0);
    }
    return ~crc;
}

/// OpenSSL does not keep it from coming.
void BlockSigpipe() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

std::string InHexadecimal(std::size_t value) {
    std::array<char, 20> text{};
    std::snprintf(text.data(), text.size(), "%zx", value);
    return text.data();
}

} // namespace

std::string GzipStored(const std::string& body) {
    std::string bytes("\x1f\x8b\x08\0\0\0\0\0\0\xff", 10);
    std::size_t offset = 0;
    do {
        const std::size_t size = std::min<std::size_t>(body.size() - offset, 0xFFFF);
        bytes += offset + size == body.size() ? '\1' : '\0';
        AppendLittleEndian(bytes, static_cast<std::uint32_t>(size), 2);
        AppendLittleEndian(bytes, ~static_cast<std::uint32_t>(size), 2);
        bytes.append(body, offset, size);
        offset += size;
    } while (offset < body.size());
    AppendLittleEndian(bytes, Crc32(body), 4);
    AppendLittleEndian(bytes, static_cast<std::uint32_t>(body.size()), 4);
    return bytes;
}

std::string GeneratedBytes(std::uint64_t offset, std::size_t size, std::uint64_t seed) {
    const std::size_t before = offset % 8;
    std::string bytes((before + size + 7) / 8 * 8, '\0');
    for (std::size_t i = 0; i < bytes.size(); i += 8) {
        const std::uint64_t word = Scramble(offset / 8 + i / 8, seed);
        std::memcpy(&bytes[i], &word, sizeof(word));
    }
    return bytes.substr(before, size);
}

Reply Reply::Ok(std::string body) {
    return Status(200, std::move(body));
}

Reply Reply::Generated(std::uint64_t size, std::uint64_t seed) {
    Reply reply;
    reply.m_generated = {size, seed};
    return reply;
}

Reply Reply::Gzip(const std::string& body) {
    return Ok(GzipStored(body)).Header("Content-Encoding", "gzip");
}

Reply Reply::Status(int status, std::string body) {
    Reply reply;
    reply.m_status = status;
    reply.m_body = std::move(body);
    return reply;
}

Reply Reply::Redirect(const std::string& location, int status, std::string body) {
    return Status(status, std::move(body)).Header("Location", location);
}

Reply Reply::Raw(std::string bytes) {
    Reply reply;
    reply.m_raw = true;
    reply.m_body = std::move(bytes);
    return reply;
}

Reply Reply::Flood(std::string first, std::string repeated) {
    Reply reply = Raw(std::move(first));
    reply.m_repeated = std::move(repeated);
    return reply;
}

Reply Reply::Silence() {
    return Raw({}).StallAt(0);
}

std::string Reply::Head() const {
    if (m_raw)
        return {};
    std::string head =
        "HTTP/1.1 " + std::to_string(m_status) + " " + ReasonPhrase(m_status) + "\r\n";
    for (const auto& [name, value] : m_headers)
        head += name + ": " + value + "\r\n";
    if (m_chunkBytes != 0)
        head += "Transfer-Encoding: chunked\r\n";
    else if (m_sendLength && !HasNoBody(m_status))
        head += "Content-Length: " + std::to_string(m_announced.value_or(BodySize())) + "\r\n";
    return head + "\r\n";
}

std::uint64_t Reply::BodySize() const {
    if (!m_repeated.empty())
        return std::numeric_limits<std::uint64_t>::max() - 1;
    return m_generated ? m_generated->first : m_body.size();
}

std::string Reply::BodyPart(std::uint64_t offset, std::size_t size) const {
    if (!m_repeated.empty()) {
        std::string part;
        if (offset < m_body.size())
            part = m_body.substr(offset, size);
        else
            part = m_repeated.substr((offset - m_body.size()) % m_repeated.size());
        while (part.size() < size)
            part += m_repeated;
        return part.substr(0, size);
    }
    return m_generated ? GeneratedBytes(offset, size, m_generated->second)
                       : m_body.substr(offset, size);
}

bool Reply::ClosesConnection() const {
    if (m_keepOpen)
        return false;
    const bool endIsTold = m_chunkBytes != 0 || m_sendLength || HasNoBody(m_status);
    return m_close || m_raw || m_announced || m_cutAfter || !endIsTold;
}

std::string ScriptedHttpServer::Request::Header(const std::string& name) const {
    for (const auto& [key, value] : headers) {
        if (::strcasecmp(key.c_str(), name.c_str()) == 0)
            return value;
    }
    return {};
}

/// One accepted socket and the thread that serves it. Only that thread reads, writes and closes;
/// Interrupt may come from another one and ends all of that.
class ScriptedHttpServer::Connection {
public:
    Connection(int socket, int number) : m_number(number), m_socket(socket) {}
    ~Connection() {
        Interrupt();
        m_thread.join();
    }

    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void Start(std::function<void()> serve) {
        m_thread = std::thread([this, serve = std::move(serve)] {
            serve();
            Close();
            m_ended = true;
        });
    }

    int Number() const { return m_number; }
    bool HasEnded() const { return m_ended; }

    /// Waits for the first bytes and leaves them where they are.
    bool WaitForBytes() {
        char first = 0;
        return ::recv(m_socket, &first, 1, MSG_PEEK) == 1;
    }

    /// So that the connection ends in an orderly way: unread bytes would make it a reset.
    void TakeAllBytes() {
        std::array<char, 16 * 1024> buffer;
        while (::recv(m_socket, buffer.data(), buffer.size(), MSG_DONTWAIT) > 0)
            continue;
    }

    /// False: there is no handshake.
    bool StartTls(const ServerCertificate& certificate) {
        try {
            m_tls = std::make_unique<ServerTls>(m_socket, certificate);
        } catch (const std::runtime_error&) {
            return false;
        }
        return true;
    }

    void SayGoodbye() {
        if (m_tls)
            m_tls->SayGoodbye();
    }

    void Interrupt() {
        const MutexLock lock(m_mutex);
        if (m_open)
            ::shutdown(m_socket, SHUT_RDWR);
    }

    void Close() {
        const MutexLock lock(m_mutex);
        if (m_open)
            ::close(m_socket);
        m_open = false;
    }

    /// Makes Close reset the connection.
    void ResetOnClose() {
        const linger now{1, 0};
        ::setsockopt(m_socket, SOL_SOCKET, SO_LINGER, &now, sizeof(now));
    }

    bool Send(std::string_view bytes) {
        if (m_tls)
            return m_tls->Send(bytes);
        while (!bytes.empty()) {
            const ssize_t sent = ::send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent <= 0)
                return false;
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        }
        return true;
    }

    /// The next line without its end; nothing when the connection has ended.
    std::optional<std::string> ReceiveLine() {
        std::size_t end = std::string::npos;
        while ((end = m_unread.find("\r\n")) == std::string::npos) {
            if (!Receive())
                return std::nullopt;
        }
        std::string line = m_unread.substr(0, end);
        m_unread.erase(0, end + 2);
        return line;
    }

    std::optional<std::string> ReceiveBytes(std::size_t size) {
        while (m_unread.size() < size) {
            if (!Receive())
                return std::nullopt;
        }
        std::string bytes = m_unread.substr(0, size);
        m_unread.erase(0, size);
        return bytes;
    }

    /// Waits until the other end has gone or the connection is interrupted. False: it was neither
    /// within the limit; a negative one is none.
    bool WaitUntilGone(std::chrono::milliseconds limit) {
        pollfd waited{m_socket, POLLRDHUP, 0};
        return ::poll(&waited, 1, static_cast<int>(limit.count())) != 0;
    }

private:
    bool Receive() {
        if (m_tls) {
            const std::optional<std::string> received = m_tls->Receive();
            m_unread += received.value_or("");
            return received.has_value();
        }
        std::array<char, 16 * 1024> buffer;
        const ssize_t received = ::recv(m_socket, buffer.data(), buffer.size(), 0);
        if (received <= 0)
            return false;
        m_unread.append(buffer.data(), static_cast<std::size_t>(received));
        return true;
    }

    const int m_number;
    const int m_socket;
    std::string m_unread;
    std::unique_ptr<ServerTls> m_tls;
    std::thread m_thread;
    /// Set by the serving thread, for the accepting one to clear up.
    std::atomic<bool> m_ended{false};
    Mutex m_mutex;
    bool m_open GUARDED_BY(m_mutex) = true;
};

ScriptedHttpServer::ScriptedHttpServer(std::optional<ServerCertificate> certificate)
    : m_certificate(std::move(certificate)) {
    m_listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (m_listener < 0 || ::bind(m_listener, generic, size) != 0 ||
        ::listen(m_listener, SOMAXCONN) != 0 || ::getsockname(m_listener, generic, &size) != 0)
        throw std::runtime_error("cannot listen on the loopback interface");
    m_port = ntohs(address.sin_port);
    m_acceptor = std::thread([this] { Accept(); });
}

ScriptedHttpServer::~ScriptedHttpServer() {
    ::shutdown(m_listener, SHUT_RDWR);
    m_acceptor.join();
    ::close(m_listener);
    // All at once first, so that none of them is waited for while others still run.
    for (Connection& connection : m_connections)
        connection.Interrupt();
    m_connections.clear();
}

void ScriptedHttpServer::On(const std::string& path, std::vector<Reply> replies) {
    const MutexLock lock(m_mutex);
    m_script[path] = std::move(replies);
    m_answered[path] = 0;
}

void ScriptedHttpServer::AnswerAnything(Reply reply) {
    const MutexLock lock(m_mutex);
    m_answerToAnything = std::move(reply);
}

std::optional<Reply> ScriptedHttpServer::AnswerToAnything() const {
    const MutexLock lock(m_mutex);
    return m_answerToAnything;
}

std::string ScriptedHttpServer::Url(const std::string& path) const {
    return (m_certificate ? "https://127.0.0.1:" : "http://127.0.0.1:") + std::to_string(m_port) +
           path;
}

std::vector<ScriptedHttpServer::Request> ScriptedHttpServer::Requests() const {
    const MutexLock lock(m_mutex);
    return m_requests;
}

std::size_t ScriptedHttpServer::RequestCount(const std::string& path) const {
    const MutexLock lock(m_mutex);
    return RequestCountLocked(path);
}

bool ScriptedHttpServer::WaitForRequests(const std::string& path, std::size_t count) const {
    const auto deadline = std::chrono::steady_clock::now() + kGenerousLimit;
    MutexLock lock(m_mutex);
    while (RequestCountLocked(path) < count) {
        if (!lock.WaitUntil(m_requested, deadline))
            return RequestCountLocked(path) >= count;
    }
    return true;
}

int ScriptedHttpServer::ConnectionCount() const {
    const MutexLock lock(m_mutex);
    return m_accepted;
}

std::size_t ScriptedHttpServer::RequestCountLocked(const std::string& path) const {
    return static_cast<std::size_t>(
        std::count_if(m_requests.begin(), m_requests.end(),
                      [&](const Request& request) { return request.target == path; }));
}

void ScriptedHttpServer::Accept() {
    for (;;) {
        const int socket = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (socket < 0) {
            if (errno == ECONNABORTED || errno == EINTR)
                continue;
            return;
        }
        const int on = 1;
        ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        m_connections.remove_if([](const Connection& old) { return old.HasEnded(); });
        int number = 0;
        {
            const MutexLock lock(m_mutex);
            number = ++m_accepted;
        }
        Connection& connection = m_connections.emplace_back(socket, number);
        connection.Start([this, &connection] { Serve(connection); });
    }
}

void ScriptedHttpServer::Serve(Connection& connection) {
    if (m_certificate)
        BlockSigpipe();
    if (const std::optional<Reply> reply = AnswerToAnything()) {
        if (connection.WaitForBytes())
            Send(connection, *reply);
        connection.TakeAllBytes();
        return;
    }
    if (m_certificate && !connection.StartTls(*m_certificate))
        return;
    while (const std::optional<Request> request = Receive(connection)) {
        if (!Send(connection, Answer(*request)))
            return;
    }
}

/// Nothing: the connection has ended, or what it brings is no request.
std::optional<ScriptedHttpServer::Request> ScriptedHttpServer::Receive(Connection& connection) {
    Request request;
    request.connection = connection.Number();
    const std::string first = connection.ReceiveLine().value_or("");
    if (!(std::istringstream(first) >> request.method >> request.target))
        return std::nullopt;
    for (;;) {
        const std::optional<std::string> line = connection.ReceiveLine();
        if (!line)
            return std::nullopt;
        if (line->empty())
            break;
        const std::size_t colon = std::min(line->find(':'), line->size());
        const std::size_t value = std::min(line->find_first_not_of(": ", colon), line->size());
        request.headers.emplace_back(line->substr(0, colon), line->substr(value));
    }
    const std::string length = request.Header("Content-Length");
    if (!length.empty()) {
        const std::optional<std::string> body = connection.ReceiveBytes(std::stoul(length));
        if (!body)
            return std::nullopt;
        request.body = *body;
    }
    return request;
}

Reply ScriptedHttpServer::Answer(const Request& request) {
    const MutexLock lock(m_mutex);
    m_requests.push_back(request);
    m_requested.notify_all();
    const auto script = m_script.find(request.target);
    if (script == m_script.end() || script->second.empty())
        return Reply::Status(404, "nothing is scripted here");
    const std::size_t next = m_answered[request.target]++;
    return script->second[std::min(next, script->second.size() - 1)];
}

/// True: the connection can carry a further reply.
bool ScriptedHttpServer::Send(Connection& connection, const Reply& reply) {
    if (!connection.Send(reply.Head()))
        return false;
    const std::uint64_t bodySize = HasNoBody(reply.m_status) ? 0 : reply.BodySize();
    const std::uint64_t end = std::min(bodySize, reply.m_cutAfter.value_or(bodySize));
    const std::uint64_t stallAt = reply.m_stallAt.value_or(end + 1);
    std::uint64_t offset = 0;
    for (;;) {
        if (offset == std::min(stallAt, end) && reply.m_stallAt) {
            // The event cannot be waited for together with the socket, so they take turns.
            const std::chrono::milliseconds turn(reply.m_release != nullptr ? 10 : -1);
            while (reply.m_release == nullptr || !reply.m_release->IsSet()) {
                if (connection.WaitUntilGone(turn))
                    return false;
            }
        }
        if (offset == end)
            break;
        std::uint64_t size = std::min<std::uint64_t>(end - offset, reply.m_pieceBytes);
        if (reply.m_chunkBytes != 0)
            size = std::min<std::uint64_t>(size, reply.m_chunkBytes);
        if (offset < stallAt)
            size = std::min(size, stallAt - offset);
        std::string piece = reply.BodyPart(offset, size);
        if (reply.m_chunkBytes != 0)
            piece = InHexadecimal(piece.size()) + "\r\n" + piece + "\r\n";
        if (!connection.Send(piece))
            return false;
        offset += size;
        if (reply.m_pause.count() > 0 && connection.WaitUntilGone(reply.m_pause))
            return false;
    }
    if (reply.m_reset)
        connection.ResetOnClose();
    if (reply.m_chunkBytes != 0 && !reply.m_cutAfter && !connection.Send("0\r\n\r\n"))
        return false;
    if (!reply.ClosesConnection())
        return true;
    if (reply.m_goodbye && !reply.m_reset)
        connection.SayGoodbye();
    return false;
}

} // namespace Halvex::Testing
