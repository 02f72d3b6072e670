#include "DiskCalls.h"

#include "support/NextFunction.h"

#include <cerrno>

#include <stdio.h>
#include <unistd.h>

namespace Halvex::Testing {

namespace {

DiskCalls* current = nullptr;

} // namespace

DiskCalls::DiskCalls() {
    current = this;
}

DiskCalls::~DiskCalls() {
    current = nullptr;
}

bool DiskCalls::IsMade(const std::string& name, std::vector<int> DiskCalls::*errors) {
    if (current == nullptr)
        return true;
    if (current->onCall)
        current->onCall();
    current->made.push_back(name);
    std::vector<int>& left = current->*errors;
    const int error = left.empty() ? 0 : left.front();
    if (!left.empty())
        left.erase(left.begin());
    if (error != 0)
        errno = error;
    return error == 0;
}

} // namespace Halvex::Testing

// These stand in front of the system's functions, or the sanitizer's, for the whole program.
using Halvex::Testing::DiskCalls;
using Halvex::Testing::NextFunction;

extern "C" __attribute__((visibility("default"))) int syncfs(int descriptor) noexcept {
    static const auto next = NextFunction(&syncfs, "syncfs");
    return DiskCalls::IsMade("syncfs", &DiskCalls::syncErrors) ? next(descriptor) : -1;
}

extern "C" __attribute__((visibility("default"))) int fsync(int descriptor) {
    static const auto next = NextFunction(&fsync, "fsync");
    return DiskCalls::IsMade("fsync", &DiskCalls::syncErrors) ? next(descriptor) : -1;
}

extern "C" __attribute__((visibility("default"))) int
renameat2(int fromFolder, const char* from, int toFolder, const char* to, unsigned flags) noexcept {
    static const auto next = NextFunction(&renameat2, "renameat2");
    const bool exchanges = (flags & RENAME_EXCHANGE) != 0;
    return DiskCalls::IsMade(exchanges ? "exchange" : "rename", &DiskCalls::renameErrors)
               ? next(fromFolder, from, toFolder, to, flags)
               : -1;
}
