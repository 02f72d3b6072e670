#pragma once

#include "Foundation/Export.h"
#include "ResourceDownloadManager/Downloader/IResourceDownloader.h"
#include "ResourceKit/Testing/ScriptedDownload.h"

#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Halvex::Kit::Testing {

/// A downloader that needs no server: each download does what the script says.
///
///     auto downloader = std::make_shared<ScriptedDownloader>();
///     downloader->On("a.bin", {ScriptedDownload::Fail(), ScriptedDownload::Complete("content")});
///     downloader->On("b.bin", ScriptedDownload::Hang());
///     dependencies.resourceDownloader = downloader;
///     ...
///     downloader->Report("b.bin", 5, 10);
///     downloader->Finish("b.bin", ScriptedDownload::Complete("0123456789"));
///
/// As with the real ones, what is at the temporary path and at the destination is removed when a
/// download begins, however it ends, and a file appears whole. When that is not possible the
/// download has Failed. Unlike the real ones it does not wait for another download to the same
/// temporary path: give each resource a path of its own. One that is cancelled before it begins
/// touches nothing and takes nothing from its script.
///
/// Thread-safe. No download may be under way when it is destroyed.
class HALVEX_EXPORT ScriptedDownloader : public App::IResourceDownloader {
public:
    /// Without a script, every download has Failed.
    ScriptedDownloader();
    ~ScriptedDownloader() override;

    ScriptedDownloader(const ScriptedDownloader&) = delete;
    ScriptedDownloader& operator=(const ScriptedDownloader&) = delete;

    /// The downloads of this relative path, one after the other; the last one is repeated. Replaces
    /// what the path had before. With an empty list they have Failed.
    void On(const std::string& relativePath, std::vector<ScriptedDownload> downloads);
    void On(const std::string& relativePath, ScriptedDownload download) {
        On(relativePath, std::vector<ScriptedDownload>{std::move(download)});
    }
    /// Every download of a path that On has not named.
    void OnOthers(ScriptedDownload download);

    /// Has a download of this path that hangs tell its progress, on its own thread, and returns
    /// when it has. Waits for such a download; of several it is the one that began first. False:
    /// there was none within the generous limit, or it ended before it had told.
    bool Report(const std::string& relativePath, std::size_t done, std::size_t total);
    /// Has such a download go on in this way. Does not wait for its end.
    bool Finish(const std::string& relativePath, ScriptedDownload download);

    /// The relative paths of all downloads so far, in the order in which they were asked for.
    std::vector<std::string> Downloads() const;
    /// How many there were of this path.
    std::size_t DownloadCount(const std::string& relativePath) const;
    /// Waits until there were so many. False: there were not within the generous limit.
    bool WaitForDownloads(const std::string& relativePath, std::size_t count = 1) const;
    bool IsAborted() const;

    Status Exec(Task task) const override;
    void Abort() override;

private:
    struct Impl;
    const std::unique_ptr<Impl> m_impl;
};

} // namespace Halvex::Kit::Testing
