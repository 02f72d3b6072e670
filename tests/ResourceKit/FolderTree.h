#pragma once

#include "Foundation/ioPath.h"
#include "support/TemporaryFolder.h"

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

namespace Halvex::Testing {

/// All that is in a folder: "a/ a/file=content link->a", sorted.
inline std::string FolderTree(const ioPath& folder) {
    std::vector<std::string> entries;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder.string())) {
        const std::string name = entry.path().string().substr(folder.string().size() + 1);
        if (entry.is_symlink())
            entries.push_back(name + "->" + std::filesystem::read_symlink(entry.path()).string());
        else if (entry.is_directory())
            entries.push_back(name + "/");
        else
            entries.push_back(name + "=" + ReadFile(entry.path().string()));
    }
    std::sort(entries.begin(), entries.end());
    std::string tree;
    for (const std::string& entry : entries)
        tree += (tree.empty() ? "" : " ") + entry;
    return tree;
}

} // namespace Halvex::Testing
