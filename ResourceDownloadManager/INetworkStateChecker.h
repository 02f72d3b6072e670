#pragma once

#include <cstdint>

namespace Halvex::App {

/// Tells whether the application is to behave as if it had no connection. While it is offline,
/// transfers are cancelled and count as lost connections.
class INetworkStateChecker {
public:
    enum class State : std::int32_t {
        Online,  ///< downloads go on normally
        Offline, ///< as if there were no connection
    };

    virtual ~INetworkStateChecker() = default;

    /// Called on worker threads at once, several times per transfer; must be quick.
    virtual State GetState() const = 0;
};

} // namespace Halvex::App
