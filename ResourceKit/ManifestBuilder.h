#pragma once

#include "ResourceKit/Manifest.h"

#include <cstddef>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace Halvex::Kit {

/// The bundle's name where the source knows no bundles.
inline constexpr const char* kOnlyBundleName = "files";

/// Collects a manifest entry by entry, and every mistake with the place where it stands.
///
/// One thread at a time, caller synchronises.
class ManifestBuilder {
public:
    struct File {
        std::string path;
        /// Empty: the path below baseUrl.
        std::string url;
        std::string baseUrl;
        ExpectedFile expected;
    };

    /// A place is the prefix and a number: "list.txt:" for lines, "address " for arguments.
    ManifestBuilder(std::string placePrefix, Manifest::Options options);

    /// Notes a mistake.
    void Refuse(std::size_t place, const std::string& reason);

    /// Adds a bundle without files. The files that follow belong to it.
    void AddBundle(Manifest::Bundle bundle);

    /// Adds a file to the latest bundle, unless its path is refused.
    void AddFile(std::size_t place, File file);

    /// To be called once, at the end: only then can it be told which files stand in the place of
    /// others' folders.
    ManifestResult Finish();

private:
    struct Mistake {
        std::size_t place;
        std::string text;
    };

    std::string PlaceText(std::size_t place) const;
    App::ResourceDescriptor Describe(File file, const std::string& localPath) const;
    void RefuseFilesInFilesPlaces();

    const std::string m_placePrefix;
    const Manifest::Options m_options;
    const std::string m_namePrefix;
    std::unique_ptr<Manifest> m_manifest;
    std::vector<Mistake> m_mistakes;
    /// By the shortest spelling of the path: where the file was asked for.
    std::unordered_map<std::string, std::size_t> m_places;
};

} // namespace Halvex::Kit
