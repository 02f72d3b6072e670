// Fetches a file and says how it goes in words for the person in front of the screen:
//   halvex-example-status_texts BASE_URL FILE
#include <ResourceDownloadManager/IRemoteResourceScheduler.h>
#include <ResourceDownloadManager/RemoteResourceEventHandlerCallback.h>
#include <ResourceDownloadManager/ResourceDescriptor.h>
#include <ResourceDownloadManager/ResourceDownloadManager.h>

#include <QtCore/QCoreApplication>

#include <iostream>
#include <string>

using namespace Halvex::App;

namespace {

using Error = IRemoteResource::DownloadError;
using Status = IRemoteResource::DownloadStatus;

/// What is wrong, in words that help: whose affair it is, and whether to wait.
std::string Advice(Error error) {
    switch (error) {
    case Error::InternetConnectionLost:
        return "No connection. It goes on when you are online again.";
    case Error::Corrupted:
        return "The file arrived damaged.";
    case Error::Cancelled:
        return "Stopped.";
    case Error::GeneralError:
        return "The server could not send the file, or there is no room for it.";
    case Error::NoError:
        break;
    }
    return "";
}

std::string TextFor(const IRemoteResource::State& state) {
    switch (state.status) {
    case Status::Waiting:
        return "Waiting...";
    case Status::Dowloading:
        return "Downloading, " + std::to_string(state.GetPercentage()) + " %";
    case Status::Available:
        return "Ready.";
    case Status::Error:
        break;
    }
    return Advice(state.error);
}

} // namespace

int main(int argc, char** argv) {
    const QCoreApplication application(argc, argv);
    if (argc != 3) {
        std::cerr << "usage: " << argv[0] << " BASE_URL FILE\n";
        return 2;
    }
    ResourceDescriptor file;
    file.baseUrl = argv[1];
    file.relativePath = argv[2];
    file.localPath = file.downloadPath = argv[2];
    file.tempPath = std::string(argv[2]) + ".part";
    const ResourceDescriptorBundle bundle{{&file}};

    ResourceDownloadManager manager;
    manager.Init({}, {});
    // The init scheduler does not retry, so this ends soon also without a server.
    IRemoteResource* resource = manager.GetInitScheduler()->Register(&bundle);

    IRemoteResource::NotificationParams params;
    params.progressStep = 0.1; // ten lines of progress are enough for a person
    RemoteResourceEventHandlerCallback observer;
    observer.SetNotificationParams(params);
    observer.SetCallback(
        [](IRemoteResource::State state) { std::cout << TextFor(state) << std::endl; });
    observer.RegisterWithin(resource);
    resource->Schedule(ISchedulableResource::SchedulePriority::Normal);
    manager.ProcessCurrentQueue();
    return resource->GetState().status == Status::Available ? 0 : 1;
}
