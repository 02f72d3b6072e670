#include "ResourceKit/Manifest.h"

#include "support/TemporaryFolder.h"

#include <gmock/gmock.h>

namespace Halvex::Kit {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Priority = App::ISchedulableResource::SchedulePriority;

ManifestResult Read(const std::string& document, const Manifest::Options& options = {}) {
    return Manifest::Parse(document, "m.json", options);
}

/// A manifest of one bundle whose files stand one on each line, from line 2 on.
ManifestResult ReadFiles(const std::string& files, const Manifest::Options& options = {}) {
    return Read("{\"baseUrl\": \"http://h\", \"bundles\": [{\"name\": \"b\", \"files\": [\n" +
                    files + "]}]}",
                options);
}

/// A manifest of one bundle with more fields in it, on line 2.
ManifestResult ReadBundle(const std::string& fields) {
    return Read("{\"bundles\": [{\"files\": [],\n" + fields + "}]}");
}

/// The first bundle of a manifest of one bundle, to which these fields are added.
Manifest::Bundle BundleWith(const std::string& fields) {
    const ManifestResult result = ReadBundle(fields);
    EXPECT_THAT(result.mistakes, IsEmpty());
    return result.manifest ? result.manifest->Bundles().at(0) : Manifest::Bundle();
}

TEST(Manifest, ReadsAllFields) {
    const std::string sum(64, 'A');
    const ManifestResult result =
        Read(R"({"baseUrl": "http://h/x", "bundles": [
            {"name": "one", "priority": "high", "startup": true, "files": [
                {"path": "./a//b c.bin", "size": 123, "sha256": ")" +
             sum + R"("}, {"path": "d", "url": "https://other/e?f"}]}]})");
    ASSERT_THAT(result.mistakes, IsEmpty());
    ASSERT_EQ(result.manifest->Bundles().size(), 1U);
    const Manifest::Bundle& bundle = result.manifest->Bundles()[0];
    EXPECT_EQ(bundle.name, "one");
    EXPECT_EQ(bundle.priority, Priority::High);
    EXPECT_TRUE(bundle.startup);
    const auto& files = result.manifest->Files();
    ASSERT_EQ(files.size(), 2U);
    EXPECT_EQ(files[0].path, "./a//b c.bin");
    EXPECT_EQ(files[0].descriptor.localPath, "a/b c.bin");
    EXPECT_EQ(files[0].descriptor.baseUrl, "http://h/x");
    EXPECT_EQ(files[0].descriptor.relativePath, "a/b%20c.bin");
    EXPECT_EQ(files[0].expected.size, 123U);
    EXPECT_EQ(files[0].expected.sha256, std::string(64, 'a'));
    EXPECT_EQ(files[1].descriptor.baseUrl, "");
    EXPECT_EQ(files[1].descriptor.relativePath, "https://other/e?f");
}

TEST(Manifest, HasDefaultsForOptionalFields) {
    const ManifestResult result = ReadFiles(R"({"path": "a"})");
    ASSERT_THAT(result.mistakes, IsEmpty());
    const Manifest::Bundle& bundle = result.manifest->Bundles().at(0);
    EXPECT_EQ(bundle.priority, Priority::Normal);
    EXPECT_FALSE(bundle.startup);
    EXPECT_FALSE(result.manifest->Files().at(0).expected.size.has_value());
    EXPECT_EQ(result.manifest->Files().at(0).expected.sha256, "");
}

TEST(Manifest, KnowsThreePriorities) {
    EXPECT_EQ(BundleWith(R"("name": "b", "priority": "low")").priority, Priority::Low);
    EXPECT_EQ(BundleWith(R"("name": "b", "priority": "normal")").priority, Priority::Normal);
    EXPECT_EQ(BundleWith(R"("name": "b", "priority": "high")").priority, Priority::High);
    EXPECT_THAT(ReadBundle(R"("name": "b", "priority": "urgent")").mistakes,
                ElementsAre("m.json:2: priority \"urgent\" is none of high, normal and low"));
}

TEST(Manifest, MayBeEmpty) {
    EXPECT_THAT(Read(R"({"bundles": []})").mistakes, IsEmpty());
    EXPECT_THAT(ReadBundle(R"("name": "b")").mistakes, IsEmpty());
}

TEST(Manifest, ListsEveryUnsafePathWithItsLine) {
    EXPECT_THAT(ReadFiles("{\"path\": \"/a\"},\n{\"path\": \"good\"},\n{\"path\": \"b/../../c\"},\n"
                          "{\"path\": \"\"},\n{\"path\": \"good\"},\n{\n\"path\": \"x//../y\"}")
                    .mistakes,
                ElementsAre("m.json:2: path \"/a\" is absolute",
                            "m.json:4: path \"b/../../c\" leads out of the output folder",
                            "m.json:5: path \"\" is empty",
                            "m.json:6: path \"good\" is asked for already, at m.json:3",
                            "m.json:8: path \"x//../y\" leads out of the output folder"));
}

TEST(Manifest, IsNoneWhenAnythingIsRefused) {
    EXPECT_EQ(ReadFiles("{\"path\": \"/a\"},{\"path\": \"good\"}").manifest, nullptr);
}

TEST(Manifest, RefusesOnePathInTwoSpellings) {
    EXPECT_THAT(ReadFiles("{\"path\": \"a/b\"},\n{\"path\": \"./a//b\"}").mistakes,
                ElementsAre("m.json:3: path \"./a//b\" is asked for already, at m.json:2"));
}

TEST(Manifest, RefusesOnePathInTwoBundles) {
    EXPECT_THAT(Read("{\"baseUrl\": \"http://h\", \"bundles\": [\n"
                     "{\"name\": \"b\", \"files\": [{\"path\": \"a\"}]},\n"
                     "{\"name\": \"c\", \"files\": [{\"path\": \"a\"}]}]}")
                    .mistakes,
                ElementsAre("m.json:3: path \"a\" is asked for already, at m.json:2"));
}

TEST(Manifest, RefusesABaseUrlThatNoPathCanFollow) {
    EXPECT_THAT(Read("{\n\"baseUrl\": \"http://h/?a\", \"bundles\": []}").mistakes,
                ElementsAre("m.json:2: baseUrl \"http://h/?a\" has a query or a fragment"));
}

TEST(Manifest, RefusesAFileInSeveralFoldersThatAreFilesOnce) {
    EXPECT_THAT(
        ReadFiles("{\"path\": \"a\"},\n{\"path\": \"a/b\"},\n{\"path\": \"a/b/c\"}").mistakes,
        ElementsAre(HasSubstr(":3: path \"a/b\" needs"), HasSubstr(":4: path \"a/b/c\" needs")));
}

TEST(Manifest, RefusesAFileInTheFolderThatIsAFile) {
    EXPECT_THAT(ReadFiles("{\"path\": \"a/b/c\"},\n{\"path\": \"a\"}").mistakes,
                ElementsAre("m.json:2: path \"a/b/c\" needs a folder where a file is asked for, at "
                            "m.json:3"));
}

TEST(Manifest, RefusesWrongTypesEachWithItsLine) {
    EXPECT_THAT(
        ReadFiles("{\"path\": 1},\n{\"path\": \"a\", \"size\": -1},\n"
                  "{\"path\": \"b\", \"size\": 1.5},\n{\"path\": \"c\", \"size\": \"1\"},\n"
                  "{\"path\": \"d\", \"url\": null},\n{\"path\": \"e\", \"sha256\": []},\n"
                  "7")
            .mistakes,
        ElementsAre(
            "m.json:2: \"path\" must be a text", "m.json:3: \"size\" must be a number of bytes",
            "m.json:4: \"size\" must be a number of bytes",
            "m.json:5: \"size\" must be a number of bytes", "m.json:6: \"url\" must be a text",
            "m.json:7: \"sha256\" must be a text", "m.json:8: a file must be an object"));
}

TEST(Manifest, RefusesWrongTypesOfABundlesFields) {
    EXPECT_THAT(ReadBundle(R"("name": "b", "startup": "yes")").mistakes,
                ElementsAre("m.json:2: \"startup\" must be true or false"));
    EXPECT_THAT(ReadBundle(R"("name": 5)").mistakes,
                ElementsAre("m.json:2: \"name\" must be a text"));
    EXPECT_THAT(Read("[]").mistakes, ElementsAre("m.json:1: the manifest must be an object"));
    EXPECT_THAT(Read("{\"bundles\": {}}").mistakes,
                ElementsAre("m.json:1: \"bundles\" must be a list"));
}

TEST(Manifest, HidesNoMistakeBehindAnother) {
    EXPECT_THAT(Read("{\"baseUrl\": 1, \"base\": \"\", \"bundles\": [\n"
                     "{\"prio\": 1, \"startup\": 1, \"priority\": \"no\", \"files\": [\n"
                     "{\"path\": \"../a\", \"sise\": 1},\n"
                     "{\"path\": 2, \"sha256\": \"1\"},\n"
                     "{\"path\": \"../c\", \"url\": 5, \"size\": -1}]}]}")
                    .mistakes,
                ElementsAre("m.json:1: \"baseUrl\" must be a text",
                            "m.json:1: the manifest has an unknown field \"base\"",
                            "m.json:2: a bundle has an unknown field \"prio\"",
                            "m.json:2: \"startup\" must be true or false",
                            "m.json:2: a bundle has no field \"name\"",
                            "m.json:2: priority \"no\" is none of high, normal and low",
                            "m.json:3: a file has an unknown field \"sise\"",
                            "m.json:3: path \"../a\" leads out of the output folder",
                            "m.json:4: \"path\" must be a text",
                            "m.json:4: sha256 \"1\" is not 64 hexadecimal digits",
                            "m.json:5: \"url\" must be a text",
                            "m.json:5: \"size\" must be a number of bytes",
                            "m.json:5: path \"../c\" leads out of the output folder"));
}

TEST(Manifest, RefusesMissingFields) {
    EXPECT_THAT(Read("{}").mistakes,
                ElementsAre("m.json:1: the manifest has no field \"bundles\""));
    EXPECT_THAT(ReadBundle("\"priority\": \"low\"").mistakes,
                ElementsAre("m.json:1: a bundle has no field \"name\""));
    EXPECT_THAT(ReadFiles("{}").mistakes, ElementsAre("m.json:2: a file has no field \"path\""));
}

TEST(Manifest, RefusesUnknownAndRepeatedFields) {
    EXPECT_THAT(
        ReadFiles("{\"path\": \"a\", \"sha265\": \"\"},\n{\"path\": \"b\",\n\"path\": \"c\"}")
            .mistakes,
        ElementsAre("m.json:2: a file has an unknown field \"sha265\"",
                    "m.json:4: a file has the field \"path\" twice"));
}

TEST(Manifest, RefusesChecksumsThatAreNone) {
    EXPECT_THAT(
        ReadFiles("{\"path\": \"a\", \"sha256\": \"12\"},\n{\"path\": \"b\", \"sha256\": \"" +
                  std::string(63, '0') + "g\"}")
            .mistakes,
        ElementsAre("m.json:2: sha256 \"12\" is not 64 hexadecimal digits",
                    "m.json:3: sha256 \"" + std::string(63, '0') +
                        "g\" is not 64 hexadecimal digits"));
}

TEST(Manifest, RefusesAddressesThatAreNone) {
    EXPECT_THAT(ReadFiles("{\"path\": \"a\", \"url\": \"b/c\"}").mistakes,
                ElementsAre("m.json:2: url \"b/c\" is no http or https address"));
    EXPECT_THAT(Read("{\"baseUrl\": \"ftp://h\", \"bundles\": []}").mistakes,
                ElementsAre("m.json:1: baseUrl \"ftp://h\" is no http or https address"));
}

TEST(Manifest, MissesNoAddressWhereTheBaseUrlIsMisspelt) {
    EXPECT_THAT(Read("{\"baseURL\": \"http://h\", \"bundles\": [\n"
                     "{\"name\": \"b\", \"files\": [{\"path\": \"a\"}]}]}")
                    .mistakes,
                ElementsAre("m.json:1: the manifest has an unknown field \"baseURL\""));
}

TEST(Manifest, NeedsABaseUrlWhereAFileHasNoUrl) {
    const std::string document = "{\"bundles\": [{\"name\": \"b\", \"files\": [\n"
                                 "{\"path\": \"a\", \"url\": \"http://h/a\"},\n"
                                 "{\"path\": \"c\"}]}]}";
    EXPECT_THAT(Read(document).mistakes,
                ElementsAre("m.json:3: path \"c\" has no address: there is no url and no baseUrl"));
    Manifest::Options fromFolder;
    fromFolder.fromFolder = true;
    EXPECT_THAT(Read(document, fromFolder).mistakes, IsEmpty());
}

TEST(Manifest, RefusesNamesThatWouldGarbleATerminal) {
    EXPECT_THAT(ReadBundle(R"("name": "a\u001b[2J")").mistakes,
                ElementsAre("m.json:2: name \"a\\u001b[2J\" is empty or has a control character"));
    EXPECT_THAT(ReadBundle(R"("name": "")").mistakes,
                ElementsAre("m.json:2: name \"\" is empty or has a control character"));
}

TEST(Manifest, TellsTheLineThatIsNoJson) {
    const ManifestResult result = Read("{\"bundles\": [\n{,}]}");
    ASSERT_EQ(result.mistakes.size(), 1U);
    EXPECT_THAT(result.mistakes[0], testing::StartsWith("m.json:2: is not valid JSON at "));
}

TEST(Manifest, IsLoadedFromAFile) {
    const Testing::TemporaryFolder folder;
    const App::ioPath good = folder.Write("good.json", R"({"bundles": []})");
    EXPECT_NE(Manifest::Load(good, {}).manifest, nullptr);
    const App::ioPath bad = folder.Write("bad.json", "{}");
    EXPECT_THAT(Manifest::Load(bad, {}).mistakes,
                ElementsAre(bad.string() + ":1: the manifest has no field \"bundles\""));
}

TEST(Manifest, SaysWhyItsFileCannotBeRead) {
    const Testing::TemporaryFolder folder;
    folder.Write("a", R"({"bundles": []})");
    const std::pair<App::ioPath, std::string> rows[] = {
        {folder / "nothing", "No such file or directory"},
        {folder / "a/b", "Not a directory"},
        {App::ioPath(folder.Path()), "no regular file"},
        {folder / std::string("a\0b", 3), "Invalid argument"},
    };
    for (const auto& [path, reason] : rows) {
        const ManifestResult result = Manifest::Load(path, {});
        EXPECT_EQ(result.manifest, nullptr);
        EXPECT_THAT(result.mistakes, ElementsAre(path.string() + ": cannot be read: " + reason));
    }
}

TEST(Manifest, RepeatsNoControlCharacterOfWhatIsNoJson) {
    const ManifestResult result = Read("{\"bundles\": \x7f");
    ASSERT_EQ(result.mistakes.size(), 1U);
    EXPECT_EQ(result.mistakes[0].find('\x7f'), std::string::npos) << result.mistakes[0];
}

} // namespace
} // namespace Halvex::Kit
