#pragma once

#include <cstdint>
#include <string>

namespace Halvex::App {

/// Tells which proxy to fetch a URL through.
class IProxyProvider {
public:
    struct Proxy {
        enum class Type : std::int32_t {
            None,   ///< go there directly
            Http,   ///< an HTTP proxy
            Https,  ///< an HTTP proxy that is itself spoken to over TLS
            Socks4, ///< a SOCKS 4 proxy
            Socks5, ///< a SOCKS 5 proxy
        };

        Type type = Type::None;
        std::string host;
        std::int32_t port = 0;
    };

    virtual ~IProxyProvider() = default;

    /// Called on worker threads at once, before each transfer.
    virtual Proxy GetSystemProxy(const std::string& url) const = 0;
};

} // namespace Halvex::App
