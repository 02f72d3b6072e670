#include "Sha256Validator.h"

#include "ResourceDownloadManager/FileUtils.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"

#include <glog/logging.h>

#include <QtCore/QCryptographicHash>

#include <cerrno>
#include <optional>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Halvex::Fetch {

namespace {

constexpr std::size_t kPieceBytes = 256 * 1024;
constexpr std::int32_t kAccepted = 0;
constexpr std::int32_t kRejected = 1;

/// A regular file that is open for reading.
class OpenFile {
public:
    /// Without O_NONBLOCK, opening a pipe would wait for its writer.
    explicit OpenFile(const std::string& path)
        : m_descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}
    ~OpenFile() {
        if (m_descriptor >= 0)
            ::close(m_descriptor);
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    bool IsRegular() const {
        struct stat status {};
        return m_descriptor >= 0 && ::fstat(m_descriptor, &status) == 0 && S_ISREG(status.st_mode);
    }

    /// The bytes read; 0 at the end, negative after a failure.
    ssize_t Read(std::vector<char>& buffer) const {
        ssize_t count = 0;
        do {
            count = ::read(m_descriptor, buffer.data(), buffer.size());
        } while (count < 0 && errno == EINTR);
        return count;
    }

private:
    const int m_descriptor;
};

/// The digits of a file's sum; nothing when it cannot be read or is no longer wanted.
std::optional<std::string> SumOf(const std::string& path, const std::atomic<bool>& aborted) {
    const OpenFile file(path);
    if (!file.IsRegular())
        return std::nullopt;
    QCryptographicHash hash(QCryptographicHash::Sha256);
    std::vector<char> buffer(kPieceBytes);
    while (!aborted) {
        const ssize_t count = file.Read(buffer);
        if (count < 0)
            return std::nullopt;
        if (count == 0)
            return hash.result().toHex().toStdString();
        hash.addData(buffer.data(), static_cast<int>(count));
    }
    return std::nullopt;
}

} // namespace

Sha256Validator::Sha256Validator(
    std::unordered_map<const App::ResourceDescriptor*, std::string> expected)
    : m_expected(std::move(expected)) {}

std::int32_t Sha256Validator::Validate(const App::ResourceDescriptor* descriptor) {
    const auto expected = m_expected.find(descriptor);
    if (expected == m_expected.end())
        return kAccepted;
    const std::optional<std::string> sum = SumOf(descriptor->localPath.string(), m_aborted);
    if (m_aborted)
        return kRejected;
    if (!sum) {
        LOG(ERROR) << "cannot read file=" << descriptor->localPath << " for its checksum";
        return kRejected;
    }
    if (*sum == expected->second)
        return kAccepted;
    LOG(WARNING) << "removing file=" << descriptor->localPath << ", whose sha256 is " << *sum
                 << " instead of " << expected->second;
    App::RemoveFile(descriptor->localPath);
    return kRejected;
}

std::int32_t Sha256Validator::Process(const App::ResourceDescriptor* descriptor) {
    return Validate(descriptor);
}

} // namespace Halvex::Fetch
