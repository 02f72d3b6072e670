#include "ResourceDownloadManager/Downloader/ResourceDownloaderFileMock.h"

#include "ResourceDownloadManager/Downloader/PathClaim.h"
#include "ResourceDownloadManager/Downloader/RateLimiter.h"
#include "ResourceDownloadManager/FileUtils.h"
#include "ResourceDownloadManager/FileUtilsInternal.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"

#include <glog/logging.h>

#include <algorithm>
#include <atomic>
#include <utility>
#include <vector>

namespace Halvex::App {

struct HALVEX_HIDDEN ResourceDownloaderFileMock::Impl {
    static constexpr std::size_t kChunkBytes = 128 * 1024;

    Impl(ioPath root, int speed) : sourceRoot(std::move(root)), speedKiBps(speed) {}

    bool IsCancelled(const Task& task) const { return aborted || task.cancellationQuery(); }

    /// False: cancelled on the way.
    bool Copy(const std::vector<std::uint8_t>& source, Core::IDataOutput& output,
              const Task& task) const {
        RateLimiter limiter(speedKiBps);
        for (std::size_t offset = 0; offset < source.size(); offset += kChunkBytes) {
            task.progressCallback(offset, source.size());
            const std::size_t chunk = std::min(source.size() - offset, kChunkBytes);
            output.Write(source.data() + offset, chunk);
            if (IsCancelled(task))
                return false;
            limiter.OnChunk(chunk);
        }
        return true;
    }

    static Status Cancelled(const ResourceDescriptor& descriptor) {
        LOG(INFO) << "request=" << descriptor.relativePath << " was cancelled.";
        return Status::Cancelled;
    }

    /// Written by Abort on any thread, never reset.
    std::atomic<bool> aborted{false};
    const ioPath sourceRoot;
    const int speedKiBps;
};

ResourceDownloaderFileMock::ResourceDownloaderFileMock(ioPath sourceRoot, int speedKiBps)
    : m_impl(std::make_unique<Impl>(std::move(sourceRoot), speedKiBps)) {}

ResourceDownloaderFileMock::~ResourceDownloaderFileMock() = default;

IResourceDownloader::Status ResourceDownloaderFileMock::Exec(Task task) const {
    // The callbacks must die before this returns, which a parameter need not do.
    const Task local = std::move(task);
    const ResourceDescriptor& descriptor = *local.descriptor;

    const PathClaim claim(descriptor.tempPath, [&] { return m_impl->IsCancelled(local); });
    if (!claim)
        return Impl::Cancelled(descriptor);
    if (claim.IsOn(descriptor.downloadPath)) {
        LOG(ERROR) << "the temporary path is the download path=" << descriptor.downloadPath;
        return Status::Failed;
    }
    const ioPath sourcePath = m_impl->sourceRoot / ioPath(descriptor.relativePath);
    const TemporaryFile file(descriptor.tempPath, descriptor.downloadPath);
    if (!file)
        return Status::Failed;
    auto output = OpenFileForWriting(descriptor.tempPath);
    if (!output)
        return Status::Failed;
    std::vector<std::uint8_t> source;
    if (!ReadWholeFileToBuffer(sourcePath, source))
        return Status::Failed;

    const bool complete = m_impl->Copy(source, *output, local);
    output.reset();
    if (!complete)
        return Impl::Cancelled(descriptor);
    file.MoveToDest();
    return Status::Failed;
}

void ResourceDownloaderFileMock::Abort() {
    m_impl->aborted = true;
}

} // namespace Halvex::App
