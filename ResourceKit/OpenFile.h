#pragma once

#include "Foundation/ioPath.h"
#include "ResourceKit/FileDescriptor.h"

#include <cerrno>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Halvex::Kit {

/// A file that is open for reading.
class OpenFile {
public:
    explicit OpenFile(const App::ioPath& path)
        : m_file(Open(path.string())), m_error(m_file ? 0 : errno) {}

    /// The system's error number; 0: it is open.
    int Error() const { return m_error; }

    /// In bytes; nothing when this is no regular file.
    std::optional<std::uint64_t> Size() const {
        struct stat status {};
        if (::fstat(m_file.Get(), &status) != 0 || !S_ISREG(status.st_mode))
            return std::nullopt;
        return static_cast<std::uint64_t>(status.st_size);
    }

    /// Whether it is what the path names now.
    bool IsAt(const App::ioPath& path) const {
        struct stat own {};
        struct stat named {};
        return ::fstat(m_file.Get(), &own) == 0 && ::stat(path.string().c_str(), &named) == 0 &&
               own.st_dev == named.st_dev && own.st_ino == named.st_ino;
    }

    /// Belongs to this object.
    int Descriptor() const { return m_file.Get(); }

    /// To the beginning. False: this cannot be read twice.
    bool Rewind() const { return ::lseek(m_file.Get(), 0, SEEK_SET) == 0; }

    /// The bytes read; 0 at the end, negative after a failure.
    ssize_t Read(std::vector<char>& buffer) const {
        ssize_t count = 0;
        do {
            count = ::read(m_file.Get(), buffer.data(), buffer.size());
        } while (count < 0 && errno == EINTR);
        return count;
    }

private:
    static FileDescriptor Open(const std::string& path) {
        // The system would cut the path there, and so take it for another file's.
        if (path.find('\0') != std::string::npos) {
            errno = EINVAL;
            return {};
        }
        // Without O_NONBLOCK, opening a pipe would wait for its writer.
        return FileDescriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    }

    const FileDescriptor m_file;
    const int m_error;
};

} // namespace Halvex::Kit
