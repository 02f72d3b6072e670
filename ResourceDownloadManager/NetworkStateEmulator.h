#pragma once

#include "Foundation/Export.h"
#include "Foundation/ioPath.h"
#include "ResourceDownloadManager/INetworkStateChecker.h"

namespace Halvex::App {

/// Offline for as long as a marker file exists: a switch for testers.
///
/// Immutable; safe from any thread. Every call looks at the disk, where a folder counts as well as
/// a file.
class HALVEX_EXPORT NetworkStateEmulator : public INetworkStateChecker {
public:
    /// An empty path means always online.
    explicit NetworkStateEmulator(ioPath markerPath);

    State GetState() const override;

private:
    ioPath m_markerPath;
};

} // namespace Halvex::App
