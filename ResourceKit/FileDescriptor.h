#pragma once

#include <cerrno>
#include <string>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace Halvex::Kit {

/// Owns a file descriptor of the system's; negative: none. To close it leaves errno alone, so that
/// a failure can still be told afterwards.
class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int number) : m_number(number) {}
    FileDescriptor(FileDescriptor&& other) noexcept : m_number(std::exchange(other.m_number, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(m_number, other.m_number);
        return *this;
    }
    ~FileDescriptor() {
        const int error = errno;
        if (m_number >= 0)
            ::close(m_number);
        errno = error;
    }

    int Get() const { return m_number; }
    /// Whether there is one.
    explicit operator bool() const { return m_number >= 0; }

private:
    int m_number = -1;
};

/// Of a folder in another one, and not of what a link leads to.
inline FileDescriptor OpenFolder(const FileDescriptor& parent, const std::string& name) {
    return FileDescriptor(
        ::openat(parent.Get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

} // namespace Halvex::Kit
