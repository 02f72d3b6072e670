#include "Catalogue.h"

#include "Options.h"

#include <glog/logging.h>

#include <filesystem>
#include <random>
#include <set>
#include <system_error>

#include <unistd.h>

namespace Halvex::Fetch {

namespace {

/// The values of ResourceDescriptor::validationMode.
constexpr std::int32_t kAlwaysDownload = 0;
constexpr std::int32_t kValidate = 1;
constexpr std::int32_t kExistenceSuffices = 2;

/// Temporary files get a name of their own and not one made from the file's, which may already be
/// as long as names can be. It differs from run to run: another one may use the same folder.
std::string TempNamePrefix() {
    return ".halvex-fetch-" + std::to_string(std::random_device{}()) + '-';
}

std::string FolderOf(const App::ioPath& path) {
    return std::filesystem::path(path.string()).parent_path().string();
}

/// Whether something other than a file stands in the file's place: its existence must not count.
bool IsBlocked(const App::ioPath& path) {
    std::error_code error;
    const auto status = std::filesystem::status(path.string(), error);
    return std::filesystem::exists(status) && !std::filesystem::is_regular_file(status);
}

std::int32_t ValidationModeOf(const PlannedFile& plan, const App::ioPath& path, bool force) {
    if (force || IsBlocked(path))
        return kAlwaysDownload;
    return plan.sha256.empty() ? kExistenceSuffices : kValidate;
}

} // namespace

Catalogue::Catalogue(const Plan& plan, const Options& options) {
    const std::string prefix = TempNamePrefix();
    for (const PlannedBundle& bundle : plan.bundles) {
        m_bundles.emplace_back();
        m_bundles.back().plan = &bundle;
        for (const PlannedFile& file : bundle.files)
            AddFile(file, options, prefix + std::to_string(m_files.size()));
    }
}

void Catalogue::AddFile(const PlannedFile& plan, const Options& options,
                        const std::string& tempName) {
    BundleEntry& bundle = m_bundles.back();
    FileEntry& file = m_files.emplace_back();
    file.plan = &plan;
    file.bundle = m_bundles.size() - 1;

    App::ResourceDescriptor& descriptor = file.descriptor;
    descriptor.userData = m_files.size() - 1;
    descriptor.localPath = App::ioPath(options.output) / App::ioPath(plan.localPath);
    descriptor.downloadPath = descriptor.localPath;
    descriptor.tempPath = App::ioPath(FolderOf(descriptor.localPath)) / App::ioPath(tempName);
    descriptor.idPrefix = bundle.plan->name;
    descriptor.idSuffix = plan.path;
    descriptor.baseUrl = plan.baseUrl;
    descriptor.relativePath = options.source ? plan.localPath : plan.relativeUrl;
    descriptor.validationMode = ValidationModeOf(plan, descriptor.localPath, options.force);
    // What is downloaded in any case is not validated either.
    if (descriptor.validationMode == kAlwaysDownload && !plan.sha256.empty())
        descriptor.postProcess = 1;

    file.alone.userData = descriptor.userData;
    file.alone.descriptors.insert(&descriptor);
    bundle.group.descriptors.insert(&descriptor);
}

std::unordered_map<const App::ResourceDescriptor*, std::string> Catalogue::Checksums() const {
    std::unordered_map<const App::ResourceDescriptor*, std::string> checksums;
    for (const FileEntry& file : m_files) {
        if (!file.plan->sha256.empty())
            checksums.emplace(&file.descriptor, file.plan->sha256);
    }
    return checksums;
}

void Catalogue::MakeFolders() const {
    std::set<std::string> folders;
    for (const FileEntry& file : m_files)
        folders.insert(FolderOf(file.descriptor.downloadPath));
    for (const std::string& folder : folders) {
        std::error_code error;
        std::filesystem::create_directories(folder, error);
        if (error)
            LOG(ERROR) << "cannot make folder=" << folder << ": " << error.message();
    }
}

void Catalogue::RemoveTemporaryFiles() const {
    for (const FileEntry& file : m_files)
        ::unlink(file.descriptor.tempPath.string().c_str());
}

} // namespace Halvex::Fetch
