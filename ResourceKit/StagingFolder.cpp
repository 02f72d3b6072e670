#include "ResourceKit/StagingFolder.h"

#include <glog/logging.h>

#include <cstdio>
#include <filesystem>
#include <random>
#include <string_view>
#include <system_error>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace Halvex::Kit {

namespace {

constexpr std::string_view kCharacters = "abcdefghijklmnopqrstuvwxyz0123456789";
constexpr std::size_t kRandomCharacters = 6;

/// False: errno tells why; EWOULDBLOCK: somebody else holds it.
bool Lock(const FileDescriptor& folder) {
    return ::flock(folder.Get(), LOCK_EX | LOCK_NB) == 0;
}

bool IsAt(const FileDescriptor& parent, const std::string& name, const FileDescriptor& folder) {
    struct stat there {};
    struct stat here {};
    return ::fstatat(parent.Get(), name.c_str(), &there, AT_SYMLINK_NOFOLLOW) == 0 &&
           ::fstat(folder.Get(), &here) == 0 && there.st_dev == here.st_dev &&
           there.st_ino == here.st_ino;
}

bool Rename(const FileDescriptor& parent, const std::string& from, const std::string& to,
            unsigned flags = 0) {
    return ::renameat2(parent.Get(), from.c_str(), parent.Get(), to.c_str(), flags) == 0;
}

} // namespace

StagingFolder::~StagingFolder() {
    if (!m_name.empty())
        Remove(m_name);
}

Complaint StagingFolder::Make(const std::string& target) {
    if (Complaint complaint = OpenParent(target))
        return complaint;
    m_prefix = "." + m_target + ".unpack-";
    RemoveLeftOvers();
    return MakeLocked();
}

Complaint StagingFolder::OpenParent(const std::string& target) {
    std::string path = target;
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    const std::size_t nameBegin = path.rfind('/') + 1;
    m_target = path.substr(nameBegin);
    if (m_target.empty() || m_target == "." || m_target == ".." ||
        path.find('\0') != std::string::npos)
        return "the target folder has no usable name";
    // Absolute, in case the process goes to another folder meanwhile.
    m_parentPath =
        std::filesystem::absolute(nameBegin == 0 ? "./" : path.substr(0, nameBegin)).string();
    m_parent = FileDescriptor(::open(m_parentPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!m_parent)
        return SystemComplaint("the target's parent folder cannot be opened");
    struct stat status {};
    if (::fstatat(m_parent.Get(), m_target.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
        if (!S_ISDIR(status.st_mode))
            return "the target is no folder";
    } else if (errno != ENOENT) {
        return SystemComplaint("the target folder cannot be looked at");
    }
    return {};
}

/// Somebody else who looks for what has been left may find the folder before it is locked, and
/// remove it. Then another one is made.
Complaint StagingFolder::MakeLocked() {
    while (true) {
        if (!MakeFolder(m_name)) {
            m_name.clear();
            return SystemComplaint("a staging folder cannot be made");
        }
        m_folder = OpenFolder(m_parent, m_name);
        if (!m_folder && errno != ENOENT)
            return SystemComplaint("the staging folder cannot be opened");
        const bool isForeign = m_folder && !Lock(m_folder) && errno == EWOULDBLOCK;
        if (m_folder && !isForeign && IsAt(m_parent, m_name, m_folder))
            return {};
    }
}

/// Unlike mkdtemp, with the permissions that folders usually have.
bool StagingFolder::MakeFolder(std::string& name) const {
    std::random_device random;
    std::uniform_int_distribution<std::size_t> distribution(0, kCharacters.size() - 1);
    do {
        name = m_prefix;
        for (std::size_t i = 0; i < kRandomCharacters; ++i)
            name += kCharacters[distribution(random)];
        if (::mkdirat(m_parent.Get(), name.c_str(), 0777) == 0)
            return true;
    } while (errno == EEXIST);
    return false;
}

void StagingFolder::RemoveLeftOvers() const {
    std::error_code error;
    for (std::filesystem::directory_iterator entry(m_parentPath, error), end;
         !error && entry != end; entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (name.size() != m_prefix.size() + kRandomCharacters || name.rfind(m_prefix, 0) != 0)
            continue;
        const FileDescriptor folder = OpenFolder(m_parent, name);
        if (folder && Lock(folder))
            Remove(name);
    }
}

void StagingFolder::Remove(const std::string& name) const {
    std::error_code error;
    std::filesystem::remove_all(m_parentPath + name, error);
    if (error)
        LOG(WARNING) << "cannot remove " << m_parentPath << name << ": " << error.message();
}

Complaint StagingFolder::TakePlace() {
    // One wait for all files and folders takes less time than one for each.
    if (::syncfs(m_folder.Get()) != 0)
        return SystemComplaint("it cannot be written to disk");
    if (Complaint complaint = Exchange())
        return complaint;
    // Without this a power cut could find the old folder half removed and back in its place.
    const bool isOnDisk = ::fsync(m_parent.Get()) == 0 || errno == EINVAL;
    if (!isOnDisk)
        m_name.clear();
    return {};
}

Complaint StagingFolder::Exchange() {
    while (true) {
        if (Rename(m_parent, m_name, m_target, RENAME_EXCHANGE))
            return {};
        if (errno == EINVAL || errno == ENOSYS)
            return ExchangeByWayOfAnother();
        if (errno == ENOENT && Rename(m_parent, m_name, m_target)) {
            m_name.clear();
            return {};
        }
        // Another unpacking may have made the target meanwhile.
        if (errno != ENOTEMPTY && errno != EEXIST)
            return SystemComplaint("the target folder cannot be replaced");
    }
}

Complaint StagingFolder::ExchangeByWayOfAnother() {
    std::string aside;
    if (!MakeFolder(aside))
        return SystemComplaint("the old folder cannot be moved aside");
    // Locked, so that nobody takes it for something left while it may have to go back.
    const FileDescriptor old = OpenFolder(m_parent, m_target);
    if (old)
        Lock(old);
    if (!Rename(m_parent, m_target, aside)) {
        Complaint complaint = SystemComplaint("the old folder cannot be moved aside");
        Remove(aside);
        return complaint;
    }
    if (!Rename(m_parent, m_name, m_target)) {
        Complaint complaint = SystemComplaint("the target folder cannot be replaced");
        Rename(m_parent, aside, m_target);
        return complaint;
    }
    m_name = aside;
    return {};
}

} // namespace Halvex::Kit
