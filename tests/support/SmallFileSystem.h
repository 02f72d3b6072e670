#pragma once

#include <cerrno>
#include <string>
#include <system_error>

#include <sched.h>
#include <sys/mount.h>

namespace Halvex::Testing {

/// A file system in memory, of a size of its own, over a folder that is there. Only this thread and
/// those that it starts from then on see it.
///
/// One thread at a time, caller synchronises.
class SmallFileSystem {
public:
    /// Whether this process may make one: it needs the right to mount.
    static bool IsAllowed() {
        static const bool allowed =
            ::unshare(CLONE_NEWNS) == 0 &&
            ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
        return allowed;
    }

    /// The bytes are whole pages.
    SmallFileSystem(std::string folder, std::size_t bytes) : m_folder(std::move(folder)) {
        Mount(0, "size=" + std::to_string(bytes));
    }
    ~SmallFileSystem() { ::umount2(m_folder.c_str(), MNT_DETACH); }

    SmallFileSystem(const SmallFileSystem&) = delete;
    SmallFileSystem& operator=(const SmallFileSystem&) = delete;

    void MakeReadOnly() { Mount(MS_REMOUNT | MS_RDONLY, ""); }

private:
    void Mount(unsigned long flags, const std::string& options) const {
        if (::mount("halvex-test", m_folder.c_str(), "tmpfs", flags, options.c_str()) != 0)
            throw std::system_error(errno, std::generic_category(), "mount " + m_folder);
    }

    const std::string m_folder;
};

} // namespace Halvex::Testing
