#pragma once

#include "Foundation/Mutex.h"

#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

namespace Halvex::Fetch {

/// Standard error, and a block of lines at the bottom of a terminal that is drawn again and again
/// in place: what is written to standard error in between appears above it.
///
/// Thread-safe.
class Console {
public:
    /// The stream that blocks are drawn on: stdout or stderr.
    explicit Console(std::FILE* blockStream);

    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    /// Replaces the block. Lines are cut to the width of the window, and those that do not fit its
    /// height are left out, from the end.
    void DrawBlock(const std::vector<std::string>& lines);
    /// Leaves the block where it is; the next one begins below it.
    void KeepBlock();
    /// Writes a line to standard error. A block that is in its way is gone until it is drawn again.
    void WriteError(const std::string& line);

    /// The present width of the window; 80 when there is none.
    std::size_t Columns() const;
    /// The present height of the window; 24 when there is none.
    std::size_t Rows() const;

private:
    void EraseBlockLocked() HALVEX_REQUIRES(m_mutex);
    void WriteBlockLocked(const std::string& text) HALVEX_REQUIRES(m_mutex);

    std::FILE* const m_blockStream;
    /// Whether standard error appears on the same terminal as the block.
    const bool m_sharesTerminal;
    Mutex m_mutex;
    /// The columns of the block's lines. When the window is made narrower the terminal breaks them.
    std::vector<std::size_t> m_blockLines HALVEX_GUARDED_BY(m_mutex);
};

} // namespace Halvex::Fetch
