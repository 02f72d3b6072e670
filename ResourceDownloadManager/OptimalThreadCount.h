#pragma once

#include <algorithm>
#include <cstddef>

namespace Halvex::App {

/// Half of the hardware threads, but at least 2 and at most 8.
inline std::size_t OptimalThreadCount(std::size_t hardwareThreads) {
    return std::clamp<std::size_t>(hardwareThreads / 2, 2, 8);
}

} // namespace Halvex::App
