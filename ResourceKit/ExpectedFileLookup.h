#pragma once

#include "ResourceKit/FileCheck.h"

#include <functional>

namespace Halvex::App {
struct ResourceDescriptor;
}

namespace Halvex::Kit {

/// Answers what the file of a resource is to be; an empty ExpectedFile: any file will do.
///
/// Called on worker threads, for several resources at once. Must not throw. Manifest::Expected
/// makes one.
using ExpectedFileLookup = std::function<ExpectedFile(const App::ResourceDescriptor&)>;

} // namespace Halvex::Kit
