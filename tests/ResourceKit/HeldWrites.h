#pragma once

#include "support/Waiting.h"

namespace Halvex::Testing {

/// While this lives, each pwrite of the program waits for Release before it is made. One at a time,
/// in programs that compile HeldWrites.cpp; whoever writes has ended before this does.
class HeldWrites {
public:
    HeldWrites();
    ~HeldWrites();

    HeldWrites(const HeldWrites&) = delete;
    HeldWrites& operator=(const HeldWrites&) = delete;

    /// False: none has begun within the limit.
    bool WaitForOne() { return m_begun.Wait(); }
    void Release() { m_released.Set(); }

    /// For the function that stands in for the system's.
    static void Pass();

private:
    Event m_begun;
    Event m_released;
};

} // namespace Halvex::Testing
