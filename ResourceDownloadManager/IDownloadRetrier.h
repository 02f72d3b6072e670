#pragma once

#include "ResourceDownloadManager/IRemoteResource.h"

#include <cstdint>

namespace Halvex::App {

class ISchedulableResource;

/// Decides which failed downloads are tried again, and when.
///
/// Thread-safe: DownloadFinished is called on worker threads, the rest on the thread that runs the
/// processing loop.
class IDownloadRetrier {
public:
    /// What Check has done.
    enum class Result : std::int32_t {
        NothingToRetry, ///< no failed resource is waiting for another attempt
        Retried,        ///< one has just been scheduled again
        Wait,           ///< one is waiting, but the caller is to pause first; see GetState
    };

    /// How good the connection looks.
    enum class ConnectionState : std::int32_t {
        Good,     ///< the last download succeeded, or few retries have been made since
        Unstable, ///< three or more retries in a row without a success: pauses of 5 seconds
        Lost,     ///< more than ten: pauses of 60 seconds
    };

    virtual ~IDownloadRetrier() = default;

    /// Told of the end of every download attempt, NoError for a success.
    virtual void DownloadFinished(ISchedulableResource* resource,
                                  IRemoteResource::DownloadError error) = 0;

    /// Called when nothing is left to run: schedules the next failed resource again, if it is time.
    virtual Result Check() = 0;

    virtual ConnectionState GetState() const = 0;
};

} // namespace Halvex::App
