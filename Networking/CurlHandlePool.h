#pragma once

#include "Foundation/Mutex.h"

#include <curl/curl.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

namespace Halvex::Networking {

/// The certificate authorities that the connections of one client trust: read when the first of
/// them needs it, which takes 30 ms of CPU time for a system's, and shared by all.
///
/// Thread-safe.
class TlsAuthorities {
public:
    /// The path of a file in PEM format; empty: those of the system.
    explicit TlsAuthorities(std::string file) : m_file(std::move(file)) {}
    ~TlsAuthorities();

    TlsAuthorities(const TlsAuthorities&) = delete;
    TlsAuthorities& operator=(const TlsAuthorities&) = delete;

    /// Null: they cannot be read.
    X509_STORE* Store() HALVEX_EXCLUDES(m_mutex);
    /// Where they are read from, for people.
    std::string Source() const { return m_file.empty() ? "the system" : m_file; }

private:
    const std::string m_file;
    Mutex m_mutex;
    X509_STORE* m_store HALVEX_GUARDED_BY(m_mutex) = nullptr;
};

/// An easy handle and the multi handle that drives it, with the connections that it keeps open.
/// Borrowed for one request at a time.
struct CurlHandle {
    /// Both must outlive the handle.
    CurlHandle(CURLSH* share, TlsAuthorities& authorities);
    ~CurlHandle();

    CurlHandle(const CurlHandle&) = delete;
    CurlHandle& operator=(const CurlHandle&) = delete;

    /// Has the connections that are opened from here on with the easy handle's present options
    /// trust the authorities and tell HasTlsEnded. Child processes of the application do not
    /// inherit them. To be called after each Renew, before anything is opened: NoteConnection
    /// relies on knowing every socket that is.
    void PrepareConnections();

    /// Begins anew with default options; connections stay. To be called before each exchange:
    /// curl 7.88 keeps a pointer into the headers of the one before, which have been freed, and
    /// follows it when the first header line of a response is folded.
    void Renew();

    CURL* easy;
    CURLM* const multi;
    CURLSH* const share;
    TlsAuthorities& authorities;
    /// Whether there has been a connection over TLS.
    bool usesTls = false;

    /// To be called after an exchange, while the easy handle still knows its connection: if that
    /// may be used again, EndUnasked looks after it.
    void NoteConnection();
    /// Ends the connections kept for later that the server has spoken on meanwhile, or closed: what
    /// waits there is not the answer to the next request. Not those of HTTP/2, which tells answers
    /// apart and whose own messages may come at any time.
    void EndUnasked();

    /// To be called for each line of a response's head.
    void NoteAnswer();
    /// Called by OpenSSL's hook.
    void NoteTlsEnd(const SSL* connection);
    /// Whether the server that has answered says, by TLS, that it has sent all: without that a
    /// connection that ends has been cut, which curl does not tell.
    bool HasTlsEnded() const { return m_tlsEnded; }

private:
    struct Connection {
        int socket;
        /// Of the socket. A number alone may have become that of something else: curl closes its
        /// sockets without being asked.
        ino_t inode;
    };

    static curl_socket_t OnOpen(void* handle, curlsocktype purpose, curl_sockaddr* address);
    std::vector<Connection>::iterator FindKept(int socket);

    /// At most one for each socket.
    std::vector<Connection> m_kept;
    /// That of the server, where there is another one to a proxy.
    const void* m_answering = nullptr;
    bool m_tlsEnded = false;
};

/// The handles of one client. They outlive the threads that use them, so that a connection is
/// reused by whoever comes next; DNS entries and TLS sessions are shared by all.
///
/// Thread-safe. Must outlive what it lends.
class CurlHandlePool {
public:
    /// The file is that of TlsAuthorities.
    explicit CurlHandlePool(std::string authorityFile);
    ~CurlHandlePool();

    CurlHandlePool(const CurlHandlePool&) = delete;
    CurlHandlePool& operator=(const CurlHandlePool&) = delete;

    /// The handle that was given back last, whose connection is the most likely to be alive, or a
    /// new one.
    std::unique_ptr<CurlHandle> Borrow() HALVEX_EXCLUDES(m_mutex);
    void GiveBack(std::unique_ptr<CurlHandle> handle) HALVEX_EXCLUDES(m_mutex);

private:
    static void Lock(CURL* easy, curl_lock_data data, curl_lock_access access, void* pool);
    static void Unlock(CURL* easy, curl_lock_data data, void* pool);

    TlsAuthorities m_authorities;
    CURLSH* const m_share;
    /// One for each kind of data that curl shares, taken and given back by its callbacks.
    Mutex m_shareMutexes[CURL_LOCK_DATA_LAST];

    Mutex m_mutex;
    std::vector<std::unique_ptr<CurlHandle>> m_idle HALVEX_GUARDED_BY(m_mutex);
};

/// Keeps SIGPIPE from the calling thread while it lives: a TLS connection that the server has
/// closed raises it, and a library must not end its application.
class SigpipeBlock {
public:
    SigpipeBlock();
    ~SigpipeBlock();

    SigpipeBlock(const SigpipeBlock&) = delete;
    SigpipeBlock& operator=(const SigpipeBlock&) = delete;

private:
    bool m_wasPending;
    bool m_wasBlocked;
};

} // namespace Halvex::Networking
