#include "LastCopyKeeper.h"

#include <ResourceDownloadManager/ResourceDescriptor.h>

#include <filesystem>
#include <system_error>

std::int32_t LastCopyKeeper::Process(const Halvex::App::ResourceDescriptor* descriptor) {
    std::error_code error;
    std::filesystem::rename(descriptor->downloadPath.string(), descriptor->localPath.string(),
                            error);
    return error.value();
}
