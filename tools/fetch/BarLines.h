#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace Halvex::Fetch {

/// What the line of one bundle shows.
struct BarContent {
    std::string name;
    std::size_t filesDone = 0;
    std::size_t files = 0;
    int percent = 0;
    double bytesPerSecond = 0;
    /// Nothing: not to be foreseen.
    std::optional<std::chrono::seconds> timeLeft;

    bool IsDone() const { return filesDone == files; }
};

/// The lines of all bundles, aligned with each other:
///
///     fonts 3/12 [#######                     ]  25%  1.2 MiB/s    0:07
///
/// In a narrow window without the bar, and with the name cut; below about 40 columns lines may come
/// out longer than asked for. When there are more bundles than rows, those that are not done come
/// first, and the last line counts what is left out.
std::vector<std::string> BarLines(const std::vector<BarContent>& bundles, std::size_t columns,
                                  std::size_t rows);

} // namespace Halvex::Fetch
