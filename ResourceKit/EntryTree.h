#pragma once

#include "ResourceKit/Complaint.h"
#include "ResourceKit/FileDescriptor.h"
#include "ResourceKit/PostProcessorUnpack.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

namespace Halvex::Kit {

/// Makes the files, folders and links of an archive below one folder, and nothing outside of it,
/// whatever paths the archive gives. PostProcessorUnpack says what it refuses.
///
/// Each path is walked from the folder down, part by part, and never through a link. One thread at
/// a time, caller synchronises.
class EntryTree {
public:
    /// The root is a folder's descriptor, borrowed, and the folder empty.
    EntryTree(int root, const PostProcessorUnpack::Limits& limits)
        : m_root(root), m_limits(limits) {}

    /// Folders that are missing on the way to an entry are made. A file or link replaces an earlier
    /// one of the same path.
    Complaint AddFolder(const std::string& path);
    /// Write then belongs to this file.
    Complaint AddFile(const std::string& path, mode_t permissions);
    Complaint AddSymbolicLink(const std::string& path, const std::string& target);
    /// The target is a path as those of other entries.
    Complaint AddHardLink(const std::string& path, const std::string& target);

    /// Puts bytes at an offset of the latest file, which grows to where they end. Between what has
    /// been written it has holes.
    Complaint Write(const char* data, std::size_t size, std::uint64_t offset);

private:
    using Parts = std::vector<std::string>;

    static Parts PartsOf(std::string_view path);
    static Complaint CheckPath(const std::string& path, const Parts& parts);
    static Complaint CheckLink(std::size_t depth, const std::string& target);
    Complaint OpenParent(const std::string& path, const Parts& parts, FileDescriptor& parent);
    Complaint Enter(FileDescriptor& folder, const std::string& name);
    Complaint MakePlace(const std::string& path, const Parts& parts, FileDescriptor& parent);
    Complaint CountEntry();

    const int m_root;
    const PostProcessorUnpack::Limits m_limits;
    std::uint64_t m_entries = 0;
    std::uint64_t m_bytes = 0;
    FileDescriptor m_file;
    /// Where the latest file ends.
    std::uint64_t m_end = 0;
};

} // namespace Halvex::Kit
