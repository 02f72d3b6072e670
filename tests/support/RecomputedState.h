#pragma once

#include "ResourceDownloadManager/IRemoteResource.h"

#include <algorithm>
#include <vector>

namespace Halvex::Testing {

/// The state of a bundle from those of all its members, by the rule.
inline App::IRemoteResource::State
Recomputed(const std::vector<App::IRemoteResource::State>& members) {
    using Error = App::IRemoteResource::DownloadError;
    using State = App::IRemoteResource::State;
    using Status = App::IRemoteResource::DownloadStatus;
    const auto all = [&members](auto predicate) {
        return std::all_of(members.begin(), members.end(), predicate);
    };
    const auto any = [&members](auto predicate) {
        return std::any_of(members.begin(), members.end(), predicate);
    };
    const auto has = [](Status status) {
        return [status](const State& member) {
            return member.status == status;
        };
    };
    const auto failedWith = [](Error error) {
        return [error](const State& member) {
            return member.error == error;
        };
    };
    State result;
    for (const State& member : members)
        result.progress += member.progress;
    result.progress /= static_cast<double>(members.size());
    if (all(has(Status::Available)))
        result.status = Status::Available;
    else if (any(has(Status::Error)))
        result.status = Status::Error;
    else if (any(has(Status::Dowloading)) || any(has(Status::Available)))
        result.status = Status::Dowloading;
    else
        result.status = Status::Waiting;
    if (all(failedWith(Error::NoError)))
        result.error = Error::NoError;
    else if (any(failedWith(Error::Cancelled)))
        result.error = Error::Cancelled;
    else if (any(failedWith(Error::InternetConnectionLost)))
        result.error = Error::InternetConnectionLost;
    else if (any(failedWith(Error::Corrupted)))
        result.error = Error::Corrupted;
    else
        result.error = Error::GeneralError;
    return result;
}

} // namespace Halvex::Testing
