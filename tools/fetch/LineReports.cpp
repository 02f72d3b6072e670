#include "LineReports.h"

#include "Console.h"
#include "Text.h"

#include <nlohmann/json.hpp>

namespace Halvex::Fetch {

namespace {

using App::IRemoteResource;
using nlohmann::ordered_json;

void WriteLine(std::FILE* stream, std::string line) {
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), stream);
    std::fflush(stream);
}

void WriteJson(const ordered_json& event) {
    WriteLine(stdout, event.dump(-1, ' ', false, ordered_json::error_handler_t::replace));
}

std::string Plural(std::size_t count, const std::string& noun) {
    return std::to_string(count) + ' ' + noun + (count == 1 ? "" : "s");
}

} // namespace

std::string SummaryText(const Summary& summary) {
    std::string text = summary.interrupted ? "Interrupted: " : "";
    text += Plural(summary.available, "file") + " available";
    if (summary.failed != 0)
        text += ", " + std::to_string(summary.failed) + (summary.interrupted ? " not" : " failed");
    text += "; " + FormatBytes(static_cast<double>(summary.bytes)) + " downloaded in " +
            FormatSeconds(std::chrono::duration<double>(summary.seconds));
    return text;
}

void JsonReport::OnFileEnded(const FileResult& result) {
    WriteJson({{"event", "file"},
               {"bundle", result.bundle},
               {"path", result.path},
               {"status", IRemoteResource::StatusToString(result.state.status)},
               {"error", IRemoteResource::ErrorToString(result.state.error)}});
}

void JsonReport::OnSummary(const Summary& summary) {
    WriteJson({{"event", "summary"},
               {"available", summary.available},
               {"failed", summary.failed},
               {"seconds", summary.seconds},
               {"bytes", summary.bytes}});
}

void PlainReport::OnFileEnded(const FileResult& result) {
    const bool available = result.state.status == IRemoteResource::DownloadStatus::Available;
    if (!available && !result.givenUp)
        return;
    const std::string count = std::to_string(++m_ended) + '/' + std::to_string(m_files);
    Write(count + ' ' + result.path + ' ' +
          (available ? std::string("available")
                     : "failed: " + IRemoteResource::ErrorToString(result.state.error)));
}

void PlainReport::OnSummary(const Summary& summary) {
    Write(SummaryText(summary));
}

void PlainReport::Write(const std::string& line) {
    WriteLine(m_stream, line);
}

void FailureReport::OnFileEnded(const FileResult& result) {
    if (result.givenUp)
        m_console.WriteError("halvex-fetch: " + result.path +
                             " failed: " + IRemoteResource::ErrorToString(result.state.error));
}

} // namespace Halvex::Fetch
