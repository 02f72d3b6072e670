#include "ResourceKit/EntryTree.h"

#include <algorithm>

#include <fcntl.h>
#include <sys/stat.h>

namespace Halvex::Kit {

namespace {

/// Far more than anyone needs, and few enough to be removed again by a process with few
/// descriptors.
constexpr std::size_t kMaxDepth = 100;

constexpr char kNoFolder[] = "its path leads through something that is no folder";

bool IsNoFolder(int error) {
    return error == ENOTDIR || error == ELOOP;
}

} // namespace

Complaint EntryTree::AddFolder(const std::string& path) {
    const Parts parts = PartsOf(path);
    const std::uint64_t before = m_entries;
    FileDescriptor folder;
    if (Complaint complaint = OpenParent(path, parts, folder))
        return complaint;
    if (!parts.empty()) {
        if (Complaint complaint = Enter(folder, parts.back()))
            return complaint;
    }
    // One that is there already takes its time too, and an archive may have it without end.
    return m_entries == before ? CountEntry() : Complaint();
}

Complaint EntryTree::AddFile(const std::string& path, mode_t permissions) {
    const Parts parts = PartsOf(path);
    FileDescriptor parent;
    if (Complaint complaint = MakePlace(path, parts, parent))
        return complaint;
    m_end = 0;
    m_file = FileDescriptor(::openat(parent.Get(), parts.back().c_str(),
                                     O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                     (permissions & 0777) | S_IRUSR | S_IWUSR));
    return m_file ? Complaint() : SystemComplaint("it cannot be made");
}

Complaint EntryTree::AddSymbolicLink(const std::string& path, const std::string& target) {
    const Parts parts = PartsOf(path);
    FileDescriptor parent;
    if (Complaint complaint = MakePlace(path, parts, parent))
        return complaint;
    if (Complaint complaint = CheckLink(parts.size() - 1, target))
        return complaint;
    const bool isMade = ::symlinkat(target.c_str(), parent.Get(), parts.back().c_str()) == 0;
    return isMade ? Complaint() : SystemComplaint("it cannot be made");
}

Complaint EntryTree::AddHardLink(const std::string& path, const std::string& target) {
    const Parts targetParts = PartsOf(target);
    if (Complaint complaint = CheckPath(target, targetParts))
        return "as a link, " + *complaint;
    FileDescriptor folder(::fcntl(m_root, F_DUPFD_CLOEXEC, 0));
    for (std::size_t i = 0; folder && i + 1 < targetParts.size(); ++i)
        folder = OpenFolder(folder, targetParts[i]);
    // Not to a symbolic link: what leads up from one folder may lead outside from another one.
    struct stat status {};
    if (!folder || targetParts.empty() ||
        ::fstatat(folder.Get(), targetParts.back().c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISREG(status.st_mode))
        return "it is a link to what is no file";
    const Parts parts = PartsOf(path);
    FileDescriptor parent;
    if (Complaint complaint = MakePlace(path, parts, parent))
        return complaint;
    const bool isMade = ::linkat(folder.Get(), targetParts.back().c_str(), parent.Get(),
                                 parts.back().c_str(), 0) == 0;
    return isMade ? Complaint() : SystemComplaint("it cannot be made");
}

Complaint EntryTree::Write(const char* data, std::size_t size, std::uint64_t offset) {
    const std::uint64_t end = std::max(m_end, offset + size);
    if (offset + size < offset || end - m_end > m_limits.bytes - m_bytes)
        return "there are more than " + std::to_string(m_limits.bytes) + " bytes";
    if (size == 0 && end > m_end && ::ftruncate(m_file.Get(), static_cast<off_t>(end)) != 0)
        return SystemComplaint("it cannot be written");
    while (size > 0) {
        const ssize_t count = ::pwrite(m_file.Get(), data, size, static_cast<off_t>(offset));
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return SystemComplaint("it cannot be written");
        data += count;
        size -= static_cast<std::size_t>(count);
        offset += static_cast<std::size_t>(count);
    }
    m_bytes += end - m_end;
    m_end = end;
    return {};
}

/// Without the parts that lead nowhere else.
EntryTree::Parts EntryTree::PartsOf(std::string_view path) {
    Parts parts;
    while (!path.empty()) {
        const std::size_t end = std::min(path.find('/'), path.size());
        const std::string_view part = path.substr(0, end);
        if (!part.empty() && part != ".")
            parts.emplace_back(part);
        path.remove_prefix(std::min(end + 1, path.size()));
    }
    return parts;
}

Complaint EntryTree::CheckPath(const std::string& path, const Parts& parts) {
    if (!path.empty() && path.front() == '/')
        return "its path is absolute";
    if (std::find(parts.begin(), parts.end(), "..") != parts.end())
        return "its path has \"..\"";
    if (parts.size() > kMaxDepth)
        return "its path is more than " + std::to_string(kMaxDepth) + " folders deep";
    return {};
}

/// A link goes up only at its beginning, from a folder whose depth is known: paths lead through no
/// links. Behind that it goes down, possibly through other links that keep to the same rule. So no
/// chain of links leads out of the root, in whatever order they are made.
Complaint EntryTree::CheckLink(std::size_t depth, const std::string& target) {
    if (target.empty() || target.front() == '/')
        return "it is a link to an absolute path";
    std::size_t up = 0;
    bool isDown = false;
    for (const std::string& part : PartsOf(target)) {
        if (part != "..")
            isDown = true;
        else if (isDown || ++up > depth)
            return "it is a link that leads, or may lead, outside";
    }
    return {};
}

Complaint EntryTree::OpenParent(const std::string& path, const Parts& parts,
                                FileDescriptor& parent) {
    if (Complaint complaint = CheckPath(path, parts))
        return complaint;
    parent = FileDescriptor(::fcntl(m_root, F_DUPFD_CLOEXEC, 0));
    if (!parent)
        return SystemComplaint("its folder cannot be opened");
    for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
        if (Complaint complaint = Enter(parent, parts[i]))
            return complaint;
    }
    return {};
}

/// Goes into a folder, which is made when it is missing.
Complaint EntryTree::Enter(FileDescriptor& folder, const std::string& name) {
    FileDescriptor next = OpenFolder(folder, name);
    if (!next && errno == ENOENT) {
        if (Complaint complaint = CountEntry())
            return complaint;
        if (::mkdirat(folder.Get(), name.c_str(), 0777) != 0)
            return SystemComplaint("its folder cannot be made");
        next = OpenFolder(folder, name);
    }
    if (!next && IsNoFolder(errno))
        return kNoFolder;
    if (!next)
        return SystemComplaint("its folder cannot be opened");
    folder = std::move(next);
    return {};
}

/// Opens the folder that the entry is to stand in, and removes what stands there.
Complaint EntryTree::MakePlace(const std::string& path, const Parts& parts,
                               FileDescriptor& parent) {
    if (Complaint complaint = CountEntry())
        return complaint;
    if (Complaint complaint = OpenParent(path, parts, parent))
        return complaint;
    if (parts.empty())
        return "it has no name";
    if (::unlinkat(parent.Get(), parts.back().c_str(), 0) == 0 || errno == ENOENT)
        return {};
    return errno == EISDIR ? "a folder is at its place" : SystemComplaint("it cannot be replaced");
}

Complaint EntryTree::CountEntry() {
    if (m_entries == m_limits.entries)
        return "there are more than " + std::to_string(m_limits.entries) + " entries";
    ++m_entries;
    return {};
}

} // namespace Halvex::Kit
