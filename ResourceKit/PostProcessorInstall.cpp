#include "ResourceKit/PostProcessorInstall.h"

#include "Foundation/Exception.h"
#include "ResourceDownloadManager/FileUtils.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"

#include <glog/logging.h>

#include <boost/exception/get_error_info.hpp>

#include <utility>

namespace Halvex::Kit {

namespace {

using Verdict = FileFinding::Verdict;

constexpr std::int32_t kInstalled = 0;
constexpr std::int32_t kFailed = 1;

/// False, with a line: the destination is as it was.
bool Move(const App::ioPath& from, const App::ioPath& to) {
    try {
        App::ioPath::rename(from, to);
        return true;
    } catch (const Exception& exception) {
        const std::string* details = boost::get_error_info<ErrorDetails>(exception);
        LOG(ERROR) << "cannot install file=" << from << " as " << to << ": "
                   << (details != nullptr ? *details : exception.what());
        return false;
    }
}

} // namespace

PostProcessorInstall::PostProcessorInstall(ExpectedFileLookup expected, StopQuery stop)
    : m_expected(std::move(expected)), m_stop(std::move(stop)) {}

std::int32_t PostProcessorInstall::Process(const App::ResourceDescriptor* descriptor) {
    const App::ioPath& newFile = descriptor->downloadPath;
    const FileFinding finding = CheckFile(newFile, m_expected(*descriptor), m_stop);
    if (finding.verdict == Verdict::Good) {
        if (Move(newFile, descriptor->localPath))
            return kInstalled;
    } else if (finding.verdict != Verdict::Stopped) {
        LOG(WARNING) << "not installing file=" << newFile << ": " << finding.message;
    }
    App::RemoveFile(newFile);
    return kFailed;
}

} // namespace Halvex::Kit
