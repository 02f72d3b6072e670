#pragma once

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <string>

namespace Halvex::Testing {

/// How much memory the process has had at most since this began, beyond what it had then.
class MemoryPeak {
public:
    MemoryPeak()
        : m_isReset(std::ofstream("/proc/self/clear_refs") << "5" << std::flush),
          m_before(HighestBytes()) {}

    /// False: the system does not let the highest value so far be forgotten, and growth below it
    /// does not show.
    bool IsReset() const { return m_isReset; }
    std::uint64_t Growth() const { return std::max(HighestBytes(), m_before) - m_before; }

private:
    static std::uint64_t HighestBytes() {
        std::ifstream status("/proc/self/status");
        for (std::string word; status >> word;) {
            if (word == "VmHWM:" && status >> word)
                return std::stoull(word) * 1024;
        }
        return 0;
    }

    const bool m_isReset;
    const std::uint64_t m_before;
};

} // namespace Halvex::Testing
