#pragma once

#include "Foundation/HttpClientFactory.h"

#include <cstddef>
#include <iosfwd>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace Halvex::Fetch {

/// The command line, checked.
struct Options {
    enum class Progress {
        Auto,  ///< Bar on a terminal, Plain otherwise; None beside JSON
        Bar,   ///< a bar for each bundle
        Plain, ///< a line for each finished file
        None,  ///< nothing
    };
    enum class LogLevel { Info, Warning, Error, None };

    // What to do: exactly one of the four.
    /// The folder to write a manifest of; then only baseUrl matters of all that follows.
    std::string makeManifest;
    std::string manifest;
    /// "-" is standard input.
    std::string list;
    std::vector<std::string> urls;

    /// Of the manifest that is to be written; may be empty.
    std::string baseUrl;

    // Where from, where to and how.
    std::string output = ".";
    std::size_t threads = 8;
    Networking::HttpClientType client = Networking::HttpClientType::Native;
    bool force = false;
    /// Offline while this file exists; empty: always online.
    std::string offlineMarker;
    /// The folder to take the files from instead of HTTP.
    std::optional<std::string> source;
    /// KiB per second; negative: no limit.
    int sourceSpeed = -1;

    // What to say.
    Progress progress = Progress::Auto;
    bool json = false;
    bool trace = false;
    LogLevel logLevel = LogLevel::Warning;
};

/// Reads the command line. Where there is nothing to run, it has said why and answers the exit
/// status: 0 after --help and --version, which go to out, 2 after a mistake, which goes to err.
std::variant<Options, int> ParseOptions(int argc, const char* const* argv, std::ostream& out,
                                        std::ostream& err);

} // namespace Halvex::Fetch
