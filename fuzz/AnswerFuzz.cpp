// Answers the native client with its input: the first byte says how the client asks, the rest is
// what the server sends, on one connection after the other where 0xff 0xff parts it.

#include "Networking/CurlHttpClient.h"

#include "Foundation/Mutex.h"
#include "support/TestAuthority.h"

#include <curl/curl.h>
#include <glog/logging.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <dlfcn.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

using namespace Halvex::Networking;

/// Sends, on each connection, the next answer and then its end.
class AnsweringServer {
public:
    AnsweringServer() {
        socklen_t size = sizeof(m_address);
        auto* const generic = reinterpret_cast<sockaddr*>(&m_address);
        m_address.sin_family = AF_INET;
        m_address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        CHECK_EQ(::bind(m_listener, generic, size), 0);
        CHECK_EQ(::listen(m_listener, SOMAXCONN), 0);
        CHECK_EQ(::getsockname(m_listener, generic, &size), 0);
        std::thread([this] { Serve(); }).detach();
    }

    const sockaddr_in& Address() const { return m_address; }
    std::string HostAndPort() const {
        return "127.0.0.1:" + std::to_string(ntohs(m_address.sin_port));
    }

    void SetAnswers(std::vector<std::string> answers) {
        const Halvex::MutexLock lock(m_mutex);
        m_answers = std::move(answers);
        m_next = 0;
        m_sentBytes = 0;
    }
    std::size_t SentBytes() {
        const Halvex::MutexLock lock(m_mutex);
        return m_sentBytes;
    }

private:
    std::string NextAnswer() {
        const Halvex::MutexLock lock(m_mutex);
        if (m_next == m_answers.size())
            return {};
        m_sentBytes += m_answers[m_next].size();
        return m_answers[m_next++];
    }

    /// Reads a request to its end, or as much of it as comes at once if it is none.
    static void TakeRequest(int socket) {
        std::string request;
        std::array<char, 4096> buffer;
        do {
            const ssize_t count = ::recv(socket, buffer.data(), buffer.size(), 0);
            if (count <= 0)
                return;
            request.append(buffer.data(), static_cast<std::size_t>(count));
        } while ((request.front() == 'G' || request.front() == 'C') &&
                 request.find("\r\n\r\n") == std::string::npos);
    }

    void Serve() {
        for (;;) {
            const int socket = ::accept(m_listener, nullptr, nullptr);
            CHECK_GE(socket, 0);
            TakeRequest(socket);
            const std::string answer = NextAnswer();
            ::send(socket, answer.data(), answer.size(), MSG_NOSIGNAL);
            ::close(socket);
        }
    }

    const int m_listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in m_address{};
    Halvex::Mutex m_mutex;
    std::vector<std::string> m_answers HALVEX_GUARDED_BY(m_mutex);
    std::size_t m_next HALVEX_GUARDED_BY(m_mutex) = 0;
    std::size_t m_sentBytes HALVEX_GUARDED_BY(m_mutex) = 0;
};

AnsweringServer& Server() {
    static auto& server = *new AnsweringServer;
    return server;
}

std::vector<std::string> Parts(std::string_view input) {
    constexpr std::string_view kSeparator = "\xff\xff";
    std::vector<std::string> parts;
    for (;;) {
        const std::size_t end = input.find(kSeparator);
        parts.emplace_back(input.substr(0, end));
        if (end == std::string_view::npos)
            return parts;
        input.remove_prefix(end + kSeparator.size());
    }
}

/// A file with one authority: the many of the system take longer to read than all else here.
std::string AuthorityFile() {
    const std::string content = Halvex::Testing::TestAuthority::Certificate();
    const int file = ::memfd_create("authority", 0);
    CHECK_EQ(::write(file, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    return "/proc/self/fd/" + std::to_string(file);
}

/// The bits of the first byte.
constexpr std::uint8_t kResumes = 1;
constexpr std::uint8_t kUsesProxy = 2;
constexpr std::uint8_t kGathersBody = 4;
constexpr std::uint8_t kUsesTls = 8;

bool IsDocumentedCode(std::int32_t code) {
    constexpr std::array kCodes{0, 3, 4, 8, 15, 1001};
    return std::find(kCodes.begin(), kCodes.end(), code) != kCodes.end();
}

/// The size that a response announces in a way that leaves no doubt; -1: it does not.
std::int64_t AnnouncedBytes(const Response& response) {
    std::string length;
    for (const auto& [name, value] : response.headers) {
        if (curl_strequal(name.c_str(), "Transfer-Encoding") != 0) {
            // Behind any other coding nobody knows where the body ends.
            CHECK(curl_strequal(value.c_str(), "chunked") != 0) << value;
            return -1;
        }
        if (curl_strequal(name.c_str(), "Content-Length") != 0)
            length = value;
    }
    const bool isNumber = !length.empty() && length.size() < 18 &&
                          length.find_first_not_of("0123456789") == std::string::npos;
    return isNumber ? std::stoll(length) : -1;
}

// Time that the client spends waiting for nothing but its end.

std::atomic<std::int64_t> g_skippedNanoseconds{0};
bool g_isTransferring = false;

} // namespace

std::chrono::steady_clock::time_point
RealNow() __asm__("__real__ZNSt6chrono3_V212steady_clock3nowEv");
std::chrono::steady_clock::time_point
SkippingNow() __asm__("__wrap__ZNSt6chrono3_V212steady_clock3nowEv");

std::chrono::steady_clock::time_point SkippingNow() {
    return RealNow() + std::chrono::nanoseconds(g_skippedNanoseconds);
}

extern "C" {

CURLMcode __real_curl_multi_add_handle(CURLM* multi, CURL* easy);
CURLMcode __real_curl_multi_remove_handle(CURLM* multi, CURL* easy);
CURLMcode __real_curl_multi_poll(CURLM* multi, curl_waitfd* more, unsigned count, int milliseconds,
                                 int* ready);

CURLMcode __wrap_curl_multi_add_handle(CURLM* multi, CURL* easy) {
    g_isTransferring = true;
    return __real_curl_multi_add_handle(multi, easy);
}

CURLMcode __wrap_curl_multi_remove_handle(CURLM* multi, CURL* easy) {
    g_isTransferring = false;
    return __real_curl_multi_remove_handle(multi, easy);
}

CURLMcode __wrap_curl_multi_poll(CURLM* multi, curl_waitfd* more, unsigned count, int milliseconds,
                                 int* ready) {
    if (g_isTransferring)
        return __real_curl_multi_poll(multi, more, count, milliseconds, ready);
    g_skippedNanoseconds += std::int64_t{milliseconds} * 1'000'000;
    return CURLM_OK;
}

// Wherever the client is sent, it gets no further than to the server here.

__attribute__((visibility("default"))) int connect(int socket, const sockaddr* address,
                                                   socklen_t size) {
    if (address->sa_family == AF_INET) {
        address = reinterpret_cast<const sockaddr*>(&Server().Address());
        size = sizeof(sockaddr_in);
    } else if (address->sa_family != AF_UNSPEC) {
        errno = ECONNREFUSED;
        return -1;
    }
    return static_cast<int>(::syscall(SYS_connect, socket, address, size));
}

__attribute__((visibility("default"))) int getaddrinfo(const char*, const char* service,
                                                       const addrinfo* hints, addrinfo** result) {
    static const auto next =
        reinterpret_cast<decltype(&::getaddrinfo)>(::dlsym(RTLD_NEXT, "getaddrinfo"));
    return next("127.0.0.1", service, hints, result);
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static CurlHttpClient client(AuthorityFile());
    if (size == 0)
        return 0;
    const std::uint8_t bits = *data;
    const bool gathersBody = (bits & kGathersBody) != 0;
    Server().SetAnswers(Parts({reinterpret_cast<const char*>(data) + 1, size - 1}));

    std::size_t deliveredBytes = 0;
    std::size_t progress = 0;
    Options options;
    options.timeout = 60'000'000;
    options.resume = {(bits & kResumes) != 0, 3};
    if ((bits & kUsesProxy) != 0)
        options.proxy = "http://" + Server().HostAndPort();
    options.cancellationQuery = [] {
        return false;
    };
    options.progressCallback = [&](std::size_t received, std::size_t total) {
        CHECK_GT(received, progress);
        CHECK_NE(total, 0U);
        progress = received;
    };
    if (!gathersBody)
        options.dataCallback = [&](const std::string& piece) {
            deliveredBytes += piece.size();
        };
    Request request;
    request.url =
        Url(((bits & kUsesTls) != 0 ? "https://" : "http://") + Server().HostAndPort() + "/file");
    request.headers = {{"Authorization", "secret"}};
    const Response response = client.get(request, options);

    deliveredBytes += response.body.size();
    CHECK_LE(deliveredBytes, Server().SentBytes());
    CHECK_LE(progress, Server().SentBytes());
    CHECK(IsDocumentedCode(response.errorCode)) << response.errorCode;
    // Nobody cancels, and nothing here takes long.
    CHECK_NE(response.errorCode, 15);
    CHECK_NE(response.errorCode, 1001);
    CHECK_EQ(response.errorText.empty(), response.errorCode == 0);
    if (response.errorCode != 0) {
        CHECK_EQ(response.body, "");
        return 0;
    }
    CHECK(response.status == 200 || response.status == 203) << response.status;
    CHECK_EQ(progress, deliveredBytes);
    const std::int64_t announced = AnnouncedBytes(response);
    CHECK(announced < 0 || static_cast<std::size_t>(announced) == deliveredBytes)
        << announced << " announced, delivered " << deliveredBytes;
    return 0;
}

} // extern "C"
