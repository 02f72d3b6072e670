#include "ResourceKit/Text.h"

#include <gtest/gtest.h>

namespace Halvex::Kit {
namespace {

TEST(Text, FindsControlCharactersOfOneAndTwoBytes) {
    EXPECT_TRUE(HasControlCharacters("a\nb"));
    EXPECT_TRUE(HasControlCharacters("a\x1b[2J"));
    EXPECT_TRUE(HasControlCharacters("a\x7f"));
    EXPECT_TRUE(HasControlCharacters("a\xc2\x9b"));
    EXPECT_TRUE(HasControlCharacters(std::string("a\0b", 3)));
}

TEST(Text, FindsNoControlCharactersInPlainAndForeignText) {
    EXPECT_FALSE(HasControlCharacters("a b~"));
    EXPECT_FALSE(HasControlCharacters("gr\xc3\xbc\xc3\x9f"
                                      "e \xe2\x82\xac \xf0\x9f\x98\x80"));
    EXPECT_FALSE(HasControlCharacters("\xff\xe2\x82"));
}

TEST(Text, MakesOneQuestionMarkOfEachControlCharacter) {
    EXPECT_EQ(Printable("a\nb\x1b[2J\x7f"), "a?b?[2J?");
    EXPECT_EQ(Printable("a\xc2\x9b[2J\xc2\x80"), "a?[2J?");
    EXPECT_EQ(Printable("gr\xc3\xbc\xc2\xa0\xff\xc2"), "gr\xc3\xbc\xc2\xa0\xff\xc2");
    EXPECT_EQ(Printable(""), "");
}

TEST(Text, QuotesSoThatNothingCommandsATerminal) {
    EXPECT_EQ(Quoted("a\"\x1b\n"), "\"a\\\"\\u001b\\n\"");
    EXPECT_EQ(Quoted("\xc2\x9b"), "\"\\u009b\"");
    EXPECT_EQ(Quoted("\xff"), "\"\\ufffd\"");
}

TEST(Text, TellsUtf8FromOtherBytes) {
    EXPECT_TRUE(IsUtf8("gr\xc3\xbc \xe2\x82\xac \xf0\x9f\x98\x80"));
    for (const char* text : {"\xff", "\xc3", "a\xe2\x82", "\xc0\x80", "\xed\xa0\x80"})
        EXPECT_FALSE(IsUtf8(text)) << text;
}

} // namespace
} // namespace Halvex::Kit
