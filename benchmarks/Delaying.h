#pragma once

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <system_error>

namespace Halvex::Benchmarks {

using Clock = std::chrono::steady_clock;

/// A system call's result; throws if it is negative.
inline int Checked(int result, const char* call) {
    if (result < 0)
        throw std::system_error(errno, std::generic_category(), call);
    return result;
}

/// How long ppoll has to wait until then. Not poll, which would round up to whole milliseconds.
inline timespec TimeUntil(Clock::time_point due) {
    const auto left = std::max<std::chrono::nanoseconds>(due - Clock::now(), {});
    const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
    return {seconds.count(), (left - seconds).count()};
}

} // namespace Halvex::Benchmarks
