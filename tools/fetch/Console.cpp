#include "Console.h"

#include "Text.h"

#include <algorithm>

#include <sys/ioctl.h>
#include <unistd.h>

namespace Halvex::Fetch {

namespace {

constexpr std::size_t kDefaultColumns = 80;
constexpr std::size_t kDefaultRows = 24;

winsize WindowOf(std::FILE* stream) {
    winsize window{};
    if (::ioctl(::fileno(stream), TIOCGWINSZ, &window) != 0)
        return {};
    return window;
}

} // namespace

Console::Console(std::FILE* blockStream)
    : m_blockStream(blockStream),
      m_sharesTerminal(::isatty(::fileno(blockStream)) != 0 && ::isatty(STDERR_FILENO) != 0) {}

void Console::DrawBlock(const std::vector<std::string>& lines) {
    const std::size_t columns = Columns();
    const std::size_t count = std::min(lines.size(), std::max<std::size_t>(Rows(), 2) - 1);
    const MutexLock lock(m_mutex);
    EraseBlockLocked();
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        // The last column stays free: some terminals break the line there.
        const std::string line = FitInto(lines[i], columns - 1);
        m_blockLines.push_back(ColumnsOf(line));
        text += line + '\n';
    }
    WriteBlockLocked(text);
}

void Console::KeepBlock() {
    const MutexLock lock(m_mutex);
    m_blockLines.clear();
}

void Console::WriteError(const std::string& line) {
    const MutexLock lock(m_mutex);
    if (m_sharesTerminal)
        EraseBlockLocked();
    const std::string text = line + '\n';
    std::fwrite(text.data(), 1, text.size(), stderr);
}

std::size_t Console::Columns() const {
    const std::size_t columns = WindowOf(m_blockStream).ws_col;
    return columns != 0 ? columns : kDefaultColumns;
}

std::size_t Console::Rows() const {
    const std::size_t rows = WindowOf(m_blockStream).ws_row;
    return rows != 0 ? rows : kDefaultRows;
}

void Console::EraseBlockLocked() {
    if (m_blockLines.empty())
        return;
    const std::size_t columns = Columns();
    std::size_t rows = 0;
    for (const std::size_t width : m_blockLines)
        rows += std::max<std::size_t>((width + columns - 1) / columns, 1);
    m_blockLines.clear();
    WriteBlockLocked("\x1b[" + std::to_string(rows) + "A\r\x1b[J");
}

void Console::WriteBlockLocked(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), m_blockStream);
    std::fflush(m_blockStream);
}

} // namespace Halvex::Fetch
