// halvex-fetch: downloads the files of a manifest or at the addresses given.

#include "BarReport.h"
#include "Console.h"
#include "ExitStatus.h"
#include "LineReports.h"
#include "Log.h"
#include "OpenFiles.h"
#include "Options.h"
#include "ResourceKit/Manifest.h"
#include "Session.h"
#include "Signals.h"

#include <glog/logging.h>

#include <QtCore/QCoreApplication>

#include <array>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <system_error>
#include <utility>
#include <variant>
#include <vector>

#include <unistd.h>

namespace {

using namespace Halvex;
using namespace Halvex::Fetch;
using Kit::Manifest;
using Kit::ManifestResult;

constexpr const char* kStandardInput = "-";

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

/// Appends the whole of a file, or of standard input. The system's error number, or 0.
int ReadInput(const std::string& name, std::string& text) {
    const std::unique_ptr<std::FILE, CloseFile> opened(
        name == kStandardInput ? nullptr : std::fopen(name.c_str(), "rbe"));
    std::FILE* file = name == kStandardInput ? stdin : opened.get();
    if (file == nullptr)
        return errno;
    std::array<char, 64 * 1024> piece;
    std::size_t size = 0;
    do {
        size = std::fread(piece.data(), 1, piece.size(), file);
        text.append(piece.data(), size);
    } while (size == piece.size());
    // A folder can be opened; only reading it fails.
    return std::ferror(file) != 0 ? errno : 0;
}

ManifestResult ReadWhatToFetch(const Options& options) {
    Manifest::Options manifestOptions;
    manifestOptions.folder = options.output;
    manifestOptions.fromFolder = options.source.has_value();
    if (!options.urls.empty())
        return Manifest::FromUrls(options.urls, manifestOptions);
    const bool isList = !options.list.empty();
    const std::string& name = isList ? options.list : options.manifest;
    const std::string shownName = name == kStandardInput ? "standard input" : name;
    std::string text;
    if (const int error = ReadInput(name, text))
        return {nullptr,
                {shownName + ": cannot be read: " + std::generic_category().message(error)}};
    return isList ? Manifest::ParseUrlList(text, shownName, manifestOptions)
                  : Manifest::Parse(text, shownName, manifestOptions);
}

/// Why the folder cannot be had; nothing when it can.
std::vector<std::string> MakeOutputFolder(const std::string& folder) {
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (!error && !std::filesystem::is_directory(folder, error) && !error)
        error = std::make_error_code(std::errc::not_a_directory);
    if (!error)
        return {};
    return {folder + ": cannot be the output folder: " + error.message()};
}

using Progress = Options::Progress;

/// Where progress is shown: beside the events or an output that is no terminal, on standard error.
std::FILE* ProgressStream(const Options& options) {
    const bool elsewhere =
        options.json || (options.progress == Progress::Bar && ::isatty(STDOUT_FILENO) == 0);
    return elsewhere ? stderr : stdout;
}

std::unique_ptr<IReport> MakeProgressReport(const Options& options, std::size_t files,
                                            Console& console) {
    std::FILE* stream = ProgressStream(options);
    Progress progress = options.progress;
    if (progress == Progress::Auto)
        progress = options.json                   ? Progress::None
                   : ::isatty(STDOUT_FILENO) != 0 ? Progress::Bar
                                                  : Progress::Plain;
    switch (progress) {
    case Progress::Bar:
        return std::make_unique<BarReport>(console, stream);
    case Progress::Plain:
        return std::make_unique<PlainReport>(stream, files);
    case Progress::Auto:
    case Progress::None:
        break;
    }
    return nullptr;
}

/// Has all files downloaded. What is downloaded in any case no validator sees: its checksum is the
/// post-processor's.
void ForceDownloads(Manifest& manifest) {
    for (Manifest::File& file : manifest.Files()) {
        file.descriptor.validationMode = 0;
        file.descriptor.postProcess = file.expected.sha256.empty() ? 0 : 1;
    }
}

/// As many files at a time as may be open.
Options Fitted(Options options) {
    const std::size_t wanted = options.threads;
    options.threads = MakeRoomForDownloads(wanted);
    if (options.threads < wanted)
        LOG(WARNING) << options.threads << " files at a time, not " << wanted
                     << ": the system allows no more open files";
    return options;
}

int Fetch(const Options& options, const Manifest& manifest) {
    // Before the first thread: all threads inherit that signals do not interrupt them.
    Signals signals;
    int argc = 1;
    char name[] = "halvex-fetch";
    char* argv[] = {name, nullptr};
    const QCoreApplication application(argc, argv);
    Console console(ProgressStream(options));
    const Log log(options.logLevel, options.trace, console);

    for (const std::string& message : manifest.MakeFolders())
        LOG(ERROR) << message;
    FailureReport failures(console);
    JsonReport events;
    const auto progress = MakeProgressReport(options, manifest.Files().size(), console);
    std::vector<IReport*> reports{&failures};
    if (progress)
        reports.push_back(progress.get());
    if (options.json)
        reports.push_back(&events);
    return Session(Fitted(options), manifest, signals, reports).Run();
}

/// Says what is wrong, and answers the exit status.
int Complain(const std::vector<std::string>& mistakes) {
    for (const std::string& mistake : mistakes)
        std::cerr << mistake << '\n';
    return BadInput;
}

int MakeManifest(const Options& options) {
    const Kit::ManifestDocument document = Manifest::Create(options.makeManifest, options.baseUrl);
    if (!document.mistakes.empty())
        return Complain(document.mistakes);
    std::cout << document.text << std::flush;
    if (std::cout)
        return AllAvailable;
    std::cerr << "halvex-fetch: the manifest cannot be written\n";
    return SomeGivenUp;
}

int Run(int argc, char** argv) {
    ExitOnSignals();
    const auto parsed = ParseOptions(argc, argv, std::cout, std::cerr);
    if (const int* status = std::get_if<int>(&parsed))
        return *status;
    const Options& options = std::get<Options>(parsed);
    if (!options.makeManifest.empty())
        return MakeManifest(options);
    ManifestResult result = ReadWhatToFetch(options);
    if (result.mistakes.empty())
        result.mistakes = MakeOutputFolder(options.output);
    if (!result.mistakes.empty())
        return Complain(result.mistakes);
    if (options.force)
        ForceDownloads(*result.manifest);
    return Fetch(options, *result.manifest);
}

} // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& exception) {
        std::cerr << "halvex-fetch: " << exception.what() << '\n';
        return SomeGivenUp;
    }
}
