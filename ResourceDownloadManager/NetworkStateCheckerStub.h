#pragma once

#include "ResourceDownloadManager/INetworkStateChecker.h"

namespace Halvex::App {

/// Always online.
class NetworkStateCheckerStub : public INetworkStateChecker {
public:
    NetworkStateCheckerStub() = default;
    NetworkStateCheckerStub(const NetworkStateCheckerStub&) = delete;
    NetworkStateCheckerStub& operator=(const NetworkStateCheckerStub&) = delete;

    State GetState() const override { return State::Online; }
};

} // namespace Halvex::App
