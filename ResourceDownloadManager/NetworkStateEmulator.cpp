#include "ResourceDownloadManager/NetworkStateEmulator.h"

#include "ResourceDownloadManager/FileUtils.h"

#include <utility>

namespace Halvex::App {

NetworkStateEmulator::NetworkStateEmulator(ioPath markerPath)
    : m_markerPath(std::move(markerPath)) {}

INetworkStateChecker::State NetworkStateEmulator::GetState() const {
    return !m_markerPath.empty() && FileExists(m_markerPath) ? State::Offline : State::Online;
}

} // namespace Halvex::App
