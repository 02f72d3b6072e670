#include "ResourceKit/Testing/ScriptedDownload.h"

namespace Halvex::Kit::Testing {

ScriptedDownload ScriptedDownload::Complete(std::string content) {
    ScriptedDownload download(Status::Ok);
    download.m_progress = {content.size(), content.size()};
    download.m_content = std::move(content);
    return download;
}

ScriptedDownload ScriptedDownload::Fail(Status status) {
    return ScriptedDownload(status);
}

ScriptedDownload ScriptedDownload::Cut(std::size_t done, std::size_t total, Status status) {
    ScriptedDownload download(status);
    download.m_progress = {done, total};
    return download;
}

ScriptedDownload ScriptedDownload::Hang() {
    ScriptedDownload download(Status::Cancelled);
    download.m_hangs = true;
    return download;
}

} // namespace Halvex::Kit::Testing
