#include "Networking/CurlHandlePool.h"

#include <openssl/ssl.h>

#include <csignal>
#include <ctime>
#include <new>
#include <utility>

#include <poll.h>

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
        static_cast<CurlHandle*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(connection)))->tlsEnded =
            true;
}

/// A connection stays with the handle that opened it.
CURLcode PrepareTls(CURL*, void* context, void* handle) {
    SSL_CTX_set_app_data(static_cast<SSL_CTX*>(context), handle);
    SSL_CTX_set_info_callback(static_cast<SSL_CTX*>(context), &OnTlsEvent);
    return CURLE_OK;
}

bool IsSigpipePending() {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGPIPE) == 1;
}

} // namespace

CurlHandle::CurlHandle() : easy(OrBadAlloc(curl_easy_init())), multi(curl_multi_init()) {
    if (multi == nullptr) {
        curl_easy_cleanup(easy);
        throw std::bad_alloc();
    }
}

CurlHandle::~CurlHandle() {
    curl_easy_cleanup(easy);
    curl_multi_cleanup(multi);
}

void CurlHandle::WatchTlsEnd() {
    curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, &PrepareTls);
    curl_easy_setopt(easy, CURLOPT_SSL_CTX_DATA, this);
}

bool CurlHandle::HasUnaskedData() const {
    pollfd query{plainSocket, POLLIN, 0};
    return plainSocket != CURL_SOCKET_BAD && ::poll(&query, 1, 0) != 0;
}

CurlHandlePool::CurlHandlePool()
    : m_share((InitialiseCurl(), OrBadAlloc<void>(curl_share_init()))) {
    curl_share_setopt(m_share, CURLSHOPT_USERDATA, this);
    curl_share_setopt(m_share, CURLSHOPT_LOCKFUNC, &CurlHandlePool::Lock);
    curl_share_setopt(m_share, CURLSHOPT_UNLOCKFUNC, &CurlHandlePool::Unlock);
    curl_share_setopt(m_share, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    curl_share_setopt(m_share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
}

CurlHandlePool::~CurlHandlePool() {
    const SigpipeBlock block;
    {
        const MutexLock lock(m_mutex);
        m_idle.clear();
    }
    curl_share_cleanup(m_share);
}

std::unique_ptr<CurlHandle> CurlHandlePool::Borrow() {
    std::unique_ptr<CurlHandle> handle = TakeIdle();
    while (handle && handle->HasUnaskedData())
        handle = TakeIdle();
    if (!handle)
        handle = std::make_unique<CurlHandle>();
    curl_easy_setopt(handle->easy, CURLOPT_SHARE, m_share);
    return handle;
}

std::unique_ptr<CurlHandle> CurlHandlePool::TakeIdle() {
    const MutexLock lock(m_mutex);
    if (m_idle.empty())
        return nullptr;
    std::unique_ptr<CurlHandle> handle = std::move(m_idle.back());
    m_idle.pop_back();
    return handle;
}

void CurlHandlePool::GiveBack(std::unique_ptr<CurlHandle> handle) {
    curl_easy_reset(handle->easy);
    const MutexLock lock(m_mutex);
    m_idle.push_back(std::move(handle));
}

// The lock is held from one callback to the other, which the analysis cannot follow.
void CurlHandlePool::Lock(CURL*, curl_lock_data data, curl_lock_access,
                          void* pool) NO_THREAD_SAFETY_ANALYSIS {
    static_cast<CurlHandlePool*>(pool)->m_shareMutexes[data].lock();
}

void CurlHandlePool::Unlock(CURL*, curl_lock_data data, void* pool) NO_THREAD_SAFETY_ANALYSIS {
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
