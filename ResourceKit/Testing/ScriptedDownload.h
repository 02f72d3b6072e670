#pragma once

#include "Foundation/Export.h"
#include "ResourceDownloadManager/Downloader/IResourceDownloader.h"

#include <cstddef>
#include <optional>
#include <string>
#include <utility>

namespace Halvex::Kit::Testing {

/// What a ScriptedDownloader makes of one download. A value, made by one of the static functions.
class HALVEX_EXPORT ScriptedDownload {
public:
    using Status = App::IResourceDownloader::Status;

    /// The file appears with this content. Progress is told once, of all its bytes.
    static ScriptedDownload Complete(std::string content);
    /// It ends in this way, without progress and without a file.
    static ScriptedDownload Fail(Status status = Status::Failed);
    /// It ends in this way after progress has been told of so many bytes, without a file.
    static ScriptedDownload Cut(std::size_t done, std::size_t total,
                                Status status = Status::NetworkFailure);
    /// Nothing happens but what ScriptedDownloader::Report and Finish command. It is Cancelled when
    /// the downloader is aborted or the task's cancellation query answers true.
    static ScriptedDownload Hang();

private:
    friend class ScriptedDownloader;

    explicit ScriptedDownload(Status status) : m_status(status) {}

    Status m_status;
    bool m_hangs = false;
    /// Told before the end.
    std::optional<std::pair<std::size_t, std::size_t>> m_progress;
    /// Of the file that is to appear.
    std::optional<std::string> m_content;
};

} // namespace Halvex::Kit::Testing
