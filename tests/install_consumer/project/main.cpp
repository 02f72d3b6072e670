#include <Foundation/Version.h>
#include <ResourceDownloadManager/IRemoteResource.h>
#include <ResourceDownloadManager/ResourceDownloadManager.h>

#include <iostream>

int main() {
    Halvex::App::ResourceDownloadManager manager;
    manager.Init({}, {});
    manager.ProcessCurrentQueue();
    std::cout << HALVEX_VERSION << " " << Halvex::App::IRemoteResource::State{}.ToDebugString()
              << "\n";
}
