#pragma once

#include "Foundation/Export.h"
#include "Foundation/ioPath.h"
#include "ResourceDownloadManager/Downloader/IResourceDownloader.h"

#include <memory>

namespace Halvex::App {

/// Takes the resources from a local folder instead of a server, at a simulated speed, so that an
/// application can be tried out without one.
///
/// The file at relativePath below the folder is copied in chunks of 128 KiB. Progress is reported
/// before each chunk. Exec never answers Ok: judge success by the file at the destination. (A
/// validator or another check sees it there.)
///
/// Thread-safe.
class HALVEX_EXPORT ResourceDownloaderFileMock : public IResourceDownloader {
public:
    /// The speed is in KiB per second. Values below 2,560 all give about 2.5 MiB/s, 0 included,
    /// because there is at most one pause of 50 ms per chunk; negative ones give no limit, as do
    /// those whose product with 1024 is negative in 32 bits.
    ResourceDownloaderFileMock(ioPath sourceRoot, int speedKiBps);
    ~ResourceDownloaderFileMock() override;

    ResourceDownloaderFileMock(const ResourceDownloaderFileMock&) = delete;
    ResourceDownloaderFileMock& operator=(const ResourceDownloaderFileMock&) = delete;

    /// Cancelled, or Failed in every other case, success included.
    Status Exec(Task task) const override;
    /// Stops the copies under way after their current chunk, and later ones after their first. An
    /// empty file is still completed.
    void Abort() override;

private:
    struct Impl;
    const std::unique_ptr<Impl> m_impl;
};

} // namespace Halvex::App
