#pragma once

#include "Foundation/Url.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace Halvex::Networking {

/// What to ask a server for.
struct Request {
    Url url;
    /// Further header fields, name and value. Not every client sends them; see the client.
    std::vector<std::pair<std::string, std::string>> headers;
    /// Cookies to send, name and value. Not every client sends them; see the client.
    std::vector<std::pair<std::string, std::string>> cookies;
};

/// How to carry out one request. All callbacks run on the thread that called the client, before the
/// call returns. What they throw comes out of the call.
struct Options {
    /// Bytes per second below which a transfer counts as stalled; 0: no such limit.
    std::int32_t lowSpeedLimit = 0;
    /// Seconds that connecting may take; 0: the client's own limit.
    std::int32_t connectTimeout = 0;
    /// Microseconds that the whole request may take. A request that takes longer ends with code 15.
    /// 0 or less is no time at all.
    std::int64_t timeout = 0;
    /// Whether a connection lost in mid-body is resumed, and after how many attempts in a row
    /// without a new byte to give up.
    std::pair<bool, std::int32_t> resume{false, 0};
    /// Milliseconds that a transfer may stay below lowSpeedLimit before it counts as lost.
    std::int64_t lowSpeedTime = 0;
    /// The proxy to use, as scheme://host:port; empty: none.
    std::string proxy;
    /// Asked now and then; true ends the request with code 15. Must be set when progressCallback
    /// is.
    std::function<bool()> cancellationQuery;
    /// Told of the bytes received so far and of the total. A total that the server did not announce
    /// is the largest value of std::size_t.
    std::function<void(std::size_t received, std::size_t total)> progressCallback;
    /// Given the body piece by piece, in order. When it is not set, the body is gathered in
    /// Response::body.
    std::function<void(std::string piece)> dataCallback;
};

/// How a request ended.
struct Response {
    /// The HTTP status; 0 when the client does not tell.
    std::int32_t status = 0;
    /// The body, unless a dataCallback took it; empty after a failure.
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;
    std::vector<std::pair<std::string, std::string>> cookies;
    /// 0: the resource has arrived whole.
    /// 3: the host or the proxy could not be resolved or connected to.
    /// 4: any other failure, HTTP statuses of 400 and above included.
    /// 8: the connection was lost, stalled or closed early.
    /// 15: cancelled by the query, or ended by the time-out.
    /// 1001: nothing was sent, because the URL is invalid or the client cannot work here; with the
    /// Qt client also when somebody else ended the event loop that it ran.
    std::int32_t errorCode = 1001;
    /// What went wrong, for people; empty where nothing more is known.
    std::string errorText;
    /// The address that answered, after redirects; empty when the client does not tell.
    std::string effectiveUrl;
    /// The content type of the body; empty when the client does not tell.
    std::string contentType;
};

/// The body of a form upload.
struct MultiPart {
    struct Part {
        std::string name;
        /// Empty: a plain field, not a file.
        std::string fileName;
        /// Empty: the client's default.
        std::string contentType;
        std::string data;
    };
    std::vector<Part> parts;
};

/// Carries out HTTP requests, one per call.
///
/// Thread-safe: any number of threads may be inside get and post at once. Each call blocks until
/// the response is complete, failed, cancelled or timed out. Failures of the network are told by
/// Response::errorCode, never thrown.
class IHttpClient {
public:
    virtual ~IHttpClient() = default;

    /// Fetches a resource.
    virtual Response get(const Request& request, const Options& options) = 0;
    /// Uploads a form.
    virtual Response post(const Request& request, const MultiPart& body,
                          const Options& options) = 0;
    /// Uploads a body as it is.
    virtual Response post(const Request& request, const std::string& body,
                          const Options& options) = 0;
};

} // namespace Halvex::Networking
