#include "ResourceDownloadManager/FileUtils.h"

#include "Foundation/DataInputFile.h"
#include "Foundation/DataOutputFile.h"
#include "Foundation/Exception.h"
#include "ResourceDownloadManager/FileUtilsInternal.h"

#include <glog/logging.h>

#include <string>

namespace Halvex::App {

namespace {

template <typename Create>
auto OpenFile(const char* purpose, const ioPath& path, Create create) -> decltype(create(path)) {
    try {
        return create(path);
    } catch (const Exception& exception) {
        const std::string* details = boost::get_error_info<ErrorDetails>(exception);
        LOG(ERROR) << "failed to create file for " << purpose << "=" << path
                   << ", errno=" << (details != nullptr ? *details : "?");
    } catch (...) {
        LOG(ERROR) << "failed to create file for " << purpose << "=" << path
                   << " (unknown exception)";
    }
    return {};
}

} // namespace

TemporaryFile::TemporaryFile(const ioPath& temporaryPath, const ioPath& destinationPath)
    : m_temporaryPath(temporaryPath), m_destinationPath(destinationPath),
      m_valid(RemoveFile(temporaryPath) && RemoveFile(destinationPath)) {}

TemporaryFile::TemporaryFile(const TemporaryFile& other) = default;

TemporaryFile::~TemporaryFile() {
    RemoveFile(m_temporaryPath);
}

bool TemporaryFile::MoveToDest() const {
    try {
        ioPath::rename(m_temporaryPath, m_destinationPath);
        return true;
    } catch (...) {
        LOG(ERROR) << "Failed to rename: " << m_temporaryPath << " -> " << m_destinationPath;
        return false;
    }
}

bool FileExists(const ioPath& path) {
    try {
        return path.exists();
    } catch (...) {
        return false;
    }
}

bool RemoveFile(const ioPath& path) {
    try {
        // What is not there is most often the case, and one call tells it as well as two. Nor does
        // it sleep, as a look does, while others create files in a folder in memory.
        path.remove();
        return true;
    } catch (...) {
        LOG(ERROR) << "Failed to remove file=" << path;
        return false;
    }
}

bool ReadWholeFileToBuffer(const ioPath& path, std::vector<std::uint8_t>& buffer) {
    const auto input = OpenFileForReading(path);
    if (!input)
        return false;
    try {
        buffer.resize(input->Size());
        return input->Read(buffer.data(), buffer.size()) == buffer.size();
    } catch (...) {
        LOG(ERROR) << "failed to read file=" << path;
        return false;
    }
}

boost::intrusive_ptr<Core::IDataInput> OpenFileForReading(const ioPath& path) {
    return OpenFile("reading", path, Core::DataInputFile::Create);
}

boost::intrusive_ptr<Core::IDataOutput> OpenFileForWriting(const ioPath& path) {
    return OpenFile("writing", path, Core::DataOutputFile::Create);
}

} // namespace Halvex::App
