#include "BarLines.h"

#include "Text.h"

#include <algorithm>

namespace Halvex::Fetch {

namespace {

constexpr std::size_t kPercentColumns = 4;
constexpr std::size_t kSpeedColumns = 10;
constexpr std::size_t kTimeColumns = 7;
constexpr std::size_t kShortestName = 4;
constexpr std::size_t kLongestName = 30;
constexpr std::size_t kShortestBar = 10;
constexpr std::size_t kLongestBar = 30;
constexpr std::size_t kBrackets = 2;

/// The widths that all lines share.
struct Layout {
    std::size_t name = 0;
    std::size_t count = 0;
    /// Between its brackets; 0: no bar.
    std::size_t bar = 0;
};

std::string CountText(const BarContent& bundle) {
    return std::to_string(bundle.filesDone) + '/' + std::to_string(bundle.files);
}

std::string Left(std::string text, std::size_t columns) {
    return text.append(columns - std::min(ColumnsOf(text), columns), ' ');
}

std::string Right(const std::string& text, std::size_t columns) {
    return std::string(columns - std::min(ColumnsOf(text), columns), ' ') + text;
}

Layout LayoutOf(const std::vector<const BarContent*>& bundles, std::size_t columns) {
    Layout layout;
    for (const BarContent* bundle : bundles) {
        layout.name = std::max(layout.name, std::min(ColumnsOf(bundle->name), kLongestName));
        const std::string widest = std::to_string(bundle->files);
        layout.count = std::max(layout.count, 2 * widest.size() + 1);
    }
    // A blank stands before each of the four fields.
    const std::size_t numbers = layout.count + kPercentColumns + kSpeedColumns + kTimeColumns + 4;
    const std::size_t room = columns - std::min(numbers, columns);
    if (room >= layout.name + 1 + kBrackets + kShortestBar)
        layout.bar = std::min(room - layout.name - 1 - kBrackets, kLongestBar);
    else
        layout.name = std::min(layout.name, std::max(room, kShortestName));
    return layout;
}

int PercentOf(const BarContent& bundle) {
    return bundle.IsDone() ? 100 : std::clamp(bundle.percent, 0, 100);
}

std::string BarText(const BarContent& bundle, std::size_t columns) {
    const std::size_t filled = columns * static_cast<std::size_t>(PercentOf(bundle)) / 100;
    return " [" + Left(std::string(filled, '#'), columns) + ']';
}

std::string TimeText(const BarContent& bundle) {
    if (bundle.IsDone())
        return "done";
    return bundle.timeLeft ? FormatTime(*bundle.timeLeft) : "-:--";
}

std::string Line(const BarContent& bundle, const Layout& layout) {
    std::string line = Left(FitInto(bundle.name, layout.name), layout.name);
    line += ' ' + Right(CountText(bundle), layout.count);
    if (layout.bar != 0)
        line += BarText(bundle, layout.bar);
    line += ' ' + Right(std::to_string(PercentOf(bundle)) + '%', kPercentColumns);
    line += ' ' + Right(FormatBytes(bundle.bytesPerSecond) + "/s", kSpeedColumns);
    return line + ' ' + Right(TimeText(bundle), kTimeColumns);
}

/// At most so many, those that are not done first.
std::vector<const BarContent*> Select(const std::vector<BarContent>& bundles, std::size_t count) {
    std::vector<const BarContent*> selected;
    for (const bool done : {false, true}) {
        for (const BarContent& bundle : bundles) {
            if (selected.size() < count && bundle.IsDone() == done)
                selected.push_back(&bundle);
        }
    }
    // In their own order again, so that the lines do not jump.
    std::sort(selected.begin(), selected.end());
    return selected;
}

} // namespace

std::vector<std::string> BarLines(const std::vector<BarContent>& bundles, std::size_t columns,
                                  std::size_t rows) {
    const bool allFit = bundles.size() <= rows;
    const std::size_t shown = allFit ? bundles.size() : std::max<std::size_t>(rows, 2) - 1;
    const std::vector<const BarContent*> selected = Select(bundles, shown);
    const Layout layout = LayoutOf(selected, columns);
    std::vector<std::string> lines;
    lines.reserve(selected.size() + 1);
    for (const BarContent* bundle : selected)
        lines.push_back(Line(*bundle, layout));
    if (!allFit)
        lines.push_back("and " + std::to_string(bundles.size() - shown) + " more bundles");
    return lines;
}

} // namespace Halvex::Fetch
