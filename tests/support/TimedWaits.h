#pragma once

#include <chrono>

#include <sys/types.h>

namespace Halvex::Testing {

/// For how long a thread set out to wait when it last waited for a condition with a deadline; 0:
/// it has never done so. For programs whose sources include TimedWaits.cpp.
///
/// Thread-safe.
std::chrono::nanoseconds LatestTimedWait(pid_t thread);

} // namespace Halvex::Testing
