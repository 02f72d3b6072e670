#include "ResourceKit/Manifest.h"

#include "support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <memory>
#include <set>
#include <string>

#include <sys/stat.h>

namespace Halvex::Kit {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

/// What a manifest makes of its files for the library.
class ManifestDescriptors : public testing::Test {
protected:
    ManifestDescriptors() { options.folder = folder.Path(); }

    /// Of one bundle with these elements of its list of files.
    std::unique_ptr<Manifest> Make(const std::string& files) const {
        ManifestResult result = Manifest::Parse(
            R"({"baseUrl": "http://h", "bundles": [{"name": "b", "files": [)" + files + "]}]}", "m",
            options);
        EXPECT_THAT(result.mistakes, IsEmpty());
        return std::move(result.manifest);
    }

    static App::ioPath FolderOf(const App::ioPath& path) {
        return std::filesystem::path(path.string()).parent_path().string();
    }

    const Testing::TemporaryFolder folder;
    Manifest::Options options;
};

TEST_F(ManifestDescriptors, DescribeAFile) {
    const auto manifest = Make(R"({"path": "a/./b c"})");
    const App::ResourceDescriptor& descriptor = manifest->Files()[0].descriptor;
    EXPECT_EQ(descriptor.localPath, folder / "a/b c");
    EXPECT_EQ(descriptor.downloadPath, folder / "a/b c");
    EXPECT_EQ(descriptor.baseUrl, "http://h");
    EXPECT_EQ(descriptor.relativePath, "a/b%20c");
    EXPECT_EQ(descriptor.idPrefix, "b");
    EXPECT_EQ(descriptor.idSuffix, "a/./b c");
    EXPECT_EQ(descriptor.postProcess, 0);
    EXPECT_EQ(descriptor.validationMode, 1);
    EXPECT_EQ(descriptor.checkOnSchedule, 0);
}

TEST_F(ManifestDescriptors, LieInTheCurrentFolderWithoutAnother) {
    options.folder = {};
    const auto manifest = Make(R"({"path": "a"})");
    EXPECT_EQ(manifest->Files()[0].descriptor.localPath, "a");
    EXPECT_EQ(FolderOf(manifest->Files()[0].descriptor.tempPath), "");
    EXPECT_THAT(manifest->MakeFolders(), IsEmpty());
}

TEST_F(ManifestDescriptors, TakeTheFileFromTheSamePathOfASourceFolder) {
    options.fromFolder = true;
    const auto manifest = Make(R"({"path": "./a b"}, {"path": "c", "url": "http://h/d"})");
    EXPECT_EQ(manifest->Files()[0].descriptor.relativePath, "a b");
    EXPECT_EQ(manifest->Files()[1].descriptor.relativePath, "c");
}

TEST_F(ManifestDescriptors, HaveATemporaryPathOfTheirOwnBesideTheFile) {
    const std::string longName(255, 'x');
    const auto manifest =
        Make(R"({"path": "a/b"}, {"path": "a/)" + longName + R"("}, {"path": "c"})");
    std::set<App::ioPath> paths;
    for (const Manifest::File& file : manifest->Files()) {
        const App::ResourceDescriptor& descriptor = file.descriptor;
        EXPECT_EQ(FolderOf(descriptor.tempPath), FolderOf(descriptor.localPath));
        const std::string name =
            std::filesystem::path(descriptor.tempPath.string()).filename().string();
        EXPECT_THAT(name, testing::MatchesRegex("\\.halvex-[0-9]+-[0-9]+"));
        paths.insert(descriptor.tempPath);
    }
    EXPECT_EQ(paths.size(), 3U);
}

TEST_F(ManifestDescriptors, HaveOtherTemporaryPathsInEachManifest) {
    EXPECT_NE(Make(R"({"path": "a"})")->Files()[0].descriptor.tempPath,
              Make(R"({"path": "a"})")->Files()[0].descriptor.tempPath);
}

TEST_F(ManifestDescriptors, DownloadBesideTheFileWhenOldCopiesAreToBeKept) {
    options.keepsOldCopies = true;
    const auto manifest = Make(R"({"path": "a/b"}, {"path": "a/c"})");
    std::set<App::ioPath> paths;
    for (const Manifest::File& file : manifest->Files()) {
        const App::ResourceDescriptor& descriptor = file.descriptor;
        EXPECT_EQ(descriptor.postProcess, 1);
        EXPECT_EQ(FolderOf(descriptor.downloadPath), folder / "a");
        paths.insert({descriptor.localPath, descriptor.downloadPath, descriptor.tempPath});
    }
    EXPECT_EQ(paths.size(), 6U);
}

TEST_F(ManifestDescriptors, AreFoundByTheirAddress) {
    const auto manifest = Make(R"({"path": "a"}, {"path": "b"})");
    for (const Manifest::File& file : manifest->Files())
        EXPECT_EQ(manifest->Find(file.descriptor), &file);
    App::ResourceDescriptor other = manifest->Files()[1].descriptor;
    EXPECT_EQ(manifest->Find(other), nullptr);
    other.userData = 2;
    EXPECT_EQ(manifest->Find(other), nullptr);
}

TEST_F(ManifestDescriptors, AreExpectedToBeWhatTheManifestSays) {
    const std::string sum(64, 'b');
    const auto manifest =
        Make(R"({"path": "a", "size": 5}, {"path": "b", "sha256": ")" + sum + R"("})");
    const ExpectedFileLookup expected = manifest->Expected();
    EXPECT_EQ(expected(manifest->Files()[0].descriptor).size, 5U);
    EXPECT_EQ(expected(manifest->Files()[0].descriptor).sha256, "");
    EXPECT_EQ(expected(manifest->Files()[1].descriptor).size, std::nullopt);
    EXPECT_EQ(expected(manifest->Files()[1].descriptor).sha256, sum);
    const App::ResourceDescriptor other;
    EXPECT_EQ(expected(other).size, std::nullopt);
    EXPECT_EQ(expected(other).sha256, "");
}

TEST_F(ManifestDescriptors, AreInTheirBundles) {
    const ManifestResult result = Manifest::Parse(
        R"({"baseUrl": "http://h", "bundles": [
            {"name": "x", "files": [{"path": "a"}, {"path": "b"}]},
            {"name": "empty", "files": []},
            {"name": "y", "files": [{"path": "c"}]}]})",
        "m", options);
    ASSERT_THAT(result.mistakes, IsEmpty());
    const auto& files = result.manifest->Files();
    const auto& bundles = result.manifest->Bundles();
    ASSERT_EQ(bundles.size(), 3U);
    EXPECT_THAT(bundles[0].descriptors.descriptors,
                testing::UnorderedElementsAre(&files[0].descriptor, &files[1].descriptor));
    EXPECT_THAT(bundles[1].descriptors.descriptors, IsEmpty());
    EXPECT_THAT(bundles[2].descriptors.descriptors, ElementsAre(&files[2].descriptor));
    EXPECT_EQ(bundles[2].descriptors.userData, 2U);
    EXPECT_EQ(files[1].bundle, 0U);
    EXPECT_EQ(files[2].bundle, 2U);
    EXPECT_EQ(files[2].descriptor.idPrefix, "y");
}

TEST_F(ManifestDescriptors, TellTheBytesOfABundleWhenAllAreKnown) {
    const auto total = [this](const std::string& files) {
        return Make(files)->Bundles()[0].totalBytes;
    };
    EXPECT_EQ(total(""), 0U);
    EXPECT_EQ(total(R"({"path": "a", "size": 5}, {"path": "b", "size": 7})"), 12U);
    EXPECT_EQ(total(R"({"path": "a", "size": 5}, {"path": "b"}, {"path": "c", "size": 1})"),
              std::nullopt);
    const std::string largest = R"({"path": "a", "size": 18446744073709551615})";
    EXPECT_EQ(total(largest), 18446744073709551615U);
    EXPECT_EQ(total(largest + R"(, {"path": "b", "size": 1})"), std::nullopt);
}

TEST_F(ManifestDescriptors, HaveTheirFoldersMade) {
    const auto manifest = Make(R"({"path": "a/b/c"}, {"path": "d/e"}, {"path": "f"})");
    EXPECT_THAT(manifest->MakeFolders(), IsEmpty());
    EXPECT_EQ(folder.List(), "a d");
    EXPECT_TRUE((folder / "a/b").exists());
    EXPECT_THAT(manifest->MakeFolders(), IsEmpty()) << "they are there already";
}

TEST_F(ManifestDescriptors, SayWhichFolderCannotBeMade) {
    folder.Write("a", "a file");
    const auto manifest = Make(R"({"path": "a/b"}, {"path": "c/d"})");
    EXPECT_THAT(manifest->MakeFolders(),
                ElementsAre(StartsWith("cannot make folder=" + (folder / "a").string() + ": ")));
    EXPECT_TRUE((folder / "c").exists());
}

} // namespace
} // namespace Halvex::Kit
