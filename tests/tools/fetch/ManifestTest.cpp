#include "Manifest.h"

#include <gmock/gmock.h>

namespace Halvex::Fetch {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Priority = App::ISchedulableResource::SchedulePriority;

PlanResult Read(const std::string& document, bool addressesNeeded = true) {
    return ReadManifest(document, "m.json", addressesNeeded);
}

/// A manifest of one bundle whose files stand one on each line, from line 2 on.
PlanResult ReadFiles(const std::string& files, bool addressesNeeded = true) {
    return Read("{\"baseUrl\": \"http://h\", \"bundles\": [{\"name\": \"b\", \"files\": [\n" +
                    files + "]}]}",
                addressesNeeded);
}

/// A manifest of one bundle with more fields in it, on line 2.
PlanResult ReadBundle(const std::string& fields) {
    return Read("{\"bundles\": [{\"files\": [],\n" + fields + "}]}");
}

TEST(Manifest, ReadsAllFields) {
    const std::string sum(64, 'A');
    const PlanResult result = Read(R"({"baseUrl": "http://h/x", "bundles": [
            {"name": "one", "priority": "high", "startup": true, "files": [
                {"path": "./a//b c.bin", "size": 123, "sha256": ")" +
                                   sum + R"("}, {"path": "d", "url": "https://other/e?f"}]}]})");
    ASSERT_THAT(result.refusals, IsEmpty());
    ASSERT_EQ(result.plan.bundles.size(), 1U);
    const PlannedBundle& bundle = result.plan.bundles[0];
    EXPECT_EQ(bundle.name, "one");
    EXPECT_EQ(bundle.priority, Priority::High);
    EXPECT_TRUE(bundle.startup);
    ASSERT_EQ(bundle.files.size(), 2U);
    EXPECT_EQ(bundle.files[0].path, "./a//b c.bin");
    EXPECT_EQ(bundle.files[0].localPath, "a/b c.bin");
    EXPECT_EQ(bundle.files[0].baseUrl, "http://h/x");
    EXPECT_EQ(bundle.files[0].relativeUrl, "a/b%20c.bin");
    EXPECT_EQ(bundle.files[0].size, 123U);
    EXPECT_EQ(bundle.files[0].sha256, std::string(64, 'a'));
    EXPECT_EQ(bundle.files[1].baseUrl, "");
    EXPECT_EQ(bundle.files[1].relativeUrl, "https://other/e?f");
}

TEST(Manifest, HasDefaultsForOptionalFields) {
    const PlanResult result = ReadFiles(R"({"path": "a"})");
    ASSERT_EQ(result.plan.bundles.size(), 1U);
    const PlannedBundle& bundle = result.plan.bundles[0];
    EXPECT_EQ(bundle.priority, Priority::Normal);
    EXPECT_FALSE(bundle.startup);
    EXPECT_FALSE(bundle.files[0].size.has_value());
    EXPECT_EQ(bundle.files[0].sha256, "");
}

TEST(Manifest, KnowsThreePriorities) {
    EXPECT_EQ(ReadBundle(R"("name": "b", "priority": "low")").plan.bundles[0].priority,
              Priority::Low);
    EXPECT_EQ(ReadBundle(R"("name": "b", "priority": "normal")").plan.bundles[0].priority,
              Priority::Normal);
    EXPECT_THAT(ReadBundle(R"("name": "b", "priority": "urgent")").refusals,
                ElementsAre("m.json:2: priority \"urgent\" is none of high, normal and low"));
}

TEST(Manifest, MayBeEmpty) {
    EXPECT_THAT(Read(R"({"bundles": []})").refusals, IsEmpty());
    EXPECT_THAT(ReadBundle(R"("name": "b")").refusals, IsEmpty());
}

TEST(Manifest, ListsEveryUnsafePathWithItsLine) {
    EXPECT_THAT(ReadFiles("{\"path\": \"/a\"},\n{\"path\": \"good\"},\n{\"path\": \"b/../../c\"},\n"
                          "{\"path\": \"\"},\n{\"path\": \"good\"},\n{\n\"path\": \"x//../y\"}")
                    .refusals,
                ElementsAre("m.json:2: path \"/a\" is absolute",
                            "m.json:4: path \"b/../../c\" leads out of the output folder",
                            "m.json:5: path \"\" is empty",
                            "m.json:6: path \"good\" is asked for already, at m.json:3",
                            "m.json:8: path \"x//../y\" leads out of the output folder"));
}

TEST(Manifest, HasNoPlanWhenAnythingIsRefused) {
    EXPECT_THAT(ReadFiles("{\"path\": \"/a\"},{\"path\": \"good\"}").plan.bundles, IsEmpty());
}

TEST(Manifest, RefusesOnePathInTwoSpellings) {
    EXPECT_THAT(ReadFiles("{\"path\": \"a/b\"},\n{\"path\": \"./a//b\"}").refusals,
                ElementsAre("m.json:3: path \"./a//b\" is asked for already, at m.json:2"));
}

TEST(Manifest, RefusesOnePathInTwoBundles) {
    EXPECT_THAT(Read("{\"baseUrl\": \"http://h\", \"bundles\": [\n"
                     "{\"name\": \"b\", \"files\": [{\"path\": \"a\"}]},\n"
                     "{\"name\": \"c\", \"files\": [{\"path\": \"a\"}]}]}")
                    .refusals,
                ElementsAre("m.json:3: path \"a\" is asked for already, at m.json:2"));
}

TEST(Manifest, RefusesAFileInTheFolderThatIsAFile) {
    EXPECT_THAT(ReadFiles("{\"path\": \"a/b/c\"},\n{\"path\": \"a\"}").refusals,
                ElementsAre("m.json:2: path \"a/b/c\" needs a folder where a file is asked for, at "
                            "m.json:3"));
}

TEST(Manifest, RefusesWrongTypesEachWithItsLine) {
    EXPECT_THAT(
        ReadFiles("{\"path\": 1},\n{\"path\": \"a\", \"size\": -1},\n"
                  "{\"path\": \"b\", \"size\": 1.5},\n{\"path\": \"c\", \"size\": \"1\"},\n"
                  "{\"path\": \"d\", \"url\": null},\n{\"path\": \"e\", \"sha256\": []},\n"
                  "7")
            .refusals,
        ElementsAre(
            "m.json:2: \"path\" must be a text", "m.json:3: \"size\" must be a number of bytes",
            "m.json:4: \"size\" must be a number of bytes",
            "m.json:5: \"size\" must be a number of bytes", "m.json:6: \"url\" must be a text",
            "m.json:7: \"sha256\" must be a text", "m.json:8: a file must be an object"));
}

TEST(Manifest, RefusesWrongTypesOfABundlesFields) {
    EXPECT_THAT(ReadBundle(R"("name": "b", "startup": "yes")").refusals,
                ElementsAre("m.json:2: \"startup\" must be true or false"));
    EXPECT_THAT(ReadBundle(R"("name": 5)").refusals,
                ElementsAre("m.json:2: \"name\" must be a text"));
    EXPECT_THAT(Read("[]").refusals, ElementsAre("m.json:1: the manifest must be an object"));
    EXPECT_THAT(Read("{\"bundles\": {}}").refusals,
                ElementsAre("m.json:1: \"bundles\" must be a list"));
}

TEST(Manifest, RefusesMissingFields) {
    EXPECT_THAT(Read("{}").refusals,
                ElementsAre("m.json:1: the manifest has no field \"bundles\""));
    EXPECT_THAT(ReadBundle("\"priority\": \"low\"").refusals,
                ElementsAre("m.json:1: a bundle has no field \"name\""));
    EXPECT_THAT(ReadFiles("{}").refusals, ElementsAre("m.json:2: a file has no field \"path\""));
}

TEST(Manifest, RefusesUnknownAndRepeatedFields) {
    EXPECT_THAT(
        ReadFiles("{\"path\": \"a\", \"sha265\": \"\"},\n{\"path\": \"b\",\n\"path\": \"c\"}")
            .refusals,
        ElementsAre("m.json:2: a file has an unknown field \"sha265\"",
                    "m.json:4: a file has the field \"path\" twice"));
}

TEST(Manifest, RefusesChecksumsThatAreNone) {
    EXPECT_THAT(
        ReadFiles("{\"path\": \"a\", \"sha256\": \"12\"},\n{\"path\": \"b\", \"sha256\": \"" +
                  std::string(63, '0') + "g\"}")
            .refusals,
        ElementsAre("m.json:2: sha256 \"12\" is not 64 hexadecimal digits",
                    "m.json:3: sha256 \"" + std::string(63, '0') +
                        "g\" is not 64 hexadecimal digits"));
}

TEST(Manifest, RefusesAddressesThatAreNone) {
    EXPECT_THAT(ReadFiles("{\"path\": \"a\", \"url\": \"b/c\"}").refusals,
                ElementsAre("m.json:2: url \"b/c\" is no http or https address"));
    EXPECT_THAT(Read("{\"baseUrl\": \"ftp://h\", \"bundles\": []}").refusals,
                ElementsAre("m.json:1: baseUrl \"ftp://h\" is no http or https address"));
}

TEST(Manifest, NeedsABaseUrlWhereAFileHasNoUrl) {
    const std::string document = "{\"bundles\": [{\"name\": \"b\", \"files\": [\n"
                                 "{\"path\": \"a\", \"url\": \"http://h/a\"},\n"
                                 "{\"path\": \"c\"}]}]}";
    EXPECT_THAT(Read(document).refusals,
                ElementsAre("m.json:3: path \"c\" has no address: there is no url and no baseUrl"));
    EXPECT_THAT(Read(document, false).refusals, IsEmpty());
}

TEST(Manifest, RefusesNamesThatWouldGarbleATerminal) {
    EXPECT_THAT(ReadBundle(R"("name": "a\u001b[2J")").refusals,
                ElementsAre("m.json:2: name \"a\\u001b[2J\" is empty or has a control character"));
    EXPECT_THAT(ReadBundle(R"("name": "")").refusals,
                ElementsAre("m.json:2: name \"\" is empty or has a control character"));
}

TEST(Manifest, TellsTheLineThatIsNoJson) {
    const PlanResult result = Read("{\"bundles\": [\n{,}]}");
    ASSERT_EQ(result.refusals.size(), 1U);
    EXPECT_THAT(result.refusals[0], testing::StartsWith("m.json:2: is not valid JSON at "));
}

TEST(Manifest, RepeatsNoControlCharacterOfWhatIsNoJson) {
    const PlanResult result = Read("{\"bundles\": \x7f");
    ASSERT_EQ(result.refusals.size(), 1U);
    EXPECT_EQ(result.refusals[0].find('\x7f'), std::string::npos) << result.refusals[0];
}

} // namespace
} // namespace Halvex::Fetch
