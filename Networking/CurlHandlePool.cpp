#include "Networking/CurlHandlePool.h"

#include <openssl/ssl.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <new>
#include <optional>
#include <utility>

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Halvex::Networking {

namespace {

/// Once per process, before anything else of curl is used.
void InitialiseCurl() {
    static const CURLcode result = curl_global_init(CURL_GLOBAL_DEFAULT);
    if (result != CURLE_OK)
        throw std::bad_alloc();
}

template <typename Handle>
Handle* OrBadAlloc(Handle* handle) {
    if (handle == nullptr)
        throw std::bad_alloc();
    return handle;
}

sigset_t SigpipeSet() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    return set;
}

void OnTlsEvent(const SSL* connection, int event, int value) {
    constexpr int kAlertMask = 0xff;
    if (event == SSL_CB_READ_ALERT && (value & kAlertMask) == SSL_AD_CLOSE_NOTIFY)
        static_cast<CurlHandle*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(connection)))
            ->NoteTlsEnd(connection);
}

/// A connection stays with the handle that opened it.
CURLcode OnTlsContext(CURL*, void* context, void* handlePointer) {
    auto* const tls = static_cast<SSL_CTX*>(context);
    auto* const handle = static_cast<CurlHandle*>(handlePointer);
    handle->usesTls = true;
    SSL_CTX_set_app_data(tls, handle);
    SSL_CTX_set_info_callback(tls, &OnTlsEvent);
    X509_STORE* store = handle->authorities.Store();
    if (store == nullptr)
        return CURLE_SSL_CACERT_BADFILE;
    SSL_CTX_set1_cert_store(tls, store);
    return CURLE_OK;
}

/// Nothing when it cannot be told.
std::optional<ino_t> InodeOf(int socket) {
    struct stat status {};
    return ::fstat(socket, &status) == 0 ? std::optional(status.st_ino) : std::nullopt;
}

bool IsReadable(int socket) {
    pollfd poll{socket, POLLIN, 0};
    return ::poll(&poll, 1, 0) > 0;
}

/// So that curl sees that the connection is not to be used again.
void Disconnect(int socket) {
    sockaddr nobody{};
    nobody.sa_family = AF_UNSPEC;
    (void)::connect(socket, &nobody, sizeof(nobody));
}

/// Where curl was built to look for the system's authorities; null: nowhere.
const char* SystemFile() {
    return curl_version_info(CURLVERSION_NOW)->cainfo;
}
const char* SystemFolder() {
    return curl_version_info(CURLVERSION_NOW)->capath;
}

bool IsSigpipePending() {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGPIPE) == 1;
}

} // namespace

TlsAuthorities::~TlsAuthorities() {
    X509_STORE_free(m_store);
}

X509_STORE* TlsAuthorities::Store() {
    const MutexLock lock(m_mutex);
    if (m_store != nullptr)
        return m_store;
    const char* const file = m_file.empty() ? SystemFile() : m_file.c_str();
    const char* const folder = m_file.empty() ? SystemFolder() : nullptr;
    X509_STORE* const store = X509_STORE_new();
    // Not by an exception: curl is on the way to whom this matters.
    if (store == nullptr)
        return nullptr;
    // An intermediate authority in the store is trusted as well, as curl has it.
    X509_STORE_set_flags(store, X509_V_FLAG_TRUSTED_FIRST | X509_V_FLAG_PARTIAL_CHAIN);
    const bool hasFile = file != nullptr && X509_STORE_load_file(store, file) == 1;
    const bool hasFolder = folder != nullptr && X509_STORE_load_path(store, folder) == 1;
    if (hasFile || hasFolder)
        return m_store = store;
    X509_STORE_free(store);
    return nullptr;
}

CurlHandle::CurlHandle(CURLSH* shared, TlsAuthorities& trusted)
    : easy(OrBadAlloc(curl_easy_init())), multi(curl_multi_init()), share(shared),
      authorities(trusted) {
    if (multi == nullptr) {
        curl_easy_cleanup(easy);
        throw std::bad_alloc();
    }
}

CurlHandle::~CurlHandle() {
    std::optional<SigpipeBlock> block;
    if (usesTls)
        block.emplace();
    curl_easy_cleanup(easy);
    curl_multi_cleanup(multi);
}

void CurlHandle::Renew() {
    curl_easy_cleanup(std::exchange(easy, OrBadAlloc(curl_easy_init())));
}

curl_socket_t CurlHandle::OnOpen(void* handle, curlsocktype, curl_sockaddr* address) {
    auto& self = *static_cast<CurlHandle*>(handle);
    const int socket =
        ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
    // One that was closed had the same number.
    const auto known = self.FindKept(socket);
    if (known != self.m_kept.end())
        self.m_kept.erase(known);
    return socket;
}

std::vector<CurlHandle::Connection>::iterator CurlHandle::FindKept(int socket) {
    return std::find_if(m_kept.begin(), m_kept.end(),
                        [socket](const Connection& kept) { return kept.socket == socket; });
}

void CurlHandle::PrepareConnections() {
    curl_easy_setopt(easy, CURLOPT_OPENSOCKETFUNCTION, &CurlHandle::OnOpen);
    curl_easy_setopt(easy, CURLOPT_OPENSOCKETDATA, this);
    // Not what curl would read anew for each handle.
    for (const CURLoption option :
         {CURLOPT_CAINFO, CURLOPT_CAPATH, CURLOPT_PROXY_CAINFO, CURLOPT_PROXY_CAPATH})
        curl_easy_setopt(easy, option, nullptr);
    curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, &OnTlsContext);
    curl_easy_setopt(easy, CURLOPT_SSL_CTX_DATA, this);
}

void CurlHandle::NoteConnection() {
    curl_socket_t socket = CURL_SOCKET_BAD;
    long version = CURL_HTTP_VERSION_NONE;
    curl_easy_getinfo(easy, CURLINFO_ACTIVESOCKET, &socket);
    curl_easy_getinfo(easy, CURLINFO_HTTP_VERSION, &version);
    const bool isHttp1 = version == CURL_HTTP_VERSION_1_0 || version == CURL_HTTP_VERSION_1_1;
    if (socket == CURL_SOCKET_BAD || !isHttp1 || FindKept(socket) != m_kept.end())
        return;
    if (const std::optional<ino_t> inode = InodeOf(socket))
        m_kept.push_back({socket, *inode});
}

void CurlHandle::EndUnasked() {
    const auto isOver = [](const Connection& kept) {
        if (!IsReadable(kept.socket))
            return false;
        if (InodeOf(kept.socket) == kept.inode)
            Disconnect(kept.socket);
        return true;
    };
    m_kept.erase(std::remove_if(m_kept.begin(), m_kept.end(), isOver), m_kept.end());
}

void CurlHandle::NoteAnswer() {
    // The connection that answers is alive; the one that was tried before it may have ended.
    m_tlsEnded = false;
    if (!usesTls)
        return;
    const curl_tlssessioninfo* session = nullptr;
    curl_easy_getinfo(easy, CURLINFO_TLS_SSL_PTR, &session);
    m_answering = session == nullptr ? nullptr : session->internals;
}

void CurlHandle::NoteTlsEnd(const SSL* connection) {
    m_tlsEnded = m_tlsEnded || connection == m_answering;
}

CurlHandlePool::CurlHandlePool(std::string authorityFile)
    : m_authorities(std::move(authorityFile)),
      m_share((InitialiseCurl(), OrBadAlloc<void>(curl_share_init()))) {
    curl_share_setopt(m_share, CURLSHOPT_USERDATA, this);
    curl_share_setopt(m_share, CURLSHOPT_LOCKFUNC, &CurlHandlePool::Lock);
    curl_share_setopt(m_share, CURLSHOPT_UNLOCKFUNC, &CurlHandlePool::Unlock);
    curl_share_setopt(m_share, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    curl_share_setopt(m_share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
}

CurlHandlePool::~CurlHandlePool() {
    {
        const MutexLock lock(m_mutex);
        m_idle.clear();
    }
    curl_share_cleanup(m_share);
}

std::unique_ptr<CurlHandle> CurlHandlePool::Borrow() {
    {
        const MutexLock lock(m_mutex);
        if (!m_idle.empty()) {
            std::unique_ptr<CurlHandle> handle = std::move(m_idle.back());
            m_idle.pop_back();
            return handle;
        }
    }
    return std::make_unique<CurlHandle>(m_share, m_authorities);
}

void CurlHandlePool::GiveBack(std::unique_ptr<CurlHandle> handle) {
    const MutexLock lock(m_mutex);
    m_idle.push_back(std::move(handle));
}

// The lock is held from one callback to the other, which the analysis cannot follow.
void CurlHandlePool::Lock(CURL*, curl_lock_data data, curl_lock_access,
                          void* pool) HALVEX_NO_THREAD_SAFETY_ANALYSIS {
    static_cast<CurlHandlePool*>(pool)->m_shareMutexes[data].lock();
}

void CurlHandlePool::Unlock(CURL*, curl_lock_data data,
                            void* pool) HALVEX_NO_THREAD_SAFETY_ANALYSIS {
    static_cast<CurlHandlePool*>(pool)->m_shareMutexes[data].unlock();
}

SigpipeBlock::SigpipeBlock() : m_wasPending(IsSigpipePending()) {
    const sigset_t set = SigpipeSet();
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &set, &before);
    m_wasBlocked = sigismember(&before, SIGPIPE) == 1;
}

SigpipeBlock::~SigpipeBlock() {
    const sigset_t set = SigpipeSet();
    if (!m_wasPending && IsSigpipePending()) {
        const timespec now{};
        sigtimedwait(&set, nullptr, &now);
    }
    if (!m_wasBlocked)
        pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

} // namespace Halvex::Networking
