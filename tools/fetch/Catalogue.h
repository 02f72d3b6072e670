#pragma once

#include "Plan.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <unordered_map>

namespace Halvex::Fetch {

struct Options;

/// One file: what was asked for, and how the library knows it.
struct FileEntry {
    const PlannedFile* plan = nullptr;
    /// Its place in Catalogue::Bundles.
    std::size_t bundle = 0;
    /// userData is the place in Catalogue::Files.
    App::ResourceDescriptor descriptor;
    /// A bundle of this file alone, whose state is the file's. The same userData.
    App::ResourceDescriptorBundle alone;
};

/// One group of files.
struct BundleEntry {
    const PlannedBundle* plan = nullptr;
    App::ResourceDescriptorBundle group;
};

/// The descriptors and bundles of a plan. They stay where they are while this lives.
///
/// Immutable; safe from any thread.
class Catalogue {
public:
    /// The plan must outlive this.
    Catalogue(const Plan& plan, const Options& options);

    Catalogue(const Catalogue&) = delete;
    Catalogue& operator=(const Catalogue&) = delete;

    const std::deque<FileEntry>& Files() const { return m_files; }
    const std::deque<BundleEntry>& Bundles() const { return m_bundles; }

    /// The checksums of those files that have one.
    std::unordered_map<const App::ResourceDescriptor*, std::string> Checksums() const;

    /// Makes the folders that the files go to. One that cannot be made gets an ERROR line; its
    /// files will fail.
    void MakeFolders() const;

    /// Removes whatever is at the temporary paths.
    void RemoveTemporaryFiles() const;

private:
    void AddFile(const PlannedFile& plan, const Options& options, const std::string& tempName);

    std::deque<FileEntry> m_files;
    std::deque<BundleEntry> m_bundles;
};

} // namespace Halvex::Fetch
