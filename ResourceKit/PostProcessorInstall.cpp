#include "ResourceKit/PostProcessorInstall.h"

#include "Foundation/Exception.h"
#include "ResourceDownloadManager/FileUtils.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "ResourceKit/PathRules.h"

#include <glog/logging.h>

#include <boost/exception/get_error_info.hpp>

#include <cerrno>
#include <cstdio>
#include <random>
#include <string>
#include <system_error>
#include <utility>

namespace Halvex::Kit {

namespace {

using Verdict = FileFinding::Verdict;

constexpr std::int32_t kInstalled = 0;
constexpr std::int32_t kFailed = 1;

/// A name that nobody else uses, in the same folder.
App::ioPath NameBeside(const App::ioPath& path) {
    std::random_device random;
    return App::ioPath(FolderOf(path.string())) /
           App::ioPath(".halvex-" + std::to_string(random()) + '-' + std::to_string(random()));
}

bool CannotInstall(const App::ResourceDescriptor& descriptor, const std::string& why) {
    LOG(ERROR) << "cannot install file=" << descriptor.downloadPath << " as "
               << descriptor.localPath << ": " << why;
    return false;
}

/// False, with a line: the file is where it was. Does not wait for the disk, because another check
/// that is about to remove the file does not either.
bool TakeAside(const App::ResourceDescriptor& descriptor, const App::ioPath& aside) {
    const App::ioPath& file = descriptor.downloadPath;
    if (!App::FileExists(file)) {
        LOG(WARNING) << "not installing file=" << file << ": missing";
        return false;
    }
    return ::rename(file.string().c_str(), aside.string().c_str()) == 0 ||
           CannotInstall(descriptor, std::generic_category().message(errno));
}

/// False, with a line: all is as it was.
bool PutInPlace(const App::ioPath& file, const App::ResourceDescriptor& descriptor) {
    try {
        App::ioPath::rename(file, descriptor.localPath);
        return true;
    } catch (const Exception& exception) {
        const std::string* details = boost::get_error_info<ErrorDetails>(exception);
        return CannotInstall(descriptor, details != nullptr ? *details : exception.what());
    }
}

} // namespace

PostProcessorInstall::PostProcessorInstall(ExpectedFileLookup expected, StopQuery stop)
    : m_expected(std::move(expected)), m_stop(std::move(stop)) {}

std::int32_t PostProcessorInstall::Process(const App::ResourceDescriptor* descriptor) {
    const App::ioPath& newFile = descriptor->downloadPath;
    const bool replaces = newFile != descriptor->localPath;
    // Another check of the same resource may download again at any time, and removes what is at the
    // path before: there, what is checked need not be what is installed.
    const App::ioPath file = replaces ? NameBeside(newFile) : newFile;
    if (replaces && !TakeAside(*descriptor, file))
        return kFailed;
    FileFinding finding = CheckFile(file, m_expected(*descriptor), m_stop);
    // A check without a checksum does not ask.
    if (replaces && finding.verdict == Verdict::Good && m_stop && m_stop())
        finding.verdict = Verdict::Stopped;
    if (finding.verdict == Verdict::Good) {
        if (PutInPlace(file, *descriptor))
            return kInstalled;
    } else if (finding.verdict != Verdict::Stopped) {
        LOG(WARNING) << "not installing file=" << newFile << ": " << finding.message;
    }
    App::RemoveFile(file);
    return kFailed;
}

} // namespace Halvex::Kit
