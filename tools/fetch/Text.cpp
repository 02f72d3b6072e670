#include "Text.h"

#include <array>
#include <cwchar>
#include <iomanip>
#include <locale>
#include <sstream>

namespace Halvex::Fetch {

namespace {

struct Character {
    wchar_t code;
    std::size_t bytes;
};

bool IsContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xc0) == 0x80;
}

/// The first character of a text that is not empty. A byte that is not UTF-8 counts as a question
/// mark.
Character FirstCharacter(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text.front());
    const std::size_t bytes = lead < 0x80 ? 1 : lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (bytes == 1)
        return {static_cast<wchar_t>(lead), 1};
    if (lead < 0xc2 || lead > 0xf4 || text.size() < bytes)
        return {L'?', 1};
    auto code = static_cast<wchar_t>(lead & (0x7f >> bytes));
    for (std::size_t i = 1; i < bytes; ++i) {
        if (!IsContinuation(text[i]))
            return {L'?', 1};
        code = static_cast<wchar_t>((code << 6) | (text[i] & 0x3f));
    }
    return {code, bytes};
}

/// A character that the locale does not know is taken for a narrow one.
std::size_t ColumnsOf(wchar_t code) {
    const int columns = ::wcwidth(code);
    return columns < 0 ? 1 : static_cast<std::size_t>(columns);
}

/// Not by printf, whose decimal point depends on the locale.
std::string WithUnit(double value, int decimals, const char* unit) {
    std::ostringstream stream;
    stream.imbue(std::locale::classic());
    stream << std::fixed << std::setprecision(decimals) << value << ' ' << unit;
    return stream.str();
}

std::string TwoDigits(std::int64_t value) {
    return (value < 10 ? "0" : "") + std::to_string(value);
}

} // namespace

std::size_t ColumnsOf(std::string_view text) {
    std::size_t columns = 0;
    while (!text.empty()) {
        const Character first = FirstCharacter(text);
        columns += ColumnsOf(first.code);
        text.remove_prefix(first.bytes);
    }
    return columns;
}

std::string FitInto(std::string_view text, std::size_t columns) {
    if (ColumnsOf(text) <= columns)
        return std::string(text);
    if (columns == 0)
        return {};
    std::size_t used = 0;
    std::size_t end = 0;
    while (true) {
        const Character next = FirstCharacter(text.substr(end));
        used += ColumnsOf(next.code);
        if (used > columns - 1)
            return std::string(text.substr(0, end)) + '~';
        end += next.bytes;
    }
}

std::string FormatBytes(double bytes) {
    static constexpr std::array kUnits = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024)
        return std::to_string(static_cast<std::int64_t>(bytes)) + " B";
    std::size_t unit = 0;
    // What would be rounded up to 1024 takes the next unit.
    while (bytes >= 1023.5 && unit + 1 < kUnits.size()) {
        bytes /= 1024;
        ++unit;
    }
    return WithUnit(bytes, bytes < 99.95 ? 1 : 0, kUnits[unit]);
}

std::string FormatTime(std::chrono::seconds time) {
    const std::int64_t seconds = time.count();
    const std::int64_t minutes = seconds / 60;
    if (minutes < 60)
        return std::to_string(minutes) + ':' + TwoDigits(seconds % 60);
    return std::to_string(minutes / 60) + ':' + TwoDigits(minutes % 60) + ':' +
           TwoDigits(seconds % 60);
}

std::string FormatSeconds(std::chrono::duration<double> time) {
    return WithUnit(time.count(), 1, "s");
}

} // namespace Halvex::Fetch
