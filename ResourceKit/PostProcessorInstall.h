#pragma once

#include "Foundation/Export.h"
#include "ResourceDownloadManager/IPostProcessor.h"
#include "ResourceKit/ExpectedFileLookup.h"

namespace Halvex::Kit {

/// Keeps the last good copy of a file until a better one is there. Serves resources whose
/// postProcess is not 0 and whose downloadPath lies beside localPath, on its file system: the
/// library removes what is at downloadPath before a download, but never what is at localPath.
///
///     download -> downloadPath -- as expected --> localPath, in one step and on disk
///                              \-- anything else -> removed; localPath stays as it was
///
/// While it is checked the new file has a name of its own beside downloadPath, so that no other
/// download of the same resource can put itself in its place; a crash in this time leaves it there.
/// Where two checks of one resource run at once, the download of one may remove what the other has
/// just downloaded: that one fails, and the next one to end decides. Schedule a resource once.
/// It reaches the disk before it takes the name: after a power cut there is the old copy or the new
/// one, whole. On another file system it is copied beside localPath first. Where the two
/// paths are one there is nothing to replace, and the check is all: so it also judges downloads
/// with validationMode 0, which no validator sees.
///
/// With validationMode 1 the validator reads the file once more after it was installed; it is also
/// what decides whether the old copy still counts. Manifest makes such descriptors on request.
///
/// Each failure gets one line with the path and the reason: WARNING for a file that is not as
/// expected, ERROR when it cannot be moved; none when the query has ended the check. Immutable;
/// safe from any thread.
class HALVEX_EXPORT PostProcessorInstall : public App::IPostProcessor {
public:
    /// The query is asked during a check on the checking thread, must be thread-safe and not throw:
    /// once it answers true, checks end soon, and nothing more is installed. An empty one is never
    /// asked.
    explicit PostProcessorInstall(ExpectedFileLookup expected, StopQuery stop = {});

    /// 0: the file that was at downloadPath is now at localPath; 1: it is not, and localPath, where
    /// it is another path, is as it was. A file that was checked and not installed is gone.
    std::int32_t Process(const App::ResourceDescriptor* descriptor) override;

private:
    const ExpectedFileLookup m_expected;
    const StopQuery m_stop;
};

} // namespace Halvex::Kit
