// Fetches two files in the background of a Qt application and is told of them on its event loop:
//   halvex-example-qt_event_loop BASE_URL FILE FILE
#include <ResourceDownloadManager/IRemoteResourceScheduler.h>
#include <ResourceDownloadManager/RemoteResourceEventHandlerCallback.h>
#include <ResourceDownloadManager/ResourceDescriptor.h>
#include <ResourceDownloadManager/ResourceDownloadManager.h>

#include <QtCore/QCoreApplication>

#include <array>
#include <iostream>

using namespace Halvex::App;

namespace {

ResourceDescriptor Describe(const std::string& baseUrl, const std::string& name) {
    ResourceDescriptor file;
    file.baseUrl = baseUrl;
    file.relativePath = name;
    file.localPath = file.downloadPath = name;
    file.tempPath = name + ".part";
    file.validationMode = 2;  // the file counts when it is there,
    file.checkOnSchedule = 1; // and then nothing is even queued
    return file;
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    if (argc != 4) {
        std::cerr << "usage: " << argv[0] << " BASE_URL FILE FILE\n";
        return 2;
    }
    const std::array<ResourceDescriptor, 2> files{Describe(argv[1], argv[2]),
                                                  Describe(argv[1], argv[3])};
    const ResourceDescriptorBundle bundle{{&files[0], &files[1]}};

    ResourceDownloadManager::Params params;
    params.useParallelExecutor = true; // transfers on threads of their own
    params.useQtTaskQueue = true;      // callbacks on this thread's event loop
    ResourceDownloadManager manager;
    manager.Init(params, {});
    manager.StartEventLoopThread();

    RemoteResourceEventHandlerCallback observer;
    observer.SetCallback([&application](IRemoteResource::State state) {
        std::cout << state.ToDebugString() << std::endl;
        if (state.status == IRemoteResource::DownloadStatus::Available)
            application.exit(0);
        // A failed file is tried again by itself; this example does not wait for that.
        else if (state.status == IRemoteResource::DownloadStatus::Error)
            application.exit(1);
    });
    IRemoteResource* resource = manager.GetMainScheduler()->RegisterAutoSchedule(
        &bundle, ISchedulableResource::SchedulePriority::Normal);
    observer.RegisterWithin(resource);

    const int result = application.exec();
    manager.Abort(); // before the manager goes: its thread must have ended
    return result;
}
