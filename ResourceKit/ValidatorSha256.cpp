#include "ResourceKit/ValidatorSha256.h"

#include "ResourceDownloadManager/FileUtils.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "ResourceKit/FileCheckInternal.h"

#include <glog/logging.h>

#include <utility>

namespace Halvex::Kit {

namespace {

using Verdict = FileFinding::Verdict;

constexpr std::int32_t kAccepted = 0;
constexpr std::int32_t kRejected = 1;

bool IsAnotherFile(Verdict verdict) {
    return verdict == Verdict::Short || verdict == Verdict::Long || verdict == Verdict::Different;
}

} // namespace

ValidatorSha256::ValidatorSha256(ExpectedFileLookup expected, StopQuery stop)
    : m_expected(std::move(expected)), m_stop(std::move(stop)) {}

std::int32_t ValidatorSha256::Validate(const App::ResourceDescriptor* descriptor) {
    const App::ioPath& path = descriptor->localPath;
    const OpenFile file(path);
    const FileFinding finding = CheckOpenFile(file, m_expected(*descriptor), m_stop);
    if (finding.verdict == Verdict::Good)
        return kAccepted;
    if (finding.verdict == Verdict::Stopped)
        return kRejected;
    // Another check of the same resource may have put a better one there.
    const bool removes =
        IsAnotherFile(finding.verdict) && path == descriptor->downloadPath && file.IsAt(path);
    LOG(WARNING) << (removes ? "removing" : "rejecting") << " file=" << path << ": "
                 << finding.message;
    if (removes)
        App::RemoveFile(path);
    return kRejected;
}

} // namespace Halvex::Kit
