#include "ResourceKit/ManifestBuilder.h"

#include "ResourceKit/PathRules.h"
#include "ResourceKit/Text.h"
#include "ResourceKit/UrlRules.h"

#include <algorithm>
#include <limits>
#include <random>
#include <utility>

namespace Halvex::Kit {

namespace {

/// Files on the way get a name of their own and not one made from the file's, which may already be
/// as long as names can be.
std::string MakeNamePrefix() {
    return ".halvex-" + std::to_string(std::random_device{}()) + '-';
}

std::optional<std::uint64_t> Add(std::optional<std::uint64_t> total,
                                 std::optional<std::uint64_t> size) {
    if (!total || !size || *size > std::numeric_limits<std::uint64_t>::max() - *total)
        return std::nullopt;
    return *total + *size;
}

} // namespace

ManifestBuilder::ManifestBuilder(std::string placePrefix, Manifest::Options options)
    : m_placePrefix(std::move(placePrefix)), m_options(std::move(options)),
      m_namePrefix(MakeNamePrefix()), m_manifest(new Manifest) {}

void ManifestBuilder::Refuse(std::size_t place, const std::string& reason) {
    m_mistakes.push_back({place, PlaceText(place) + ": " + reason});
}

void ManifestBuilder::AddBundle(Manifest::Bundle bundle) {
    bundle.descriptors.userData = m_manifest->m_bundles.size();
    m_manifest->m_bundles.push_back(std::move(bundle));
}

void ManifestBuilder::AddFile(std::size_t place, File file) {
    const CheckedPath checked = CheckPath(file.path);
    if (!checked.problem.empty()) {
        Refuse(place, checked.problem);
        return;
    }
    const auto [known, isNew] = m_places.emplace(checked.path, place);
    if (!isNew) {
        Refuse(place, "path " + Quoted(file.path) + " is asked for already, at " +
                          PlaceText(known->second));
        return;
    }
    Manifest::Bundle& bundle = m_manifest->m_bundles.back();
    Manifest::File& added = m_manifest->m_files.emplace_back();
    added.path = file.path;
    added.expected = std::move(file.expected);
    added.descriptor = Describe(std::move(file), checked.path);
    added.bundle = bundle.descriptors.userData;
    // Most often it lies behind all the others.
    auto& members = bundle.descriptors.descriptors;
    members.insert(members.end(), &added.descriptor);
    bundle.totalBytes = Add(bundle.totalBytes, added.expected.size);
}

ManifestResult ManifestBuilder::Finish() {
    RefuseFilesInFilesPlaces();
    std::stable_sort(
        m_mistakes.begin(), m_mistakes.end(),
        [](const Mistake& left, const Mistake& right) { return left.place < right.place; });
    ManifestResult result;
    for (Mistake& mistake : m_mistakes)
        result.mistakes.push_back(std::move(mistake.text));
    if (result.mistakes.empty())
        result.manifest = std::move(m_manifest);
    return result;
}

std::string ManifestBuilder::PlaceText(std::size_t place) const {
    return m_placePrefix + std::to_string(place);
}

App::ResourceDescriptor ManifestBuilder::Describe(File file, const std::string& localPath) const {
    const std::size_t number = m_manifest->m_files.size() - 1;
    const std::string name = m_namePrefix + std::to_string(number);
    App::ResourceDescriptor descriptor;
    descriptor.userData = number;
    descriptor.localPath = m_options.folder / App::ioPath(localPath);
    const App::ioPath folder(FolderOf(descriptor.localPath.string()));
    descriptor.tempPath = folder / App::ioPath(name);
    descriptor.downloadPath = descriptor.localPath;
    if (m_options.keepsOldCopies) {
        descriptor.downloadPath = folder / App::ioPath(name + ".new");
        descriptor.postProcess = 1;
    }
    descriptor.idPrefix = m_manifest->m_bundles.back().name;
    descriptor.idSuffix = std::move(file.path);
    if (m_options.fromFolder) {
        descriptor.relativePath = localPath;
    } else if (file.url.empty()) {
        descriptor.baseUrl = std::move(file.baseUrl);
        descriptor.relativePath = EncodePath(localPath);
    } else {
        descriptor.relativePath = std::move(file.url);
    }
    descriptor.validationMode = 1;
    return descriptor;
}

void ManifestBuilder::RefuseFilesInFilesPlaces() {
    for (const auto& [path, place] : m_places) {
        for (std::size_t slash = path.find('/'); slash != std::string::npos;
             slash = path.find('/', slash + 1)) {
            const auto folder = m_places.find(path.substr(0, slash));
            if (folder == m_places.end())
                continue;
            Refuse(place, "path " + Quoted(path) +
                              " needs a folder where a file is asked for, at " +
                              PlaceText(folder->second));
            break;
        }
    }
}

} // namespace Halvex::Kit
