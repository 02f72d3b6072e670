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

std::string RandomText() {
    std::random_device random;
    std::uniform_int_distribution<std::size_t> distribution(0, kCharacters.size() - 1);
    std::string text;
    for (std::size_t i = 0; i < kRandomCharacters; ++i)
        text += kCharacters[distribution(random)];
    return text;
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
    m_asidePrefix = "." + m_target + ".unpack-old-";
    ClearLeftOvers();
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
    do {
        name = m_prefix + RandomText();
        if (::mkdirat(m_parent.Get(), name.c_str(), 0777) == 0)
            return true;
    } while (errno == EEXIST);
    return false;
}

void StagingFolder::ClearLeftOvers() const {
    ForEachUnused(m_prefix, [this](const std::string& name) { Remove(name); });
    ForEachUnused(m_asidePrefix, [this](const std::string& name) {
        if (HasTarget())
            Remove(name);
        else
            Rename(m_parent, name, m_target);
    });
}

/// The action is called for each folder that is named so and that nobody holds.
void StagingFolder::ForEachUnused(
    const std::string& prefix, const std::function<void(const std::string& name)>& action) const {
    std::error_code error;
    for (std::filesystem::directory_iterator entry(m_parentPath, error), end;
         !error && entry != end; entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (name.size() != prefix.size() + kRandomCharacters || name.rfind(prefix, 0) != 0 ||
            name.find_first_not_of(kCharacters, prefix.size()) != std::string::npos)
            continue;
        const FileDescriptor folder = OpenFolder(m_parent, name);
        if (folder && Lock(folder))
            action(name);
    }
}

bool StagingFolder::HasTarget() const {
    struct stat status {};
    return ::fstatat(m_parent.Get(), m_target.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
}

void StagingFolder::Remove(const std::string& name) const {
    std::error_code error;
    std::filesystem::remove_all(m_parentPath + name, error);
    // Another unpacking may clear away at the same time.
    if (error && error != std::errc::no_such_file_or_directory)
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
        const bool cannotExchange = errno == EINVAL || errno == ENOSYS;
        if (!cannotExchange && errno != ENOENT)
            return SystemComplaint("the target folder cannot be replaced");
        std::string old;
        if (cannotExchange && !MoveAside(old) && errno != ENOENT)
            return SystemComplaint("the old folder cannot be moved aside");
        // There is no target now, or never was.
        if (Rename(m_parent, m_name, m_target)) {
            m_name = old;
            return {};
        }
        // Another unpacking may have made one meanwhile.
        if (errno != ENOTEMPTY && errno != EEXIST) {
            Complaint complaint = SystemComplaint("the target folder cannot be replaced");
            if (!old.empty())
                Rename(m_parent, old, m_target);
            return complaint;
        }
        if (!old.empty())
            Remove(old);
    }
}

/// Gives the target this new name. False: errno tells why.
bool StagingFolder::MoveAside(std::string& newName) {
    m_old = OpenFolder(m_parent, m_target);
    if (m_old)
        Lock(m_old);
    const std::string name = m_asidePrefix + RandomText();
    if (!Rename(m_parent, m_target, name))
        return false;
    newName = name;
    return true;
}

} // namespace Halvex::Kit
