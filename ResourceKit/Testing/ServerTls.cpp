#include "ResourceKit/Testing/ServerTls.h"

#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <array>
#include <stdexcept>

namespace Halvex::Kit::Testing {

namespace {

struct FreeBio {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
struct FreeCertificate {
    void operator()(X509* certificate) const { X509_free(certificate); }
};
struct FreeKey {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct FreeContext {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
struct FreeConnection {
    void operator()(SSL* connection) const { SSL_free(connection); }
};

std::unique_ptr<BIO, FreeBio> Reader(const std::string& text) {
    return std::unique_ptr<BIO, FreeBio>(
        BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

} // namespace

struct ServerTls::Impl {
    std::unique_ptr<SSL_CTX, FreeContext> context;
    std::unique_ptr<SSL, FreeConnection> connection;
};

ServerTls::ServerTls(int socket, const ServerCertificate& certificate) : m_impl(new Impl) {
    m_impl->context.reset(SSL_CTX_new(TLS_server_method()));
    SSL_CTX* const context = m_impl->context.get();
    const std::unique_ptr<X509, FreeCertificate> shown(
        PEM_read_bio_X509(Reader(certificate.certificate).get(), nullptr, nullptr, nullptr));
    const std::unique_ptr<EVP_PKEY, FreeKey> key(
        PEM_read_bio_PrivateKey(Reader(certificate.privateKey).get(), nullptr, nullptr, nullptr));
    if (SSL_CTX_use_certificate(context, shown.get()) != 1 ||
        SSL_CTX_use_PrivateKey(context, key.get()) != 1)
        throw std::runtime_error("cannot use the certificate");
    // Each connection has a context of its own, so that there is no session to go on with.
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    m_impl->connection.reset(SSL_new(context));
    SSL_set_fd(m_impl->connection.get(), socket);
    if (SSL_accept(m_impl->connection.get()) != 1)
        throw std::runtime_error("no handshake");
}

ServerTls::~ServerTls() = default;

bool ServerTls::Send(std::string_view bytes) {
    std::size_t sent = 0;
    return bytes.empty() ||
           SSL_write_ex(m_impl->connection.get(), bytes.data(), bytes.size(), &sent) == 1;
}

std::optional<std::string> ServerTls::Receive() {
    std::array<char, 16 * 1024> buffer;
    std::size_t received = 0;
    if (SSL_read_ex(m_impl->connection.get(), buffer.data(), buffer.size(), &received) != 1)
        return std::nullopt;
    return std::string(buffer.data(), received);
}

void ServerTls::SayGoodbye() {
    SSL_shutdown(m_impl->connection.get());
}

} // namespace Halvex::Kit::Testing
