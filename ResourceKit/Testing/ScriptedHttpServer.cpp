#include "ResourceKit/Testing/ScriptedHttpServer.h"

#include "Foundation/Mutex.h"
#include "ResourceKit/Testing/Event.h"
#include "ResourceKit/Testing/ServerTls.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <functional>
#include <list>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <thread>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Halvex::Kit::Testing {

namespace {

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

std::string ScriptedHttpServer::Request::Header(const std::string& name) const {
    for (const auto& [key, value] : headers) {
        if (::strcasecmp(key.c_str(), name.c_str()) == 0)
            return value;
    }
    return {};
}

/// One accepted socket and the thread that serves it. Only that thread reads, writes and closes;
/// Interrupt may come from another one and ends all of that.
class HALVEX_HIDDEN ScriptedHttpServer::Connection {
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
    bool m_open HALVEX_GUARDED_BY(m_mutex) = true;
};

struct HALVEX_HIDDEN ScriptedHttpServer::Impl {
    explicit Impl(std::optional<ServerCertificate> shown);
    ~Impl();

    void Accept();
    void Serve(Connection& connection);
    std::optional<Reply> AnswerToAnything() const;
    static std::optional<Request> Receive(Connection& connection);
    Reply Answer(const Request& request);
    static bool Send(Connection& connection, const Reply& reply);
    std::size_t RequestCountLocked(const std::string& path) const HALVEX_REQUIRES(mutex);

    const std::optional<ServerCertificate> certificate;
    int listener = -1;
    int port = 0;
    mutable Mutex mutex;
    std::condition_variable requested;
    std::map<std::string, std::vector<Reply>> script HALVEX_GUARDED_BY(mutex);
    std::map<std::string, std::size_t> answered HALVEX_GUARDED_BY(mutex);
    std::optional<Reply> answerToAnything HALVEX_GUARDED_BY(mutex);
    std::vector<Request> requests HALVEX_GUARDED_BY(mutex);
    int accepted HALVEX_GUARDED_BY(mutex) = 0;
    /// Touched by the accepting thread, and by the destructor once that one has ended.
    std::list<Connection> connections;
    std::thread acceptor;
};

ScriptedHttpServer::Impl::Impl(std::optional<ServerCertificate> shown)
    : certificate(std::move(shown)) {
    listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (listener < 0 || ::bind(listener, generic, size) != 0 ||
        ::listen(listener, SOMAXCONN) != 0 || ::getsockname(listener, generic, &size) != 0)
        throw std::runtime_error("cannot listen on the loopback interface");
    port = ntohs(address.sin_port);
    acceptor = std::thread([this] { Accept(); });
}

ScriptedHttpServer::Impl::~Impl() {
    ::shutdown(listener, SHUT_RDWR);
    acceptor.join();
    ::close(listener);
    // All at once first, so that none of them is waited for while others still run.
    for (Connection& connection : connections)
        connection.Interrupt();
    connections.clear();
}

ScriptedHttpServer::ScriptedHttpServer(std::optional<ServerCertificate> certificate)
    : m_impl(std::make_unique<Impl>(std::move(certificate))) {}

ScriptedHttpServer::~ScriptedHttpServer() = default;

void ScriptedHttpServer::On(const std::string& path, std::vector<Reply> replies) {
    const MutexLock lock(m_impl->mutex);
    m_impl->script[path] = std::move(replies);
    m_impl->answered[path] = 0;
}

void ScriptedHttpServer::AnswerAnything(Reply reply) {
    const MutexLock lock(m_impl->mutex);
    m_impl->answerToAnything = std::move(reply);
}

std::string ScriptedHttpServer::Url(const std::string& path) const {
    return (m_impl->certificate ? "https://127.0.0.1:" : "http://127.0.0.1:") +
           std::to_string(m_impl->port) + path;
}

int ScriptedHttpServer::Port() const {
    return m_impl->port;
}

std::vector<ScriptedHttpServer::Request> ScriptedHttpServer::Requests() const {
    const MutexLock lock(m_impl->mutex);
    return m_impl->requests;
}

std::size_t ScriptedHttpServer::RequestCount(const std::string& path) const {
    const MutexLock lock(m_impl->mutex);
    return m_impl->RequestCountLocked(path);
}

bool ScriptedHttpServer::WaitForRequests(const std::string& path, std::size_t count) const {
    const auto deadline = std::chrono::steady_clock::now() + kGenerousLimit;
    MutexLock lock(m_impl->mutex);
    while (m_impl->RequestCountLocked(path) < count &&
           lock.WaitUntil(m_impl->requested, deadline)) {
    }
    return m_impl->RequestCountLocked(path) >= count;
}

int ScriptedHttpServer::ConnectionCount() const {
    const MutexLock lock(m_impl->mutex);
    return m_impl->accepted;
}

std::optional<Reply> ScriptedHttpServer::Impl::AnswerToAnything() const {
    const MutexLock lock(mutex);
    return answerToAnything;
}

std::size_t ScriptedHttpServer::Impl::RequestCountLocked(const std::string& path) const {
    return static_cast<std::size_t>(
        std::count_if(requests.begin(), requests.end(),
                      [&](const Request& request) { return request.target == path; }));
}

void ScriptedHttpServer::Impl::Accept() {
    for (;;) {
        const int socket = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (socket < 0) {
            if (errno == ECONNABORTED || errno == EINTR)
                continue;
            return;
        }
        const int on = 1;
        ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        connections.remove_if([](const Connection& old) { return old.HasEnded(); });
        int number = 0;
        {
            const MutexLock lock(mutex);
            number = ++accepted;
        }
        Connection& connection = connections.emplace_back(socket, number);
        connection.Start([this, &connection] { Serve(connection); });
    }
}

void ScriptedHttpServer::Impl::Serve(Connection& connection) {
    if (certificate)
        BlockSigpipe();
    if (const std::optional<Reply> reply = AnswerToAnything()) {
        if (connection.WaitForBytes())
            Send(connection, *reply);
        connection.TakeAllBytes();
        return;
    }
    if (certificate && !connection.StartTls(*certificate))
        return;
    while (const std::optional<Request> request = Receive(connection)) {
        if (!Send(connection, Answer(*request)))
            return;
    }
}

/// Nothing: the connection has ended, or what it brings is no request.
std::optional<ScriptedHttpServer::Request>
ScriptedHttpServer::Impl::Receive(Connection& connection) {
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
        std::size_t bytes = 0;
        if (std::from_chars(length.data(), length.data() + length.size(), bytes).ec != std::errc())
            return std::nullopt;
        const std::optional<std::string> body = connection.ReceiveBytes(bytes);
        if (!body)
            return std::nullopt;
        request.body = *body;
    }
    return request;
}

Reply ScriptedHttpServer::Impl::Answer(const Request& request) {
    const MutexLock lock(mutex);
    requests.push_back(request);
    requested.notify_all();
    const auto found = script.find(request.target);
    if (found == script.end() || found->second.empty())
        return Reply::Status(404, "nothing is scripted here");
    const std::size_t next = answered[request.target]++;
    return found->second[std::min(next, found->second.size() - 1)];
}

/// True: the connection can carry a further reply.
bool ScriptedHttpServer::Impl::Send(Connection& connection, const Reply& reply) {
    if (!connection.Send(reply.Head()))
        return false;
    const std::uint64_t bodySize = reply.BodySize();
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
            piece.insert(0, InHexadecimal(piece.size()) + "\r\n").append("\r\n");
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

} // namespace Halvex::Kit::Testing
