#pragma once

#include "Networking/CurlHandlePool.h"
#include "Networking/IHttpClient.h"

#include <string>

namespace Halvex::Networking {

/// The native HTTP client, over libcurl: made for many worker threads that each block in a call.
///
/// Thread-safe. Connections, DNS entries and TLS sessions are reused from call to call, whatever
/// threads make them. HTTP/1.1 with keep-alive; HTTP/2 over TLS where the server offers it.
///
/// The options mean: connectTimeout in seconds (0: 30); resume: whether a connection lost in
/// mid-body is resumed in the same call, and after how many attempts in a row without a new byte to
/// give up; a transfer slower than lowSpeedLimit bytes per second for lowSpeedTime milliseconds is
/// a lost connection; timeout in microseconds bounds the whole call; proxy as given, and when it is
/// empty no proxy at all: environment variables are not read.
///
/// cancellationQuery is asked before connecting and at least every 250 ms after that, also while no
/// byte arrives. Progress is reported when it has changed.
///
/// A URL is sent as a browser sends it. Up to 50 redirects are followed, to http and https only and
/// never from https to http. Bytes are stored as sent: no content coding is asked for, and none is
/// undone. Success is a status of 200 or 203; the body of any other response reaches no callback. A
/// lost connection is resumed only if the server has named the version of the resource in a way
/// that it can be held to, and only with exactly the missing part.
class CurlHttpClient : public IHttpClient {
public:
    /// Trusts the system's certificate authorities.
    CurlHttpClient() : CurlHttpClient(std::string()) {}
    /// Trusts those in a file, in PEM format, instead; an empty path means the
    /// system's too.
    explicit CurlHttpClient(std::string authorityFile);

    Response get(const Request& request, const Options& options) override;
    /// A status of 200 to 299 is success; cookies and headers are sent as with get; a redirect is
    /// a failure.
    Response post(const Request& request, const MultiPart& body, const Options& options) override;
    Response post(const Request& request, const std::string& body, const Options& options) override;

private:
    CurlHandlePool m_handles;
};

} // namespace Halvex::Networking
