#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Halvex::Fetch {

/// How many columns of a terminal the text takes.
std::size_t ColumnsOf(std::string_view text);

/// As much of the beginning of the text as fits into so many columns. What is cut off ends in '~'.
std::string FitInto(std::string_view text, std::size_t columns);

/// Such as "512 B", "1.4 MiB", "1023 KiB": at most eight characters.
std::string FormatBytes(double bytes);

/// Such as "0:07", "12:34", "1:02:03".
std::string FormatTime(std::chrono::seconds time);

/// With one decimal, such as "2.1 s".
std::string FormatSeconds(std::chrono::duration<double> time);

} // namespace Halvex::Fetch
