#include "Foundation/ioPath.h"

#include "Foundation/SystemError.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Halvex {

namespace {

/// Owns a file descriptor.
class Descriptor {
public:
    explicit Descriptor(int value) : m_value(value) {
        if (m_value < 0)
            ThrowSystemError(errno);
    }
    ~Descriptor() {
        if (m_value >= 0)
            ::close(m_value);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int Get() const { return m_value; }
    void Close() {
        if (::close(std::exchange(m_value, -1)) != 0)
            ThrowSystemError(errno);
    }

private:
    int m_value;
};

void SyncToDisk(int descriptor) {
    if (::fdatasync(descriptor) != 0)
        ThrowSystemError(errno);
}

void CopyBytes(int from, int to) {
    std::vector<char> buffer(256 * 1024);
    while (true) {
        const ssize_t count = ::read(from, buffer.data(), buffer.size());
        if (count == 0)
            return;
        if (count < 0) {
            if (errno != EINTR)
                ThrowSystemError(errno);
            continue;
        }
        for (ssize_t done = 0; done < count;) {
            const ssize_t written =
                ::write(to, buffer.data() + done, static_cast<std::size_t>(count - done));
            if (written >= 0)
                done += written;
            else if (errno != EINTR)
                ThrowSystemError(errno);
        }
    }
}

/// The path of a new file in the folder of another one. A name of its own, not one made from the
/// destination's: that one may already be as long as names can be.
std::string NameBeside(const std::string& path) {
    return path.substr(0, path.rfind('/') + 1) + ".halvexXXXXXX";
}

void CopyAcrossFileSystems(const Descriptor& source, const std::string& to) {
    std::string copyPath = NameBeside(to);
    Descriptor copy(::mkostemp(copyPath.data(), O_CLOEXEC));
    try {
        struct stat status {};
        if (::fstat(source.Get(), &status) != 0 ||
            ::fchmod(copy.Get(), status.st_mode & 07777) != 0)
            ThrowSystemError(errno);
        CopyBytes(source.Get(), copy.Get());
        SyncToDisk(copy.Get());
        copy.Close();
        if (::rename(copyPath.c_str(), to.c_str()) != 0)
            ThrowSystemError(errno);
    } catch (...) {
        ::unlink(copyPath.c_str());
        throw;
    }
}

} // namespace

ioPath::ioPath(std::string text) : m_text(std::move(text)) {}

ioPath::ioPath(const char* text) : m_text(text) {}

ioPath ioPath::operator/(const ioPath& right) const {
    if (m_text.empty())
        return right;
    if (right.m_text.empty())
        return *this;
    const std::size_t leftEnd = m_text.find_last_not_of('/') + 1;
    const std::size_t rightBegin =
        std::min(right.m_text.find_first_not_of('/'), right.m_text.size());
    std::string joined;
    joined.reserve(leftEnd + 1 + right.m_text.size() - rightBegin);
    joined.append(m_text, 0, leftEnd).append(1, '/').append(right.m_text, rightBegin);
    return ioPath(std::move(joined));
}

bool ioPath::exists() const {
    struct stat status {};
    if (::stat(CheckedSystemPath(m_text), &status) == 0)
        return true;
    if (errno == ENOENT || errno == ENOTDIR)
        return false;
    ThrowSystemError(errno);
}

bool ioPath::remove() const {
    if (::unlink(CheckedSystemPath(m_text)) == 0)
        return true;
    const int error = errno;
    // A link to a folder, with a slash behind it, is no folder either. And a file system that
    // cannot be written to says so without having looked.
    if (error == ENOENT || ((error == ENOTDIR || error == EROFS) && !exists()))
        return false;
    ThrowSystemError(error);
}

void ioPath::rename(const ioPath& from, const ioPath& to) {
    const char* fromPath = CheckedSystemPath(from.m_text);
    const char* toPath = CheckedSystemPath(to.m_text);
    Descriptor source(::open(fromPath, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
    SyncToDisk(source.Get());
    if (::rename(fromPath, toPath) == 0)
        return;
    if (errno != EXDEV)
        ThrowSystemError(errno);
    CopyAcrossFileSystems(source, to.m_text);
    ::unlink(fromPath);
}

bool operator==(const ioPath& left, const ioPath& right) {
    return left.m_text == right.m_text;
}
bool operator!=(const ioPath& left, const ioPath& right) {
    return left.m_text != right.m_text;
}
bool operator<(const ioPath& left, const ioPath& right) {
    return left.m_text < right.m_text;
}

std::ostream& operator<<(std::ostream& stream, const ioPath& path) {
    return stream << path.m_text;
}

} // namespace Halvex
