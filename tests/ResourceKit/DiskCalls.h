#pragma once

#include <functional>
#include <string>
#include <vector>

namespace Halvex::Testing {

/// The calls of the program that what is on disk after a power cut depends on, while this lives:
/// "syncfs", "fsync", and of renameat2 "exchange" with RENAME_EXCHANGE, otherwise "rename". One at
/// a time, in programs that compile DiskCalls.cpp, and for calls of one thread.
class DiskCalls {
public:
    DiskCalls();
    ~DiskCalls();

    DiskCalls(const DiskCalls&) = delete;
    DiskCalls& operator=(const DiskCalls&) = delete;

    /// What the next calls fail with, each entry one call; 0: it is made. Later ones are made.
    std::vector<int> syncErrors;
    std::vector<int> renameErrors;
    /// The names of the calls so far.
    std::vector<std::string> made;
    /// Called before each.
    std::function<void()> onCall;

    /// For the functions that stand in for the system's. False: errno is set instead of a call.
    static bool IsMade(const std::string& name, std::vector<int> DiskCalls::*errors);
};

} // namespace Halvex::Testing
