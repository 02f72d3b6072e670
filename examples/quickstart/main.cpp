// Fetches hello.txt from a server into the current folder, and says how it goes.
#include <ResourceDownloadManager/IRemoteResourceScheduler.h>
#include <ResourceDownloadManager/RemoteResourceEventHandlerCallback.h>
#include <ResourceDownloadManager/ResourceDescriptor.h>
#include <ResourceDownloadManager/ResourceDownloadManager.h>

#include <QtCore/QCoreApplication>

#include <iostream>

using namespace Halvex::App;

int main(int argc, char** argv) {
    const QCoreApplication application(argc, argv);
    ResourceDescriptor file;
    file.baseUrl = argc > 1 ? argv[1] : "http://localhost:8080";
    file.relativePath = "hello.txt";
    file.localPath = file.downloadPath = "hello.txt";
    file.tempPath = "hello.txt.part";
    file.validationMode = 2; // the file counts when it is there
    const ResourceDescriptorBundle bundle{{&file}};

    ResourceDownloadManager manager;
    manager.Init({}, {});
    IRemoteResource* resource = manager.GetMainScheduler()->Register(&bundle);
    RemoteResourceEventHandlerCallback observer;
    observer.SetCallback(
        [](IRemoteResource::State state) { std::cout << state.ToDebugString() << std::endl; });
    observer.RegisterWithin(resource);
    resource->Schedule(ISchedulableResource::SchedulePriority::Normal);
    manager.ProcessCurrentQueue();
    return resource->GetState().status == IRemoteResource::DownloadStatus::Available ? 0 : 1;
}
