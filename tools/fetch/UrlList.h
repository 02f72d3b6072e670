#pragma once

#include "Plan.h"

#include <string>
#include <vector>

namespace Halvex::Fetch {

/// The bundle's name when the user gives addresses and no bundles.
inline constexpr const char* kUrlBundleName = "files";

/// Reads a list: on each line an address and optionally, behind a tab, the file's name below the
/// output folder. Without a name the last part of the address is taken. Empty lines are skipped.
/// The name of the list is that of the places in the refusals.
PlanResult ReadUrlList(const std::string& list, const std::string& name);

/// The same for addresses that were given as arguments.
PlanResult PlanUrls(const std::vector<std::string>& urls);

} // namespace Halvex::Fetch
