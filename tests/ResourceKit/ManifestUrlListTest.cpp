#include "ResourceKit/Manifest.h"

#include <gmock/gmock.h>

namespace Halvex::Kit {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

ManifestResult Read(const std::string& list) {
    return Manifest::ParseUrlList(list, "l", {});
}

std::vector<std::string> LocalPaths(const ManifestResult& result) {
    EXPECT_THAT(result.mistakes, IsEmpty());
    std::vector<std::string> paths;
    if (result.manifest) {
        for (const Manifest::File& file : result.manifest->Files())
            paths.push_back(file.descriptor.localPath.string());
    }
    return paths;
}

TEST(UrlList, NamesFilesByTheirAddressesOrByWhatStandsBehindATab) {
    const ManifestResult result = Read("http://h/a%20b?c\nhttp://h/x\td/e.bin\n");
    ASSERT_THAT(LocalPaths(result), ElementsAre("a b", "d/e.bin"));
    EXPECT_EQ(result.manifest->Files()[0].descriptor.relativePath, "http://h/a%20b?c");
    EXPECT_EQ(result.manifest->Files()[0].descriptor.baseUrl, "");
}

TEST(UrlList, PutsAllFilesIntoOneBundle) {
    const ManifestResult result = Read("http://h/a\nhttp://h/b");
    ASSERT_EQ(result.manifest->Bundles().size(), 1U);
    EXPECT_EQ(result.manifest->Bundles()[0].name, "files");
    EXPECT_EQ(result.manifest->Bundles()[0].descriptors.descriptors.size(), 2U);
}

TEST(UrlList, SkipsEmptyLinesAndTakesBothLineEnds) {
    EXPECT_THAT(LocalPaths(Read("\r\nhttp://h/a\r\n\nhttp://h/b")), ElementsAre("a", "b"));
}

TEST(UrlList, ListsEveryMistakeWithItsLine) {
    EXPECT_THAT(Read("no\n\nhttp://h/a\nhttp://h/\nhttp://h/b\t../x\nhttp://g/a\n"
                     "http://h/c\t\nhttp://h/d\te\tf\n")
                    .mistakes,
                ElementsAre("l:1: \"no\" is no http or https address",
                            "l:4: \"http://h/\" has no name for its file",
                            "l:5: path \"../x\" leads out of the output folder",
                            "l:6: path \"a\" is asked for already, at l:3",
                            "l:7: \"http://h/c\" has no name for its file",
                            "l:8: path \"e\\tf\" has a control character"));
}

TEST(UrlList, NumbersAddressesGivenAsArguments) {
    EXPECT_THAT(LocalPaths(Manifest::FromUrls({"http://h/a", "http://h/b"}, {})),
                ElementsAre("a", "b"));
    EXPECT_THAT(Manifest::FromUrls({"http://h/a", "http://h/x/a", "http://"}, {}).mistakes,
                ElementsAre("address 2: path \"a\" is asked for already, at address 1",
                            "address 3: \"http://\" is no http or https address"));
}

} // namespace
} // namespace Halvex::Kit
