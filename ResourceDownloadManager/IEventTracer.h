#pragma once

#include "ResourceDownloadManager/IRemoteResource.h"

#include <cstdint>
#include <string>

namespace Halvex::App {

struct ResourceDescriptor;
struct ResourceDescriptorBundle;

/// Follows what the schedulers do, step by step.
///
/// Called on every thread that schedules, checks, downloads or notifies, at once; must be
/// thread-safe and short, and must not call the library. Runs with locks of the library held: the
/// resource's while it is scheduled, the bundle's delivery lock around a notification.
class IEventTracer {
public:
    /// The steps. One whose name ends in End closes the step that it repeats, on the same thread.
    enum class Event : std::int32_t {
        CheckScheduled,          ///< a check is about to be queued
        Check,                   ///< a check begins
        CheckEnd,                ///< and has ended, the download included if there was one
        ValidatorCheck,          ///< for validators to use
        RegisterValidator,       ///< for validators to use
        StatusNotification,      ///< an observer is about to be told of a status
        StatusNotificationEnd,   ///< and has been told
        ProgressNotification,    ///< an observer is about to be told of progress
        ProgressNotificationEnd, ///< and has been told
        Download,                ///< a download begins; the text is the relative path
        DownloadEnd,             ///< and has ended; the text is the relative path and the error
    };

    /// What is known about a step. The pointers are borrowed, valid for the call only, and may be
    /// null.
    struct TraceRecord {
        const ResourceDescriptor* descriptor = nullptr;
        const ResourceDescriptorBundle* bundle = nullptr;
        /// A copy that nobody else changes.
        const IRemoteResource::State* state = nullptr;
        std::string text;
    };

    virtual ~IEventTracer() = default;

    virtual void Trace(Event event, const TraceRecord& record) const = 0;
    /// A line of free text.
    virtual void TraceString(const std::string& text) const = 0;
};

} // namespace Halvex::App
