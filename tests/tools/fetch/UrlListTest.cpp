#include "UrlList.h"

#include <gmock/gmock.h>

namespace Halvex::Fetch {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> LocalPaths(const PlanResult& result) {
    std::vector<std::string> paths;
    for (const PlannedBundle& bundle : result.plan.bundles) {
        for (const PlannedFile& file : bundle.files)
            paths.push_back(file.localPath);
    }
    return paths;
}

TEST(UrlList, NamesFilesByTheirAddressesOrByWhatStandsBehindATab) {
    const PlanResult result = ReadUrlList("http://h/a%20b?c\nhttp://h/x\td/e.bin\n", "l");
    EXPECT_THAT(result.refusals, IsEmpty());
    EXPECT_THAT(LocalPaths(result), ElementsAre("a b", "d/e.bin"));
    EXPECT_EQ(result.plan.bundles[0].files[0].relativeUrl, "http://h/a%20b?c");
    EXPECT_EQ(result.plan.bundles[0].files[0].baseUrl, "");
}

TEST(UrlList, PutsAllFilesIntoOneBundle) {
    const PlanResult result = ReadUrlList("http://h/a\nhttp://h/b", "l");
    ASSERT_EQ(result.plan.bundles.size(), 1U);
    EXPECT_EQ(result.plan.bundles[0].name, "files");
}

TEST(UrlList, SkipsEmptyLinesAndTakesBothLineEnds) {
    EXPECT_THAT(LocalPaths(ReadUrlList("\r\nhttp://h/a\r\n\nhttp://h/b", "l")),
                ElementsAre("a", "b"));
}

TEST(UrlList, ListsEveryMistakeWithItsLine) {
    EXPECT_THAT(ReadUrlList("no\n\nhttp://h/a\nhttp://h/\nhttp://h/b\t../x\nhttp://g/a\n"
                            "http://h/c\t\nhttp://h/d\te\tf\n",
                            "l")
                    .refusals,
                ElementsAre("l:1: \"no\" is no http or https address",
                            "l:4: \"http://h/\" does not end in a file's name",
                            "l:5: path \"../x\" leads out of the output folder",
                            "l:6: path \"a\" is asked for already, at l:3",
                            "l:7: \"http://h/c\" does not end in a file's name",
                            "l:8: path \"e\\tf\" has a control character"));
}

TEST(UrlList, NumbersAddressesGivenAsArguments) {
    EXPECT_THAT(LocalPaths(PlanUrls({"http://h/a", "http://h/b"})), ElementsAre("a", "b"));
    EXPECT_THAT(PlanUrls({"http://h/a", "http://h/x/a", "http://"}).refusals,
                ElementsAre("address 2: path \"a\" is asked for already, at address 1",
                            "address 3: \"http://\" is no http or https address"));
}

} // namespace
} // namespace Halvex::Fetch
