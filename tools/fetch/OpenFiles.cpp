#include "OpenFiles.h"

#include <algorithm>

#include <sys/resource.h>

namespace Halvex::Fetch {

namespace {

/// Measured with either client: the file, the connection, and two by which the client wakes itself.
constexpr rlim_t kFilesOfADownload = 4;
/// The same with connections that are kept after redirects to other servers.
constexpr rlim_t kMostFilesOfADownload = 8;
/// What the process has open besides: 10 were seen.
constexpr rlim_t kOtherFiles = 24;

rlim_t OpenFilesLimit() {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_cur;
}

void RaiseOpenFilesLimit(rlim_t wanted) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::max(limit.rlim_cur, std::min(wanted, limit.rlim_max));
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

} // namespace

std::size_t MakeRoomForDownloads(std::size_t downloads) {
    RaiseOpenFilesLimit(kOtherFiles + downloads * kMostFilesOfADownload);
    const rlim_t limit = OpenFilesLimit();
    const rlim_t room = limit > kOtherFiles ? (limit - kOtherFiles) / kFilesOfADownload : 0;
    return std::clamp<rlim_t>(room, 1, downloads);
}

} // namespace Halvex::Fetch
