// Accepts a file only when it has the size that the application expects of it:
//   halvex-example-validator BASE_URL FILE SIZE
#include <ResourceDownloadManager/FileUtils.h>
#include <ResourceDownloadManager/IRemoteResource.h>
#include <ResourceDownloadManager/IRemoteResourceScheduler.h>
#include <ResourceDownloadManager/IValidator.h>
#include <ResourceDownloadManager/ResourceDescriptor.h>
#include <ResourceDownloadManager/ResourceDownloadManager.h>

#include <QtCore/QCoreApplication>

#include <iostream>
#include <memory>
#include <string>
#include <vector>

using namespace Halvex::App;

namespace {

/// Reads the whole file: fine for small ones. The descriptor's userData carries the size.
class SizeValidator : public IValidator {
public:
    std::int32_t Validate(const ResourceDescriptor* descriptor) override {
        std::vector<std::uint8_t> content;
        const bool accepted = ReadWholeFileToBuffer(descriptor->localPath, content) &&
                              content.size() == descriptor->userData;
        return accepted ? 0 : 1;
    }
};

} // namespace

int main(int argc, char** argv) {
    const QCoreApplication application(argc, argv);
    if (argc != 4) {
        std::cerr << "usage: " << argv[0] << " BASE_URL FILE SIZE\n";
        return 2;
    }
    ResourceDescriptor file;
    file.userData = std::stoull(argv[3]);
    file.baseUrl = argv[1];
    file.relativePath = argv[2];
    file.localPath = file.downloadPath = argv[2];
    file.tempPath = std::string(argv[2]) + ".part";
    file.validationMode = 1; // both a file on disk and a fresh download must pass
    const ResourceDescriptorBundle bundle{{&file}};

    ResourceDownloadManager::Dependencies services;
    services.validator = std::make_shared<SizeValidator>();
    ResourceDownloadManager manager;
    manager.Init({}, services);
    IRemoteResource* resource = manager.GetMainScheduler()->RegisterAutoSchedule(
        &bundle, ISchedulableResource::SchedulePriority::High);
    manager.ProcessCurrentQueue();

    const IRemoteResource::State state = resource->GetState();
    std::cout << state.ToDebugString() << std::endl;
    return state.status == IRemoteResource::DownloadStatus::Available ? 0 : 1;
}
