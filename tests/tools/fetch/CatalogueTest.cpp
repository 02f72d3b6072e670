#include "Catalogue.h"

#include "Options.h"
#include "support/LogCapture.h"
#include "support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <set>

namespace Halvex::Fetch {
namespace {

class CatalogueTest : public testing::Test {
protected:
    CatalogueTest() {
        options.output = folder.Path();
        plan.bundles.resize(1);
        plan.bundles[0].name = "bundle";
    }

    void AddFile(const std::string& path, const std::string& sha256 = {}) {
        PlannedFile file;
        file.path = file.localPath = path;
        file.relativeUrl = "url-of-" + path;
        file.baseUrl = "http://h";
        file.sha256 = sha256;
        plan.bundles.back().files.push_back(file);
    }
    App::ResourceDescriptor FirstDescriptor() const {
        return Catalogue(plan, options).Files().front().descriptor;
    }

    Testing::TemporaryFolder folder;
    Options options;
    Plan plan;
};

TEST_F(CatalogueTest, DescribesAFile) {
    AddFile("a/b");
    const App::ResourceDescriptor descriptor = FirstDescriptor();
    EXPECT_EQ(descriptor.localPath, folder / "a/b");
    EXPECT_EQ(descriptor.downloadPath, folder / "a/b");
    EXPECT_EQ(descriptor.baseUrl, "http://h");
    EXPECT_EQ(descriptor.relativePath, "url-of-a/b");
    EXPECT_EQ(descriptor.idPrefix, "bundle");
    EXPECT_EQ(descriptor.idSuffix, "a/b");
    EXPECT_EQ(descriptor.checkOnSchedule, 0);
}

TEST_F(CatalogueTest, TakesTheLocalPathFromASourceFolder) {
    options.source = "src";
    AddFile("a/b");
    EXPECT_EQ(FirstDescriptor().relativePath, "a/b");
}

TEST_F(CatalogueTest, LetsPresenceSufficeWithoutAChecksum) {
    AddFile("a");
    EXPECT_EQ(FirstDescriptor().validationMode, 2);
}

TEST_F(CatalogueTest, ValidatesFilesWithAChecksum) {
    AddFile("a", "sum");
    EXPECT_EQ(FirstDescriptor().validationMode, 1);
    EXPECT_EQ(FirstDescriptor().postProcess, 0);
}

TEST_F(CatalogueTest, DownloadsEveryTimeByForceAndStillChecksTheSum) {
    options.force = true;
    AddFile("a");
    EXPECT_EQ(FirstDescriptor().validationMode, 0);
    EXPECT_EQ(FirstDescriptor().postProcess, 0);
    plan.bundles[0].files[0].sha256 = "sum";
    EXPECT_EQ(FirstDescriptor().validationMode, 0);
    EXPECT_EQ(FirstDescriptor().postProcess, 1);
}

TEST_F(CatalogueTest, DoesNotTakeAFolderForAPresentFile) {
    std::filesystem::create_directory((folder / "a").string());
    AddFile("a");
    EXPECT_EQ(FirstDescriptor().validationMode, 0);
}

TEST_F(CatalogueTest, GivesEachFileATemporaryPathOfItsOwnBesideIt) {
    const std::string longName(255, 'x');
    AddFile("a/b");
    AddFile("a/" + longName);
    AddFile("c");
    const Catalogue catalogue(plan, options);
    std::set<std::string> paths;
    for (const FileEntry& file : catalogue.Files()) {
        const std::filesystem::path temp(file.descriptor.tempPath.string());
        EXPECT_EQ(temp.parent_path(),
                  std::filesystem::path(file.descriptor.localPath.string()).parent_path());
        EXPECT_LE(temp.filename().string().size(), 255U);
        paths.insert(temp.string());
    }
    EXPECT_EQ(paths.size(), 3U);
}

TEST_F(CatalogueTest, NamesTemporaryFilesDifferentlyInEachRun) {
    AddFile("a");
    EXPECT_NE(FirstDescriptor().tempPath, FirstDescriptor().tempPath);
}

TEST_F(CatalogueTest, SharesDescriptorsBetweenGroupAndSingleFile) {
    AddFile("a");
    AddFile("b");
    const Catalogue catalogue(plan, options);
    std::set<const App::ResourceDescriptor*> all;
    for (std::size_t i = 0; i < 2; ++i) {
        const FileEntry& file = catalogue.Files()[i];
        EXPECT_THAT(file.alone.descriptors, testing::ElementsAre(&file.descriptor));
        EXPECT_EQ(file.alone.userData, i);
        EXPECT_EQ(file.descriptor.userData, i);
        all.insert(&file.descriptor);
    }
    EXPECT_EQ(catalogue.Bundles()[0].group.descriptors, all);
}

TEST_F(CatalogueTest, KnowsTheChecksums) {
    AddFile("a", "sum");
    AddFile("b");
    const Catalogue catalogue(plan, options);
    EXPECT_THAT(catalogue.Checksums(),
                testing::ElementsAre(testing::Pair(&catalogue.Files()[0].descriptor, "sum")));
}

TEST_F(CatalogueTest, MakesTheFolders) {
    AddFile("a/b/c");
    AddFile("d/e");
    Catalogue(plan, options).MakeFolders();
    EXPECT_EQ(folder.List(), "a d");
    EXPECT_TRUE((folder / "a/b").exists());
}

TEST_F(CatalogueTest, SaysWhichFolderCannotBeMade) {
    folder.Write("a", "a file");
    AddFile("a/b");
    Testing::LogCapture log;
    Catalogue(plan, options).MakeFolders();
    ASSERT_EQ(log.Errors().size(), 1U);
    EXPECT_THAT(log.Errors()[0],
                testing::StartsWith("cannot make folder=" + (folder / "a").string() + ": "));
}

TEST_F(CatalogueTest, RemovesTemporaryFilesOnly) {
    AddFile("a");
    AddFile("b");
    const Catalogue catalogue(plan, options);
    folder.Write("a", "kept");
    folder.Write(std::filesystem::path(catalogue.Files()[1].descriptor.tempPath.string())
                     .filename()
                     .string(),
                 "rest");
    catalogue.RemoveTemporaryFiles();
    EXPECT_EQ(folder.List(), "a");
}

} // namespace
} // namespace Halvex::Fetch
