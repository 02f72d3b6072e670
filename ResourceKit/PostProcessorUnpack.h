#pragma once

#include "Foundation/Export.h"
#include "Foundation/ioPath.h"
#include "ResourceDownloadManager/IPostProcessor.h"
#include "ResourceKit/FileCheck.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

namespace Halvex::Kit {

/// Unpacks downloaded archives into folders, each of which is always an old or a new one as a
/// whole: zip, and tar as it is or compressed with gzip, bzip2, xz or zstd. What an archive is, its
/// content tells, not its name.
///
///     App::ResourceDescriptor maps;
///     maps.downloadPath = "data/maps.zip";
///     maps.localPath = "data/maps"; // it is present when it has been unpacked
///     maps.validationMode = 2;      // and is then not downloaded again
///     maps.postProcess = 1;
///     dependencies.postProcessor = std::make_shared<PostProcessorUnpack>(
///         [&](const App::ResourceDescriptor& resource) ->
///         std::optional<PostProcessorUnpack::Target> {
///             if (&resource != &maps)
///                 return std::nullopt;
///             return PostProcessorUnpack::Target{"data/maps", {}};
///         },
///         PostProcessorUnpack::Limits{});
///
/// With validationMode 2 a folder that is there suffices, of whatever version: to bring a new one,
/// name the folder by its version, or have a validator (validationMode 1) that looks into it. Were
/// localPath the archive, one that was downloaded and then not unpacked would count.
///
/// An archive is unpacked into a staging folder beside the target folder, named ".NAME.unpack-" and
/// six characters. When all of it is on disk, the two change places in one step, and the old
/// content is removed. So a failure leaves the target as it was, and a crash or a power cut leaves
/// the old content or the new one. The staging folder of a crashed process is removed by the next
/// unpacking to the same target; one that is in use is locked (flock) and left alone, whatever
/// process it belongs to. On a file system without such locks they all stay. NAME may be 236 bytes
/// long where names have at most 255.
///
/// Where a file system cannot exchange two folders (renameat2 with RENAME_EXCHANGE; ext4, XFS,
/// Btrfs and tmpfs can), the old folder is moved aside first, to ".NAME.unpack-old-" and
/// six characters. A crash between these two steps leaves no target, never a mix; with localPath as
/// above the resource is then downloaded again. The next unpacking begins by putting the old folder
/// back, so that it is not lost if that fails.
///
/// Nothing is written outside of the staging folder, and nothing in it leads outside of the target.
/// An archive is refused as a whole that holds
/// - an absolute path, or one with "..", or one that is more than 100 folders deep;
/// - a path that leads through a link, or a file or link where a folder is;
/// - a symbolic link that is absolute, or that has "..", other than at its beginning and not beyond
///   the target folder;
/// - a hard link to anything but a regular file that came before it in the archive, or one that has
///   content of its own;
/// - a device, a named pipe, a socket, or something encrypted;
/// - more than the limits allow, or anything that is broken or cannot be written.
///
/// Files get the archive's permissions as far as the process's umask allows, without the
/// set-user-ID, set-group-ID and sticky bits; the owner may always read and write them. Folders get
/// those that new folders have. All belong to the process's user, and the times are those of the
/// unpacking. The archive itself stays where it is.
///
/// Thread-safe, also with unpackings to the same target at once: the last one to end wins.
class HALVEX_EXPORT PostProcessorUnpack : public App::IPostProcessor {
public:
    /// Where an archive goes.
    struct Target {
        /// The folder that is made or replaced as a whole. Its parent folder must exist; a symbolic
        /// link or a file at its place is an error.
        App::ioPath folder;
        /// What the archive is to be, compared before it is unpacked. The validator sees it only
        /// afterwards, and a tar that has been cut between two entries does not show it.
        ExpectedFile archive;
    };

    /// What one archive may unpack to.
    struct Limits {
        /// Of all files together, holes in sparse ones included.
        std::uint64_t bytes = std::uint64_t{4} * 1024 * 1024 * 1024;
        /// Files, folders and links, each as often as the archive has it, and folders that are
        /// only part of a path, or whose entry comes behind what is in them.
        std::uint64_t entries = 100'000;
    };

    /// Asked for each resource: its target; nothing: it is not to be unpacked. Runs on worker
    /// threads, for several resources at once.
    using TargetQuery = std::function<std::optional<Target>(const App::ResourceDescriptor&)>;

    /// Neither function may throw; the first must be set. The second is asked now and then on the
    /// worker thread: true makes unpackings under way fail soon, so that Abort of the manager need
    /// not wait for the rest.
    PostProcessorUnpack(TargetQuery findTarget, const Limits& limits, StopQuery stop = {});
    ~PostProcessorUnpack() override;

    PostProcessorUnpack(const PostProcessorUnpack&) = delete;
    PostProcessorUnpack& operator=(const PostProcessorUnpack&) = delete;

    /// Unpacks the file at downloadPath. 0: its folder is in place, or it has no target. 1: the
    /// folder is as it was; one ERROR line tells which entry and why.
    std::int32_t Process(const App::ResourceDescriptor* descriptor) override;

private:
    struct Impl;
    const std::unique_ptr<Impl> m_impl;
};

} // namespace Halvex::Kit
