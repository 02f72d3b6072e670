#include "ResourceKit/UrlRules.h"

#include <gtest/gtest.h>

namespace Halvex::Kit {
namespace {

TEST(UrlRules, TakeTheLastPartOfAnAddressAsTheFilesName) {
    EXPECT_EQ(FileNameOf("http://host/a/b.bin"), "b.bin");
    EXPECT_EQ(FileNameOf("http://host/a/b.bin?x=/y#/z"), "b.bin");
    EXPECT_EQ(FileNameOf("http://host/a%20b%C3%BC"), "a b\xc3\xbc");
    EXPECT_EQ(FileNameOf("http://host/100%"), "100%");
    EXPECT_EQ(FileNameOf("http://host/%zz%4"), "%zz%4");
}

TEST(UrlRules, FindNoNameWhereThereIsNone) {
    EXPECT_EQ(FileNameOf("http://host"), "");
    EXPECT_EQ(FileNameOf("http://host/"), "");
    EXPECT_EQ(FileNameOf("http://host?a/b"), "");
    EXPECT_EQ(FileNameOf("no address"), "");
}

TEST(UrlRules, FindNoNameThatWouldLeadElsewhere) {
    EXPECT_EQ(FileNameOf("http://host/a%2Fb"), "");
    EXPECT_EQ(FileNameOf("http://host/%2e%2E"), "");
    EXPECT_EQ(FileNameOf("http://host/.."), "");
    EXPECT_EQ(FileNameOf("http://host/."), "");
}

TEST(UrlRules, EncodeWhatHasAMeaningInAnAddress) {
    EXPECT_EQ(EncodePath("a/b-c_d.~!$&'()*+,;=:@"), "a/b-c_d.~!$&'()*+,;=:@");
    EXPECT_EQ(EncodePath("a b#c?d%e"), "a%20b%23c%3Fd%25e");
    EXPECT_EQ(EncodePath("\xc3\xbc\\"), "%C3%BC%5C");
}

TEST(UrlRules, LetNoPathFollowAQueryOrAFragment) {
    EXPECT_TRUE(CanBeABase("http://h"));
    EXPECT_TRUE(CanBeABase("http://h/a%3Fb/"));
    EXPECT_FALSE(CanBeABase("http://h/a?b"));
    EXPECT_FALSE(CanBeABase("http://h/a#b"));
}

} // namespace
} // namespace Halvex::Kit
