#pragma once

#include "ResourceDownloadManager/ISchedulableResource.h"

namespace Halvex::App {

class IRemoteResource;
struct ResourceDescriptorBundle;

/// Where an application registers the bundles it wants.
///
/// Thread-safe. Owns what it returns until it is destroyed; nothing can be taken out before.
class IRemoteResourceScheduler {
public:
    virtual ~IRemoteResourceScheduler() = default;

    /// Registers like Register, and schedules each member that has never been scheduled, or whose
    /// latest scheduling had a priority of a smaller value: Low after High queues another check,
    /// High after Low does not. Does not wait for the checks.
    virtual IRemoteResource*
    RegisterAutoSchedule(const ResourceDescriptorBundle* bundle,
                         ISchedulableResource::SchedulePriority priority) = 0;

    /// The resource of a bundle, the same one for each call with the same address. Nothing is
    /// checked or downloaded until it is scheduled. The bundle, which must not be null, and its
    /// descriptors must outlive the scheduler and stay as they are. A descriptor that stands in
    /// several bundles is one resource.
    virtual IRemoteResource* Register(const ResourceDescriptorBundle* bundle) = 0;
};

} // namespace Halvex::App
