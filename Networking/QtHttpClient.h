#pragma once

#include "Foundation/Export.h"
#include "Networking/IHttpClient.h"

namespace Halvex::Networking {

/// An HTTP client over Qt's network module. Fetches only; it uploads nothing.
///
/// Thread-safe; holds no data. A call runs a Qt event loop of its own on the calling thread until
/// the request has ended, so it needs a QCoreApplication; without one it logs an ERROR line and
/// returns a default Response at once.
///
/// Of the options it reads the time-out (to the millisecond) and the three callbacks. The
/// cancellation query is asked with each progress report, and only when a progress callback is set.
/// Request::headers, Request::cookies and Options::proxy are not used; what QNetworkProxy is set to
/// for the application holds.
///
/// Redirects are followed, except from https to http. A content coding that Qt asked for is undone.
/// A body shorter than announced is code 4, as is any other failure; the text is Qt's. With a data
/// callback at most about 1 MiB of the body, as it was sent, is held at a time; decoded that may be
/// much more. Behind a redirect Qt is told of that limit when it has already begun: up to 30 MiB
/// have been seen to be held then on a machine under load.
///
/// Qt does not tell reliably whether a body sent in chunks, or one that it has decoded, was cut
/// short by the server; such a body may end with code 0. Where that matters, check what arrived.
class HALVEX_EXPORT QtHttpClient : public IHttpClient {
public:
    Response get(const Request& request, const Options& options) override;
    /// Sends nothing and returns a default Response.
    Response post(const Request& request, const MultiPart& body, const Options& options) override;
    Response post(const Request& request, const std::string& body, const Options& options) override;
};

} // namespace Halvex::Networking
