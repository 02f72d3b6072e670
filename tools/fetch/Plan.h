#pragma once

#include "ResourceDownloadManager/ISchedulableResource.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Halvex::Fetch {

/// One file that is to be fetched.
struct PlannedFile {
    /// As the user wrote it: what reports call the file.
    std::string path;
    /// The same in its shortest spelling, below the output folder.
    std::string localPath;
    /// The two halves of the address, as ResourceDescriptor takes them.
    std::string baseUrl;
    std::string relativeUrl;
    /// In bytes, when the user knows it; only the time left is told from it.
    std::optional<std::uint64_t> size;
    /// 64 digits in lower case, or empty when any file will do.
    std::string sha256;
};

/// Files that are scheduled and shown as one.
struct PlannedBundle {
    std::string name;
    App::ISchedulableResource::SchedulePriority priority =
        App::ISchedulableResource::SchedulePriority::Normal;
    /// Served before all other bundles, and not retried.
    bool startup = false;
    std::vector<PlannedFile> files;
};

/// All that the user asks for.
struct Plan {
    std::vector<PlannedBundle> bundles;
};

/// A plan, or the reasons why there is none: one text for each mistake, with its place.
struct PlanResult {
    Plan plan;
    std::vector<std::string> refusals;
};

} // namespace Halvex::Fetch
