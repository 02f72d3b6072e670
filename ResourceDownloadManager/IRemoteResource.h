#pragma once

#include "Foundation/Export.h"
#include "ResourceDownloadManager/ISchedulableResource.h"

#include <cstdint>
#include <set>
#include <string>

namespace Halvex::App {

class IRemoteResourceEventHandler;
struct ResourceDescriptorBundle;

/// A registered bundle of resources: what an application schedules, asks and observes.
///
/// Thread-safe. Owned by the scheduler that returned it and valid until that is destroyed.
///
///     IRemoteResource* fonts = manager.GetMainScheduler()->Register(&fontsBundle);
///     observer.RegisterWithin(fonts);
///     fonts->Schedule(ISchedulableResource::SchedulePriority::Normal);
class IRemoteResource : public ISchedulableResource {
public:
    /// The phase that a resource or a bundle is in.
    ///
    ///     Waiting --> Dowloading <--> Error
    ///        |            |             |
    ///        +------------+--> Available (and back to Dowloading when it is downloaded again)
    ///
    /// A bundle is Available when all its members are; otherwise Error when any member is;
    /// otherwise Dowloading when any member is, or when some members are Available and others
    /// still Waiting; otherwise Waiting.
    enum class DownloadStatus : std::int32_t {
        Waiting,    ///< nothing has happened yet
        Dowloading, ///< a transfer is under way
        Available,  ///< the file is at its local path and has been accepted
        Error,      ///< the last attempt failed; a retry may follow
    };

    /// How the last attempt ended.
    ///
    /// A bundle has NoError when all its members have; otherwise the first of Cancelled,
    /// InternetConnectionLost, Corrupted that any member has; otherwise GeneralError.
    enum class DownloadError : std::int32_t {
        NoError,                ///< nothing has failed
        GeneralError,           ///< the server, the file system or the address; retried once
        Cancelled,              ///< stopped by the application; retried once
        Corrupted,              ///< rejected by the post-processor or the validator; retried once
        InternetConnectionLost, ///< no connection, or lost on the way; retried up to 20 times
    };

    /// What can be known about a resource or a bundle at one moment.
    struct HALVEX_EXPORT State {
        DownloadStatus status = DownloadStatus::Waiting;
        DownloadError error = DownloadError::NoError;
        /// The fraction done, 0.0 to 1.0; of a bundle the mean of its members. Not a number while a
        /// member's server has announced a total of 0 bytes, and above 1 while one sends more than
        /// it has announced.
        double progress = 0.0;

        /// The progress in percent, truncated toward zero: 0.999 gives 99. What is not a number
        /// gives 0; what does not fit in 32 bits gives the nearest value that does.
        std::int32_t GetPercentage() const;

        /// For logs, such as "Status: Available, err:NoError =100%".
        std::string ToDebugString() const;
    };

    /// What an observer wants to hear about.
    ///
    /// Of the states whose status is in statuses, it hears of every change of status and, while
    /// that is Dowloading, of progress.
    struct NotificationParams {
        /// Whether it is told of progress at all.
        bool notifyProgress = true;
        /// The statuses it is told of. A state with another status leaves no trace: neither the
        /// next change of status nor the next progress is measured against it.
        std::set<DownloadStatus> statuses{DownloadStatus::Waiting, DownloadStatus::Dowloading,
                                          DownloadStatus::Available, DownloadStatus::Error};
        /// The least rise of progress since the last report that is reported: 0.01 is one percent.
        /// With 0 or less every report of the downloader that is not a fall is passed on. Against a
        /// progress that is not a number every change is reported.
        double progressStep = 0.01;
    };

    /// The latest state, which may be newer than the last one delivered to an observer. Waits while
    /// an observer of this bundle is being called on another thread, not on the thread that calls
    /// it.
    virtual State GetState() = 0;

    /// The bundle given at registration.
    virtual const ResourceDescriptorBundle* GetDescriptor() = 0;

    /// Adds an observer, which must outlive its registration, with its own copy of the parameters.
    /// It is told of the present state at once, through the notification queue, if it wants to hear
    /// of it. An observer that is registered already keeps its first parameters. Waits as GetState
    /// does.
    virtual void RegisterEventHandler(IRemoteResourceEventHandler* handler,
                                      const NotificationParams& params) = 0;

    /// Removes an observer, or does nothing for one that is not registered. It receives nothing
    /// after this has returned, notifications on their way to it included: while it is being called
    /// on another thread, this waits.
    virtual void UnregisterEventHandler(IRemoteResourceEventHandler* handler) = 0;

    /// The name of an error; "?" for a value that is not one.
    HALVEX_EXPORT static std::string ErrorToString(DownloadError error);
    /// The name of a status, to the letter as the enumerators spell it; "?" for a value that is
    /// not one.
    HALVEX_EXPORT static std::string StatusToString(DownloadStatus status);
};

} // namespace Halvex::App
