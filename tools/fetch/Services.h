#pragma once

#include "ResourceDownloadManager/ResourceDownloadManager.h"

namespace Halvex::Fetch {

class Catalogue;
class Sha256Validator;
class TransferMeter;
struct Options;

/// What the manager works with, as the user wants it. Borrows catalogue and meter, which must
/// outlive the services.
App::ResourceDownloadManager::Dependencies
MakeServices(const Options& options, const Catalogue& catalogue, TransferMeter& meter,
             const std::shared_ptr<Sha256Validator>& validator);

} // namespace Halvex::Fetch
