#pragma once

#include <cstddef>

namespace Halvex::Testing {

/// While it lives, holds back the first thread that is about to wait for a condition variable
/// without a limit: after it has found reason to wait, with its mutex locked. What is announced
/// without that mutex meanwhile, it misses. For programs whose sources include HeldBackWait.cpp.
///
/// Thread-safe. One at a time.
class HeldBackWait {
public:
    HeldBackWait();
    ~HeldBackWait();

    HeldBackWait(const HeldBackWait&) = delete;
    HeldBackWait& operator=(const HeldBackWait&) = delete;

    /// Waits for a thread to hold back; false: none has come within the limit.
    bool WaitUntilHeldBack() const;
    /// Lets the thread wait.
    void Release();

    /// How often any condition variable has been broadcast so far.
    static std::size_t Broadcasts();
};

} // namespace Halvex::Testing
