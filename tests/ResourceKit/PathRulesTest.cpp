#include "ResourceKit/PathRules.h"

#include <gtest/gtest.h>

namespace Halvex::Kit {
namespace {

TEST(PathRules, AcceptFilesBelowTheOutputFolder) {
    EXPECT_EQ(CheckPath("a").path, "a");
    EXPECT_EQ(CheckPath("a/b c/d\\e.bin").path, "a/b c/d\\e.bin");
    EXPECT_EQ(CheckPath("..a/b..").path, "..a/b..");
    EXPECT_EQ(CheckPath("a").problem, "");
}

TEST(PathRules, GiveTheShortestSpelling) {
    EXPECT_EQ(CheckPath("a//b").path, "a/b");
    EXPECT_EQ(CheckPath("./a/./b").path, "a/b");
}

TEST(PathRules, RefuseAbsolutePaths) {
    EXPECT_EQ(CheckPath("/etc/passwd").problem, "path \"/etc/passwd\" is absolute");
    EXPECT_EQ(CheckPath("/etc/passwd").path, "");
}

TEST(PathRules, RefuseTheWayOut) {
    for (const char* path : {"..", "../a", "a/..", "a/../../b", "./../a"})
        EXPECT_NE(CheckPath(path).problem.find("leads out of the output folder"), std::string::npos)
            << path;
}

TEST(PathRules, RefuseWhatNamesNoFile) {
    EXPECT_EQ(CheckPath("").problem, "path \"\" is empty");
    for (const char* path : {".", "./", "a/", "a/.", "a//"})
        EXPECT_NE(CheckPath(path).problem.find("names a folder"), std::string::npos) << path;
}

TEST(PathRules, RefuseWhatIsLongerThanPathsCanBe) {
    EXPECT_EQ(CheckPath(std::string(4095, 'a')).problem, "");
    EXPECT_EQ(CheckPath(std::string(4096, 'a')).problem,
              "path of 4096 bytes is too long, the system takes 4095");
}

TEST(PathRules, RefuseControlCharactersAndShowThemEscaped) {
    EXPECT_EQ(CheckPath("a\nb").problem, "path \"a\\nb\" has a control character");
    EXPECT_EQ(CheckPath(std::string("a\0b", 3)).problem,
              "path \"a\\u0000b\" has a control character");
}

TEST(PathRules, TellTheFolderOfAPath) {
    EXPECT_EQ(FolderOf("a/b/c"), "a/b");
    EXPECT_EQ(FolderOf("/a"), "/");
    EXPECT_EQ(FolderOf("a"), "");
}

} // namespace
} // namespace Halvex::Kit
