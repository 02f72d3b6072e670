#include "Foundation/DataInputFile.h"

#include "Foundation/RefCounted.h"
#include "Foundation/SystemError.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Halvex::Core {

namespace {

class FileInput final : public RefCounted<IDataInput> {
public:
    explicit FileInput(int descriptor) : m_descriptor(descriptor) {}
    ~FileInput() override { ::close(m_descriptor); }

    std::uint64_t Size() override { return static_cast<std::uint64_t>(Status().st_size); }

    std::size_t Read(void* buffer, std::size_t size) override {
        auto* bytes = static_cast<char*>(buffer);
        std::size_t done = 0;
        while (done < size) {
            const ssize_t count = ::read(m_descriptor, bytes + done, size - done);
            if (count == 0)
                break;
            if (count > 0)
                done += static_cast<std::size_t>(count);
            else if (errno != EINTR)
                ThrowSystemError(errno);
        }
        return done;
    }

    struct stat Status() const {
        struct stat status {};
        if (::fstat(m_descriptor, &status) != 0)
            ThrowSystemError(errno);
        return status;
    }

private:
    const int m_descriptor;
};

} // namespace

boost::intrusive_ptr<IDataInput> DataInputFile::Create(const ioPath& path) {
    const std::string text = path.string();
    // Without O_NONBLOCK, opening a pipe would wait for its writer.
    const int descriptor = ::open(CheckedSystemPath(text), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0)
        ThrowSystemError(errno);

    boost::intrusive_ptr<FileInput> file(new FileInput(descriptor));
    const struct stat status = file->Status();
    if (S_ISDIR(status.st_mode))
        ThrowSystemError(EISDIR);
    if (!S_ISREG(status.st_mode))
        ThrowSystemError(EINVAL);
    return file;
}

} // namespace Halvex::Core
