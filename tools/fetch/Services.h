#pragma once

#include "ResourceDownloadManager/ResourceDownloadManager.h"
#include "ResourceKit/FileCheck.h"

namespace Halvex::Kit {
class Manifest;
}

namespace Halvex::Fetch {

class TransferMeter;
struct Options;

/// What the manager works with, as the user wants it. Borrows manifest and meter, which must
/// outlive the services. The query ends checks of files.
App::ResourceDownloadManager::Dependencies MakeServices(const Options& options,
                                                        const Kit::Manifest& manifest,
                                                        TransferMeter& meter,
                                                        const Kit::StopQuery& stop);

} // namespace Halvex::Fetch
