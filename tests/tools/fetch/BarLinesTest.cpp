#include "BarLines.h"

#include "Text.h"

#include <gmock/gmock.h>

namespace Halvex::Fetch {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr std::size_t kManyRows = 100;

BarContent Bundle(const std::string& name, std::size_t done, std::size_t files, int percent) {
    BarContent content;
    content.name = name;
    content.filesDone = done;
    content.files = files;
    content.percent = percent;
    content.bytesPerSecond = 1.5 * 1024 * 1024;
    content.timeLeft = std::chrono::seconds(754);
    return content;
}

TEST(BarLines, ShowNameFilesBarPercentageSpeedAndTimeLeft) {
    EXPECT_THAT(
        BarLines({Bundle("fonts", 3, 12, 50)}, 79, kManyRows),
        ElementsAre("fonts  3/12 [###############               ]  50%  1.5 MiB/s   12:34"));
}

TEST(BarLines, AreAlignedWithEachOther) {
    EXPECT_THAT(BarLines({Bundle("a", 0, 2000, 5), Bundle("maps", 1, 3, 50)}, 46, kManyRows),
                ElementsAre("a       0/2000   5%  1.5 MiB/s   12:34",
                            "maps       1/3  50%  1.5 MiB/s   12:34"));
}

TEST(BarLines, SayDoneAtTheEnd) {
    BarContent bundle = Bundle("a", 3, 3, 99);
    EXPECT_THAT(BarLines({bundle}, 39, kManyRows), ElementsAre("a 3/3 100%  1.5 MiB/s    done"));
}

TEST(BarLines, AdmitThatTheTimeIsUnknown) {
    BarContent bundle = Bundle("a", 0, 3, 0);
    bundle.timeLeft.reset();
    bundle.bytesPerSecond = 0;
    EXPECT_THAT(BarLines({bundle}, 39, kManyRows), ElementsAre("a 0/3   0%      0 B/s    -:--"));
}

TEST(BarLines, FitIntoFortyColumnsWithEveryField) {
    const std::string line =
        BarLines({Bundle("a bundle with a long name", 1999, 2000, 99)}, 39, kManyRows).front();
    EXPECT_EQ(ColumnsOf(line), 39U);
    EXPECT_THAT(line, HasSubstr("~ 1999/2000  99%  1.5 MiB/s   12:34"));
}

TEST(BarLines, CutLongNamesEvenInAWideWindow) {
    const std::string line =
        BarLines({Bundle(std::string(50, 'x'), 0, 1, 0)}, 200, kManyRows).front();
    EXPECT_THAT(line, testing::StartsWith(std::string(29, 'x') + "~ 0/1 ["));
}

TEST(BarLines, SurviveAnyWidth) {
    for (std::size_t columns = 0; columns < 100; ++columns)
        EXPECT_EQ(BarLines({Bundle("name", 1, 2, 50)}, columns, kManyRows).size(), 1U);
}

TEST(BarLines, KeepPercentagesInRange) {
    EXPECT_THAT(BarLines({Bundle("a", 0, 1, -5)}, 79, kManyRows).front(), HasSubstr("   0%"));
    EXPECT_THAT(BarLines({Bundle("a", 0, 1, 250)}, 79, kManyRows).front(), HasSubstr("] 100%"));
}

TEST(BarLines, ShowABundleWithoutFilesAsDone) {
    EXPECT_THAT(BarLines({Bundle("a", 0, 0, 0)}, 39, kManyRows).front(), HasSubstr("0/0 100%"));
}

TEST(BarLines, PreferBundlesThatAreNotDoneWhenRowsAreScarce) {
    const auto lines = BarLines({Bundle("a", 1, 1, 100), Bundle("b", 0, 1, 0),
                                 Bundle("c", 1, 1, 100), Bundle("d", 0, 1, 0)},
                                39, 3);
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_THAT(lines[0], testing::StartsWith("b "));
    EXPECT_THAT(lines[1], testing::StartsWith("d "));
    EXPECT_EQ(lines[2], "and 2 more bundles");
}

TEST(BarLines, KeepTheOrderOfTheBundles) {
    const auto lines =
        BarLines({Bundle("a", 1, 1, 100), Bundle("b", 0, 1, 0), Bundle("c", 1, 1, 100)}, 39, 3);
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_THAT(lines[0], testing::StartsWith("a "));
    EXPECT_THAT(lines[1], testing::StartsWith("b "));
    EXPECT_THAT(lines[2], testing::StartsWith("c "));
}

} // namespace
} // namespace Halvex::Fetch
