#pragma once

#include "support/TemporaryFolder.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <sys/resource.h>
#include <sys/types.h>

namespace Halvex::Testing {

/// halvex-fetch as a child process. One thread at a time, caller synchronises. It is killed when
/// this is destroyed, or when the test program dies.
class FetchProcess {
public:
    struct Setup {
        std::vector<std::string> arguments;
        /// What it reads from standard input.
        std::string input;
        /// What it reads from instead, which may be a folder, and writes to.
        std::string inputPath;
        std::string outputPath;
        /// How many files it may have open at a time, and may allow itself; nothing: as the test.
        std::optional<rlimit> openFiles;
        /// Where both outputs go instead of to files; it is closed in this process.
        std::optional<int> terminal;
    };

    struct Result {
        /// The exit status; negative: ended by that signal; nothing: did not end.
        std::optional<int> status;
        std::string out;
        std::string err;
        std::chrono::steady_clock::duration time{};
        /// The most memory it has had at a time, but no less than the test had at its start.
        std::int64_t peakBytes = 0;
    };

    explicit FetchProcess(const Setup& setup);
    ~FetchProcess();

    FetchProcess(const FetchProcess&) = delete;
    FetchProcess& operator=(const FetchProcess&) = delete;

    void Signal(int signal) const;
    /// Waits for its end, at most for a generous time. The time in the result is that of this call.
    Result Wait();

private:
    TemporaryFolder m_folder;
    pid_t m_process = -1;
};

} // namespace Halvex::Testing
