#include "Foundation/DataOutputFile.h"

#include "Foundation/RefCounted.h"
#include "Foundation/SystemError.h"

#include <glog/logging.h>

#include <cerrno>
#include <string>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Halvex::Core {

namespace {

class FileOutput final : public RefCounted<IDataOutput> {
public:
    FileOutput(int descriptor, std::string path)
        : m_descriptor(descriptor), m_path(std::move(path)) {}

    ~FileOutput() override {
        // Removed while the descriptor still holds the file, so that its identity cannot have been
        // given to another one.
        if (m_failed)
            RemoveOwnFile();
        if (::close(m_descriptor) != 0 && !m_failed) {
            LOG(ERROR) << "failed to close file=" << m_path << ", errno=" << SystemErrorText(errno);
            RemoveOwnFile();
        }
    }

    /// Learns which file was opened; throws for anything but a regular file.
    void Identify() {
        if (::fstat(m_descriptor, &m_identity) != 0)
            ThrowSystemError(errno);
        if (!S_ISREG(m_identity.st_mode))
            ThrowSystemError(EINVAL);
    }

    std::size_t Write(const void* data, std::size_t size) noexcept override {
        const auto* bytes = static_cast<const char*>(data);
        std::size_t done = 0;
        while (!m_failed && done < size) {
            const ssize_t count = ::write(m_descriptor, bytes + done, size - done);
            if (count > 0) {
                done += static_cast<std::size_t>(count);
            } else if (count == 0 || errno != EINTR) {
                const int error = count == 0 ? ENOSPC : errno;
                LOG(ERROR) << "failed to write file=" << m_path
                           << ", errno=" << SystemErrorText(error);
                m_failed = true;
            }
        }
        return done;
    }

private:
    void RemoveOwnFile() const {
        struct stat current {};
        if (::lstat(m_path.c_str(), &current) == 0 && current.st_dev == m_identity.st_dev &&
            current.st_ino == m_identity.st_ino)
            ::unlink(m_path.c_str());
    }

    const int m_descriptor;
    const std::string m_path;
    struct stat m_identity {};
    bool m_failed = false;
};

} // namespace

boost::intrusive_ptr<IDataOutput> DataOutputFile::Create(const ioPath& path) {
    std::string text = path.string();
    // Without O_NONBLOCK, opening a pipe would wait for its reader.
    const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
    const int descriptor = ::open(CheckedSystemPath(text), flags, 0666);
    if (descriptor < 0)
        ThrowSystemError(errno);

    boost::intrusive_ptr<FileOutput> file(new FileOutput(descriptor, std::move(text)));
    file->Identify();
    return file;
}

} // namespace Halvex::Core
