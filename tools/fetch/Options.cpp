#include "Options.h"

#include "ExitStatus.h"
#include "Foundation/Version.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <map>
#include <ostream>

#include <strings.h>

namespace Halvex::Fetch {

namespace {

using Networking::HttpClientType;

constexpr int kMostThreads = 256;
/// The most that 32 bits hold once it is in bytes.
constexpr int kHighestSpeed = 2'097'151;

constexpr const char* kDescription =
    "Downloads the files of a manifest, of a list of addresses, or at the addresses given.";

constexpr const char* kFooter = R"(
Manifest: {"baseUrl": "...", "bundles": [{"name": "...", "priority": "high|normal|low",
           "startup": false, "files": [{"path": "a/b.bin", "url": "optional override",
           "size": 123, "sha256": "optional"}]}]}

Exit status: 0 all files are available, 1 some were given up (each is named on standard error) or
the new manifest could not be written, 2 bad arguments or manifest, 130 after an interrupt.)";

CLI::Validator NotEmpty() {
    return CLI::Validator(
        [](const std::string& text) {
            return text.empty() ? std::string("must not be empty") : std::string();
        },
        "");
}

/// An option that takes one of a few words.
template <typename Value>
void AddChoice(CLI::App& app, const std::string& name, Value& target,
               const std::map<std::string, Value>& words, const std::string& description) {
    std::vector<std::string> names;
    names.reserve(words.size());
    for (const auto& entry : words)
        names.push_back(entry.first);
    app.add_option_function<std::string>(
           name, [&target, words](const std::string& word) { target = words.at(word); },
           description)
        ->check(CLI::IsMember(names));
}

void AddManifestOptions(CLI::App& app, Options& options) {
    CLI::Option* makeManifest =
        app.add_option("--make-manifest", options.makeManifest,
                       "Write a manifest of what lies in this folder to standard output, and "
                       "download nothing")
            ->check(NotEmpty());
    app.add_option("--base-url", options.baseUrl,
                   "Where the files of the new manifest are to be found")
        ->check(NotEmpty())
        ->needs(makeManifest);
}

void AddTransferOptions(CLI::App& app, Options& options) {
    app.add_option("-o,--output", options.output,
                   "Where the files go (default: the current folder; made if missing)")
        ->check(NotEmpty());
    app.add_option("-j,--threads", options.threads, "Files at a time, 1 to 256 (default: 8)")
        ->check(CLI::Range(1, kMostThreads));
    AddChoice<HttpClientType>(app, "--client", options.client,
                              {{"native", HttpClientType::Native}, {"qt", HttpClientType::Qt}},
                              "The HTTP client (default: native)");
    app.add_flag("--force", options.force, "Download even when the file is there");
    app.add_option("--offline-marker", options.offlineMarker,
                   "Behave as if offline while this file exists")
        ->check(NotEmpty());
    CLI::Option* source =
        app.add_option("--source", options.source, "Take the files from this folder, not by HTTP")
            ->check(NotEmpty());
    app.add_option("--speed", options.sourceSpeed,
                   "Simulated speed in KiB per second (default: no limit)")
        ->check(CLI::Range(1, kHighestSpeed))
        ->needs(source);
}

void AddOutputOptions(CLI::App& app, Options& options) {
    using Progress = Options::Progress;
    using LogLevel = Options::LogLevel;
    AddChoice<Progress>(app, "--progress", options.progress,
                        {{"auto", Progress::Auto},
                         {"bar", Progress::Bar},
                         {"plain", Progress::Plain},
                         {"none", Progress::None}},
                        "Bars, a line per file, or nothing (default: auto, bars on a terminal)");
    app.add_flag("--json", options.json, "Events as lines of JSON on standard output");
    app.add_flag("--trace", options.trace,
                 "Log every scheduler event (lowers --log-level to info unless that is none)");
    AddChoice<LogLevel>(app, "--log-level", options.logLevel,
                        {{"info", LogLevel::Info},
                         {"warning", LogLevel::Warning},
                         {"error", LogLevel::Error},
                         {"none", LogLevel::None}},
                        "What to log to standard error (default: warning)");
}

/// Whether the text begins like an address, in any case.
bool LooksLikeUrl(const std::string& text) {
    return ::strncasecmp(text.c_str(), "http://", 7) == 0 ||
           ::strncasecmp(text.c_str(), "https://", 8) == 0;
}

/// Sorts the arguments into manifest and addresses. What is wrong with them, or nothing.
std::string SortInputs(const std::vector<std::string>& inputs, Options& options) {
    if (!options.makeManifest.empty())
        return inputs.empty() && options.list.empty()
                   ? std::string()
                   : "--make-manifest cannot be combined with inputs";
    if (!options.list.empty())
        return inputs.empty() ? std::string() : "-i cannot be combined with other inputs";
    if (inputs.empty())
        return "a manifest, -i LIST or addresses are required";
    const auto urls = std::count_if(inputs.begin(), inputs.end(), LooksLikeUrl);
    if (static_cast<std::size_t>(urls) == inputs.size()) {
        options.urls = inputs;
        return {};
    }
    if (inputs.size() != 1) {
        const auto other = std::find_if_not(inputs.begin(), inputs.end(), LooksLikeUrl);
        return "either one manifest or only addresses: \"" + *other + "\" is no address";
    }
    options.manifest = inputs.front();
    return options.manifest.empty() ? "the manifest's name is empty" : std::string();
}

} // namespace

std::variant<Options, int> ParseOptions(int argc, const char* const* argv, std::ostream& out,
                                        std::ostream& err) {
    Options options;
    std::vector<std::string> inputs;
    CLI::App app(kDescription, "halvex-fetch");
    app.footer(kFooter);
    app.set_help_flag("-h,--help", "Print this help and exit");
    app.set_version_flag("--version", "halvex-fetch " HALVEX_VERSION, "Print the version and exit");
    app.add_option("inputs", inputs, "One manifest, or addresses (http:// or https://)");
    app.add_option(
           "-i,--input-list", options.list,
           "One address per line, optionally a tab and the file's name; - is standard input")
        ->check(NotEmpty());
    AddManifestOptions(app, options);
    AddTransferOptions(app, options);
    AddOutputOptions(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error, out, err) == 0 ? AllAvailable : BadInput;
    }
    const std::string mistake = SortInputs(inputs, options);
    if (!mistake.empty()) {
        err << mistake << "\nRun with --help for more information.\n";
        return BadInput;
    }
    return options;
}

} // namespace Halvex::Fetch
