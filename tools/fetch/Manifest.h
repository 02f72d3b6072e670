#pragma once

#include "Plan.h"

#include <string>

namespace Halvex::Fetch {

/// Reads a manifest:
///
///     {"baseUrl": "http://example.org/files",
///      "bundles": [{"name": "fonts", "priority": "high|normal|low", "startup": false,
///                   "files": [{"path": "a/b.bin", "url": "http://example.org/other",
///                              "size": 123, "sha256": "64 digits"}]}]}
///
/// Required are bundles, name, files and path; and baseUrl where a file has no url, if addresses
/// are needed at all. Everything that is not known, of the wrong type or no safe path is refused
/// with its line. The name of the document is that of the places in the refusals.
PlanResult ReadManifest(const std::string& document, const std::string& name, bool addressesNeeded);

} // namespace Halvex::Fetch
