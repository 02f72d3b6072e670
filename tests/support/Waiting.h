#pragma once

#include "ResourceKit/Testing/Event.h"
#include "support/KitTesting.h"

#include <chrono>
#include <thread>

namespace Halvex::Testing {

using Kit::Testing::Event;
using Kit::Testing::kGenerousLimit;

/// Waits until a condition holds that nobody announces, such as what another process does. False:
/// it does not within the limit.
template <typename Condition>
bool WaitUntil(Condition condition, std::chrono::milliseconds limit = kGenerousLimit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::yield();
    }
    return true;
}

} // namespace Halvex::Testing
