#pragma once

#include "ResourceKit/FileCheck.h"
#include "ResourceKit/OpenFile.h"

namespace Halvex::Kit {

/// CheckFile for a file that is open, and read from where it stands: whatever takes its name
/// meanwhile, this is the one that was checked.
FileFinding CheckOpenFile(const OpenFile& file, const ExpectedFile& expected,
                          const StopQuery& stop);

} // namespace Halvex::Kit
