#pragma once

#include <string>

namespace Halvex::Kit {

/// A path from a manifest or a list, judged.
struct CheckedPath {
    /// The shortest spelling, relative and without "." and empty parts. Empty when it is refused.
    std::string path;
    /// Why the path is refused; empty when it is not.
    std::string problem;
};

/// Accepts what names a file below the output folder, and nothing else: no absolute path, no "..",
/// no control character, no empty name, nothing that is longer than paths can be. Touches no disk.
CheckedPath CheckPath(const std::string& path);

/// The folder of a file, by its path, in which one slash stands before the name. Empty: the current
/// folder. Touches no disk.
std::string FolderOf(const std::string& path);

} // namespace Halvex::Kit
