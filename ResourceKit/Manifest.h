#pragma once

#include "Foundation/Export.h"
#include "Foundation/ioPath.h"
#include "ResourceDownloadManager/ISchedulableResource.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "ResourceKit/ExpectedFileLookup.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Halvex::Kit {

struct ManifestResult;
struct ManifestDocument;

/// A list of files in bundles, and the descriptors and bundles for the library that it makes of
/// them. They stay where they are while the manifest lives, which must be longer than the manager
/// that they are registered with.
///
/// The document is JSON:
///
///     {"baseUrl": "http://example.org/files",
///      "bundles": [{"name": "fonts", "priority": "high|normal|low", "startup": false,
///                   "files": [{"path": "a/b.bin", "url": "http://example.org/other",
///                              "size": 123, "sha256": "64 digits"}]}]}
///
/// Required are bundles, name, files and path; and baseUrl, an address without query and fragment,
/// where a file has no url. A path names a
/// file below the folder that the application gives: relative, without ".." and control characters,
/// no path twice and none in the place of another one's folder. Anything else, and whatever is not
/// known, is a mistake.
///
/// The descriptors have validationMode 1, and so ask the manager's IValidator, which a
/// ValidatorSha256 ought to be, whether a file counts; without one, every file does. Temporary
/// files lie beside their destinations under names of their own, which differ from manifest to
/// manifest: another process may use the same folder. One that is killed leaves them behind.
///
/// One thread at a time, caller synchronises; what is const is safe from any thread.
///
///     const ManifestResult result = Manifest::Load("manifest.json", {"downloads"});
///     for (const std::string& mistake : result.mistakes)
///         std::cerr << mistake << '\n';      // manifest.json:3: path "/a" is absolute
///     if (!result.manifest)
///         return;
///     result.manifest->MakeFolders();
///     for (const Manifest::Bundle& bundle : result.manifest->Bundles())
///         scheduler->RegisterAutoSchedule(&bundle.descriptors, bundle.priority);
class HALVEX_EXPORT Manifest {
public:
    struct Options {
        /// What the paths are below; empty: the current folder. It need not exist yet.
        App::ioPath folder;
        /// The descriptors download beside localPath, for PostProcessorInstall.
        bool keepsOldCopies = false;
        /// The descriptors are for ResourceDownloaderFileMock: relativePath is the path itself, and
        /// a file needs no address.
        bool fromFolder = false;
    };

    struct File {
        /// As the document writes it.
        std::string path;
        ExpectedFile expected;
        /// Its place in Bundles.
        std::size_t bundle = 0;
        /// Its userData is its place in Files, where Find looks for it. Its trace lines name it
        /// bundle/path.
        App::ResourceDescriptor descriptor;
    };

    struct Bundle {
        std::string name;
        App::ISchedulableResource::SchedulePriority priority =
            App::ISchedulableResource::SchedulePriority::Normal;
        /// Meant for the manager's init scheduler.
        bool startup = false;
        /// Its userData is its place in Bundles.
        App::ResourceDescriptorBundle descriptors;
        /// Of all files; nothing when a size is not known, or the sum beyond 64 bits.
        std::optional<std::uint64_t> totalBytes = 0;
    };

    /// Reads a document from a file. The mistake of one that cannot be read says why.
    static ManifestResult Load(const App::ioPath& document, const Options& options);

    /// Reads a document. The name is what the mistakes call it.
    static ManifestResult Parse(const std::string& document, const std::string& name,
                                const Options& options);

    /// Reads a plain list, which makes one bundle "files": on each line an address and optionally,
    /// behind a tab, the path. Without one, the last part of the address is taken. Empty lines are
    /// skipped. The name is what the mistakes call the list.
    static ManifestResult ParseUrlList(const std::string& list, const std::string& name,
                                       const Options& options);

    /// The same for addresses that are at hand; the mistakes number them from 1.
    static ManifestResult FromUrls(const std::vector<std::string>& urls, const Options& options);

    /// Writes the document for what lies in a folder (empty: the current one) and its sub-folders:
    /// one bundle "files", with size and SHA-256 for each, in the order of their paths. An empty
    /// baseUrl is left out; the document can then be read with fromFolder only.
    ///
    /// Of links only those that lead to a file in the folder are followed. Mistakes are other
    /// links, what is neither file nor folder, what cannot be read, and names that are no UTF-8 or
    /// have control characters. Blocks for as long as it takes to read all files, which must not
    /// change meanwhile.
    static ManifestDocument Create(const App::ioPath& folder, const std::string& baseUrl);

    Manifest(const Manifest&) = delete;
    Manifest& operator=(const Manifest&) = delete;

    const std::deque<File>& Files() const { return m_files; }
    /// For changes to the descriptors before they are registered.
    std::deque<File>& Files() { return m_files; }
    const std::deque<Bundle>& Bundles() const { return m_bundles; }

    /// The file that a descriptor belongs to; null when it is not of this manifest. A descriptor is
    /// known by its address: null for a copy too, such as the one that the downloader inside a
    /// ResourceDownloaderMirrors gets. The copy has the userData, which is the place in Files.
    const File* Find(const App::ResourceDescriptor& descriptor) const;

    /// For ValidatorSha256 and PostProcessorInstall. Borrows the manifest, which must outlive it.
    /// Of a descriptor that is not of this manifest it expects nothing.
    ExpectedFileLookup Expected() const;

    /// Makes the folders that the files go to. Answers a message for each one that cannot be made;
    /// downloads of its files will fail.
    std::vector<std::string> MakeFolders() const;

private:
    friend class ManifestBuilder;

    Manifest() = default;

    std::deque<File> m_files;
    std::deque<Bundle> m_bundles;
};

/// A manifest, or why there is none.
struct ManifestResult {
    /// Null when there are mistakes.
    std::unique_ptr<Manifest> manifest;
    /// In the order of their places, each with its place and the field, such as
    /// "list.json:3: sha256 "12" is not 64 hexadecimal digits". Without control characters, apart
    /// from those in the name of the document.
    std::vector<std::string> mistakes;
};

/// The text of a manifest, or why there is none.
struct ManifestDocument {
    /// Empty when there are mistakes.
    std::string text;
    std::vector<std::string> mistakes;
};

} // namespace Halvex::Kit
