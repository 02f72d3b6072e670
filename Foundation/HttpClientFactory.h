#pragma once

#include "Foundation/Export.h"

#include <cstdint>
#include <memory>

namespace Halvex::Networking {

class IHttpClient;

/// The kinds of HTTP client that createHttpClient makes.
enum class HttpClientType : std::int32_t {
    Native, ///< over libcurl, with connections that are reused; needs no QCoreApplication
    Qt,     ///< QtHttpClient: over Qt's network module
};

/// Makes an HTTP client. Empty for a value that is not a HttpClientType. Safe from any thread.
HALVEX_EXPORT std::unique_ptr<IHttpClient> createHttpClient(HttpClientType type);

} // namespace Halvex::Networking
