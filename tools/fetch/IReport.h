#pragma once

#include "ResourceDownloadManager/IRemoteResource.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Halvex::Fetch {

/// How one file has ended.
struct FileResult {
    std::string bundle;
    std::string path;
    App::IRemoteResource::State state;
    /// Not available, and the retry policy has had enough of it. Neither available nor given up are
    /// the files that a signal has interrupted.
    bool givenUp = false;
};

/// How the whole run has ended.
struct Summary {
    std::size_t available = 0;
    /// All the others.
    std::size_t failed = 0;
    double seconds = 0;
    /// The size of the files that were downloaded; those found present do not count.
    std::uint64_t bytes = 0;
    bool interrupted = false;
};

/// How far a bundle is.
struct BundleProgress {
    std::string name;
    std::size_t filesDone = 0;
    std::size_t files = 0;
    App::IRemoteResource::State state;
    /// The bytes that have arrived for it in this run.
    std::uint64_t bytesReceived = 0;
    /// The bytes that are still to come; nothing when not all sizes are known.
    std::optional<std::uint64_t> bytesLeft;
};

/// Tells the user of a run. One thread at a time, caller synchronises.
class IReport {
public:
    virtual ~IReport() = default;

    /// Whether it shows more than what has failed. If no report does, the files of a bundle that is
    /// available are not looked at one by one.
    virtual bool ShowsSuccess() const = 0;
    /// Called once for each file, or, if no report ShowsSuccess, at least for each that is not
    /// available.
    virtual void OnFileEnded(const FileResult& result) = 0;
    /// Called at most ten times in any second, if WantsProgress, and before the summary.
    virtual void OnProgress(const std::vector<BundleProgress>& bundles) = 0;
    virtual bool WantsProgress() const = 0;
    /// Called once, last, if ShowsSuccess.
    virtual void OnSummary(const Summary& summary) = 0;
};

} // namespace Halvex::Fetch
