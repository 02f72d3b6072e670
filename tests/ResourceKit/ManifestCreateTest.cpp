#include "ResourceKit/Manifest.h"

#include "support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <string>
#include <vector>

#include <sys/fsuid.h>
#include <sys/stat.h>

namespace Halvex::Kit {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

// As sha256sum prints them.
constexpr char kSumOfAbc[] = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
constexpr char kSumOfNothing[] = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

class ManifestCreate : public testing::Test {
protected:
    std::vector<std::string> Mistakes() const {
        const ManifestDocument document = Manifest::Create(folder.Path(), "http://h");
        EXPECT_EQ(document.text.empty(), !document.mistakes.empty());
        return document.mistakes;
    }

    /// The paths that the document names, after it was read again.
    std::vector<std::string> Paths() const {
        const ManifestDocument document = Manifest::Create(folder.Path(), "http://h");
        EXPECT_THAT(document.mistakes, IsEmpty());
        const ManifestResult result = Manifest::Parse(document.text, "m", {});
        EXPECT_THAT(result.mistakes, IsEmpty());
        std::vector<std::string> paths;
        if (result.manifest) {
            for (const Manifest::File& file : result.manifest->Files())
                paths.push_back(file.path);
        }
        return paths;
    }

    void Link(const std::string& target, const std::string& name) const {
        std::filesystem::create_symlink(target, (folder / name).string());
    }

    const Testing::TemporaryFolder folder;
};

TEST_F(ManifestCreate, WritesSizesAndSumsThatAreReadBackTheSame) {
    folder.Write("b", "abc");
    folder.Write("a/c d#1", "");
    const ManifestDocument document = Manifest::Create(folder.Path(), "http://h/x");
    ASSERT_THAT(document.mistakes, IsEmpty());
    const ManifestResult result = Manifest::Parse(document.text, "m", {});
    ASSERT_THAT(result.mistakes, IsEmpty());
    ASSERT_EQ(result.manifest->Bundles().size(), 1U);
    EXPECT_EQ(result.manifest->Bundles()[0].name, "files");
    EXPECT_EQ(result.manifest->Bundles()[0].totalBytes, 3U);
    const auto& files = result.manifest->Files();
    ASSERT_EQ(files.size(), 2U);
    EXPECT_EQ(files[0].path, "a/c d#1");
    EXPECT_EQ(files[0].descriptor.baseUrl, "http://h/x");
    EXPECT_EQ(files[0].descriptor.relativePath, "a/c%20d%231");
    EXPECT_EQ(files[0].expected.size, 0U);
    EXPECT_EQ(files[0].expected.sha256, kSumOfNothing);
    EXPECT_EQ(files[1].path, "b");
    EXPECT_EQ(files[1].expected.size, 3U);
    EXPECT_EQ(files[1].expected.sha256, kSumOfAbc);
}

TEST_F(ManifestCreate, ListsFilesInTheOrderOfTheirPaths) {
    for (const char* path : {"b", "a/b/c", "a.b", "c", "B"})
        folder.Write(path, "x");
    EXPECT_THAT(Paths(), ElementsAre("B", "a.b", "a/b/c", "b", "c"));
}

TEST_F(ManifestCreate, KeepsNamesThatJsonMustEscape) {
    const std::vector<std::string> names{"!\"quotes\"", "\\back",
                                         "gr\xc3\xbc\xc3\x9f"
                                         "e \xf0\x9f\x98\x80"};
    for (const std::string& name : names)
        folder.Write(name, "x");
    EXPECT_EQ(Paths(), names);
}

TEST_F(ManifestCreate, MakesAnEmptyBundleOfAnEmptyFolder) {
    std::filesystem::create_directory((folder / "empty").string());
    EXPECT_THAT(Paths(), IsEmpty());
}

TEST_F(ManifestCreate, LeavesOutABaseUrlThatIsNotGiven) {
    folder.Write("a", "x");
    const ManifestDocument document = Manifest::Create(folder.Path(), "");
    Manifest::Options options;
    EXPECT_THAT(Manifest::Parse(document.text, "m", options).mistakes,
                ElementsAre(HasSubstr("has no address")));
    options.fromFolder = true;
    EXPECT_NE(Manifest::Parse(document.text, "m", options).manifest, nullptr);
}

TEST_F(ManifestCreate, RefusesABaseUrlThatIsNone) {
    EXPECT_THAT(Manifest::Create(folder.Path(), "ftp://h").mistakes,
                ElementsAre("baseUrl \"ftp://h\" is no http or https address"));
    EXPECT_THAT(Manifest::Create(folder.Path(), "http://h/\xff").mistakes,
                ElementsAre("baseUrl \"http://h/\\ufffd\" is no http or https address"));
    EXPECT_THAT(Manifest::Create(folder.Path(), "http://h/?a").mistakes,
                ElementsAre("baseUrl \"http://h/?a\" has a query or a fragment"));
}

TEST_F(ManifestCreate, FollowsLinksToFilesInTheFolderOnly) {
    folder.Write("a/b", "abc");
    Link("a/b", "inside");
    EXPECT_THAT(Paths(), ElementsAre("a/b", "inside"));
    Link("..", "a/loop");
    Link("nothing", "dangling");
    Link("self", "self");
    const Testing::TemporaryFolder outside;
    Link(outside.Write("secret", "x").string(), "outside");
    const std::string reason = " is a link that does not lead to a file in the folder";
    EXPECT_THAT(Mistakes(), testing::UnorderedElementsAre(
                                "path \"a/loop\"" + reason, "path \"dangling\"" + reason,
                                "path \"self\"" + reason, "path \"outside\"" + reason));
}

TEST_F(ManifestCreate, DoesNotTakeAFolderOfTheSameBeginningForThisOne) {
    const Testing::TemporaryFolder outside(folder.Path());
    const App::ioPath inner = folder.Path() + "/inner";
    std::filesystem::create_directory(inner.string());
    folder.Write("inner-other", "x");
    Link("../inner-other", "inner/link");
    EXPECT_THAT(Manifest::Create(inner, "").mistakes, ElementsAre(StartsWith("path \"link\" ")));
}

TEST_F(ManifestCreate, WorksInAFolderThatIsReachedThroughALink) {
    folder.Write("real/a", "x");
    Link("a", "real/b");
    Link("real", "link");
    const ManifestDocument document = Manifest::Create(folder / "link", "");
    EXPECT_THAT(document.mistakes, IsEmpty());
    EXPECT_THAT(document.text, HasSubstr("\"path\": \"b\""));
}

TEST_F(ManifestCreate, RefusesNamesThatAManifestCannotHave) {
    folder.Write("a\nb", "x");
    folder.Write("c\xff", "x");
    EXPECT_THAT(Mistakes(), ElementsAre("path \"a\\nb\" has a control character",
                                        "path \"c\\ufffd\" is no UTF-8"));
}

TEST_F(ManifestCreate, RefusesWhatIsNeitherFileNorFolder) {
    ASSERT_EQ(::mkfifo((folder / "pipe").string().c_str(), 0600), 0);
    EXPECT_THAT(Mistakes(), ElementsAre("path \"pipe\" is unreadable: no regular file"));
}

TEST_F(ManifestCreate, TakesTheCurrentFolderForAnEmptyPath) {
    folder.Write("a", "x");
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(folder.Path());
    const ManifestDocument document = Manifest::Create({}, "");
    std::filesystem::current_path(before);
    EXPECT_THAT(document.mistakes, IsEmpty());
    EXPECT_THAT(document.text, HasSubstr("\"a\""));
}

TEST_F(ManifestCreate, SaysThatTheFolderIsMissingOrAFile) {
    EXPECT_THAT(
        Manifest::Create(folder / "nothing", "").mistakes,
        ElementsAre((folder / "nothing").string() + ": cannot be read: No such file or directory"));
    const App::ioPath file = folder.Write("file", "x");
    EXPECT_THAT(Manifest::Create(file, "").mistakes,
                ElementsAre(file.string() + ": cannot be read: Not a directory"));
}

/// As somebody who may not read everything, which the super-user may.
TEST_F(ManifestCreate, SaysWhatCannotBeRead) {
    std::filesystem::permissions(folder.Path(), std::filesystem::perms(0755));
    folder.Write("good", "x");
    std::filesystem::permissions(folder.Write("secret", "x").string(), std::filesystem::perms(0));
    folder.Write("sub/a", "x");
    std::filesystem::permissions((folder / "sub").string(), std::filesystem::perms(0));
    constexpr unsigned kNobody = 65534;
    const auto user = static_cast<unsigned>(::setfsuid(kNobody));
    const std::vector<std::string> mistakes = Mistakes();
    ::setfsuid(user);
    EXPECT_THAT(mistakes,
                ElementsAre((folder / "sub").string() + ": cannot be read: Permission denied",
                            "path \"secret\" is unreadable: Permission denied"));
    std::filesystem::permissions((folder / "sub").string(), std::filesystem::perms(0755));
}

} // namespace
} // namespace Halvex::Kit
