#include "ResourceDownloadManager/IRemoteResource.h"

#include <cmath>
#include <limits>

namespace Halvex::App {

std::int32_t IRemoteResource::State::GetPercentage() const {
    using Limits = std::numeric_limits<std::int32_t>;
    const double percentage = progress * 100.0;
    if (std::isnan(percentage))
        return 0;
    if (percentage >= Limits::max())
        return Limits::max();
    if (percentage <= Limits::min())
        return Limits::min();
    return static_cast<std::int32_t>(percentage);
}

std::string IRemoteResource::State::ToDebugString() const {
    return "Status: " + StatusToString(status) + ", err:" + ErrorToString(error) + " =" +
           std::to_string(GetPercentage()) + "%";
}

std::string IRemoteResource::ErrorToString(DownloadError error) {
    switch (error) {
    case DownloadError::NoError:
        return "NoError";
    case DownloadError::GeneralError:
        return "GeneralError";
    case DownloadError::Cancelled:
        return "Cancelled";
    case DownloadError::Corrupted:
        return "Corrupted";
    case DownloadError::InternetConnectionLost:
        return "InternetConnectionLost";
    }
    return "?";
}

std::string IRemoteResource::StatusToString(DownloadStatus status) {
    switch (status) {
    case DownloadStatus::Waiting:
        return "Waiting";
    case DownloadStatus::Dowloading:
        return "Dowloading";
    case DownloadStatus::Available:
        return "Available";
    case DownloadStatus::Error:
        return "Error";
    }
    return "?";
}

} // namespace Halvex::App
