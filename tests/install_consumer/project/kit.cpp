// A test as an application writes it, over the kit and its test doubles.
#include <ResourceDownloadManager/IRemoteResourceScheduler.h>
#include <ResourceDownloadManager/ResourceDescriptor.h>
#include <ResourceDownloadManager/ResourceDownloadManager.h>
#include <ResourceKit/FileCheck.h>
#include <ResourceKit/PostProcessorUnpack.h>
#include <ResourceKit/Testing/ManualTaskQueue.h>
#include <ResourceKit/Testing/RecordingEventHandler.h>
#include <ResourceKit/Testing/ScriptedDownloader.h>
#include <ResourceKit/Testing/ScriptedHttpServer.h>

#include <iostream>
#include <memory>
#include <optional>
#include <string>

using namespace Halvex;

int main(int, char** argv) {
    const App::ioPath folder(argv[1]);
    App::ResourceDescriptor file;
    file.relativePath = "file";
    file.localPath = file.downloadPath = folder / "file";
    file.tempPath = folder / "file.part";
    file.postProcess = 1;
    const App::ResourceDescriptorBundle bundle{{&file}};

    const auto downloader = std::make_shared<Kit::Testing::ScriptedDownloader>();
    downloader->On("file", {Kit::Testing::ScriptedDownload::Fail(),
                            Kit::Testing::ScriptedDownload::Complete("content")});
    App::ResourceDownloadManager::Dependencies dependencies;
    dependencies.resourceDownloader = downloader;
    dependencies.postProcessor = std::make_shared<Kit::PostProcessorUnpack>(
        [](const auto&) { return std::nullopt; }, Kit::PostProcessorUnpack::Limits{});
    App::ResourceDownloadManager manager;
    manager.Init({}, dependencies);
    App::IRemoteResource* resource = manager.GetMainScheduler()->RegisterAutoSchedule(
        &bundle, App::ISchedulableResource::SchedulePriority::Normal);
    Kit::Testing::RecordingEventHandler observer;
    resource->RegisterEventHandler(&observer, {});
    manager.ProcessCurrentQueue();
    resource->UnregisterEventHandler(&observer);

    Kit::Testing::ManualTaskQueue queue;
    queue.AddTask([] {}, App::ITaskQueue::Middle);
    Kit::Testing::ScriptedHttpServer server;
    server.On("/", Kit::Testing::Reply::Ok("content"));
    std::cout << downloader->DownloadCount("file") << " "
              << observer.Notifications().back().state.ToDebugString() << " " << queue.RunAll()
              << " " << server.Url("/").substr(0, 17) << " "
              << Kit::Sha256OfFile(file.localPath).value_or("nothing").substr(0, 8) << "\n";
}
