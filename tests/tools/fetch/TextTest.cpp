#include "Text.h"

#include <gtest/gtest.h>

namespace Halvex::Fetch {
namespace {

TEST(Text, CountsACharacterOfSeveralBytesAsOneColumn) {
    EXPECT_EQ(ColumnsOf("abc"), 3U);
    EXPECT_EQ(ColumnsOf("\xc3\xbc"
                        "b"),
              2U);
    EXPECT_EQ(ColumnsOf("\xff\xfe"), 2U);
}

TEST(Text, CutsWhatDoesNotFit) {
    EXPECT_EQ(FitInto("abc", 3), "abc");
    EXPECT_EQ(FitInto("abcd", 3), "ab~");
    EXPECT_EQ(FitInto("\xc3\xbc\xc3\xbc\xc3\xbc", 2), "\xc3\xbc~");
    EXPECT_EQ(FitInto("abcd", 1), "~");
    EXPECT_EQ(FitInto("abcd", 0), "");
}

TEST(Text, WritesBytesWithUnitsInAtMostEightCharacters) {
    EXPECT_EQ(FormatBytes(0), "0 B");
    EXPECT_EQ(FormatBytes(1023), "1023 B");
    EXPECT_EQ(FormatBytes(1024), "1.0 KiB");
    EXPECT_EQ(FormatBytes(1536), "1.5 KiB");
    EXPECT_EQ(FormatBytes(99.96 * 1024), "100 KiB");
    EXPECT_EQ(FormatBytes(1023.6 * 1024), "1.0 MiB");
    EXPECT_EQ(FormatBytes(5.0 * 1024 * 1024 * 1024), "5.0 GiB");
}

TEST(Text, WritesTimesAsAClockDoes) {
    EXPECT_EQ(FormatTime(std::chrono::seconds(7)), "0:07");
    EXPECT_EQ(FormatTime(std::chrono::seconds(754)), "12:34");
    EXPECT_EQ(FormatTime(std::chrono::seconds(3723)), "1:02:03");
    EXPECT_EQ(FormatSeconds(std::chrono::milliseconds(2149)), "2.1 s");
}

} // namespace
} // namespace Halvex::Fetch
