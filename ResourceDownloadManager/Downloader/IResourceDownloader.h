#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace Halvex::App {

struct ResourceDescriptor;

/// Fetches one resource into its file.
///
/// Thread-safe: Exec runs for several resources at once.
class IResourceDownloader {
public:
    struct Task {
        /// What to fetch; not owned.
        const ResourceDescriptor* descriptor = nullptr;
        /// Told of the bytes done so far and in total, on the thread that called Exec. Must be set.
        std::function<void(std::size_t done, std::size_t total)> progressCallback;
        /// Asked now and then, on the thread that called Exec; true stops the download. Must be
        /// set.
        std::function<bool()> cancellationQuery = [] {
            return false;
        };
    };

    enum class Status : std::int32_t {
        Ok,             ///< the file is at its destination
        Failed,         ///< the download or the file handling failed; not worth a network retry
        NetworkFailure, ///< no connection, a lost one, or offline; worth a retry later
        Cancelled,      ///< stopped by Abort or by the task's cancellation query
    };

    virtual ~IResourceDownloader() = default;

    /// Blocks until the file is at its destination, has failed or was cancelled. A file that was at
    /// the destination before is deleted first; the destination never shows a part of a file. Both
    /// callbacks are destroyed before it returns. What they throw comes out.
    virtual Status Exec(Task task) const = 0;

    /// Makes the downloads under way stop soon, and every later one at once. For good. Any thread.
    virtual void Abort() = 0;
};

} // namespace Halvex::App
