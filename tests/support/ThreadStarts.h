#pragma once

#include <cstddef>

namespace Halvex::Testing {

/// While it lives, only so many threads can be started; later starts fail as on a machine that has
/// no room for another thread. For programs whose sources include ThreadStarts.cpp.
///
/// Thread-safe. One at a time.
class LimitedThreadStarts {
public:
    explicit LimitedThreadStarts(std::size_t limit);
    ~LimitedThreadStarts();

    LimitedThreadStarts(const LimitedThreadStarts&) = delete;
    LimitedThreadStarts& operator=(const LimitedThreadStarts&) = delete;
};

} // namespace Halvex::Testing
