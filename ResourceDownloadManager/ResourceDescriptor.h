#pragma once

#include "Foundation/ioPath.h"

#include <cstdint>
#include <set>
#include <string>

namespace Halvex::App {

/// The application's description of one file to be fetched.
///
/// Owned by the application, which keeps it alive and unchanged for as long as the scheduler that
/// it is registered with. The library knows a descriptor by its address: two equal ones at
/// different addresses are two resources.
///
/// Two resources may not name the same download path; if they share a temporary path, their
/// downloads wait for each other.
struct ResourceDescriptor {
    /// For the application; the library does not look at it.
    std::uint64_t userData = 0;

    /// The file whose existence means that the resource is present.
    ioPath localPath;
    /// Where a download in progress is written. Any file there is deleted when a download begins.
    /// On the file system of downloadPath the finished file is renamed, otherwise copied. Must be
    /// another path than downloadPath: otherwise downloads fail.
    ioPath tempPath;
    /// Where a finished download is moved to, commonly localPath itself. Any file there is deleted
    /// when a download begins. The folder must exist; the library makes none.
    ioPath downloadPath;

    /// The two texts that identify the resource in trace lines, as idPrefix/idSuffix.
    std::string idPrefix;
    std::string idSuffix;

    /// The path of the resource below baseUrl, or below the source folder of
    /// ResourceDownloaderFileMock.
    std::string relativePath;
    /// The address that relativePath is appended to. Unless it is empty, a slash that it ends in
    /// and one that relativePath begins with become one, and a missing one is added.
    std::string baseUrl;

    /// 0: a downloaded file is used as it is.
    /// Otherwise: the IPostProcessor is run on it and must report success.
    std::int32_t postProcess = 0;

    /// 0: downloaded on every check; a file on disk never counts, and nothing is validated.
    /// 1: a file on disk counts if the IValidator accepts it; so must it accept a fresh download.
    /// 2: a file at localPath counts because it is there.
    std::int32_t validationMode = 0;

    /// 1: when the resource is scheduled and localPath exists, it is Available at once; with
    /// validationMode 2 it is then not even queued for a check.
    std::int32_t checkOnSchedule = 0;
};

/// The application's description of a group of files that is registered, scheduled and observed as
/// one. Owned and kept alive like its descriptors, and known by its address.
struct ResourceDescriptorBundle {
    /// The members; none of them null. A descriptor may be a member of several bundles.
    std::set<const ResourceDescriptor*> descriptors;
    /// For the application; the library does not look at it.
    std::uint64_t userData = 0;
};

} // namespace Halvex::App
