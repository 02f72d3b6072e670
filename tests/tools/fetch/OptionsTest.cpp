#include "Options.h"

#include "ExitStatus.h"

#include <gmock/gmock.h>

#include <regex>
#include <sstream>

namespace Halvex::Fetch {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

/// With each run of blanks and line ends as one blank.
std::string InOneLine(const std::string& text) {
    return std::regex_replace(text, std::regex("\\s+"), " ");
}

class OptionsTest : public testing::Test {
protected:
    std::variant<Options, int> Parse(std::vector<const char*> arguments) {
        arguments.insert(arguments.begin(), "halvex-fetch");
        out.str({});
        err.str({});
        return ParseOptions(static_cast<int>(arguments.size()), arguments.data(), out, err);
    }

    /// The options of a command line that must be good.
    Options Good(const std::vector<const char*>& arguments) {
        const auto parsed = Parse(arguments);
        const auto* options = std::get_if<Options>(&parsed);
        EXPECT_NE(options, nullptr) << err.str();
        return options != nullptr ? *options : Options{};
    }

    /// What is said of a command line that must be refused.
    std::string Mistake(const std::vector<const char*>& arguments) {
        const auto parsed = Parse(arguments);
        const int* status = std::get_if<int>(&parsed);
        EXPECT_TRUE(status != nullptr && *status == BadInput);
        EXPECT_EQ(out.str(), "");
        return err.str();
    }

    std::ostringstream out;
    std::ostringstream err;
};

TEST_F(OptionsTest, HaveTheirDefaults) {
    const Options options = Good({"m.json"});
    EXPECT_EQ(options.manifest, "m.json");
    EXPECT_EQ(options.output, ".");
    EXPECT_EQ(options.threads, 8U);
    EXPECT_EQ(options.client, Networking::HttpClientType::Native);
    EXPECT_FALSE(options.force);
    EXPECT_EQ(options.progress, Options::Progress::Auto);
    EXPECT_FALSE(options.json);
    EXPECT_EQ(options.offlineMarker, "");
    EXPECT_FALSE(options.source.has_value());
    EXPECT_LT(options.sourceSpeed, 0);
    EXPECT_FALSE(options.trace);
    EXPECT_EQ(options.logLevel, Options::LogLevel::Warning);
}

TEST_F(OptionsTest, AreAllTaken) {
    const Options options =
        Good({"-o",       "out",        "-j",      "16",     "--client",         "qt",
              "--force",  "--progress", "plain",   "--json", "--offline-marker", "off",
              "--source", "src",        "--speed", "100",    "--trace",          "--log-level",
              "error",    "m.json"});
    EXPECT_EQ(options.output, "out");
    EXPECT_EQ(options.threads, 16U);
    EXPECT_EQ(options.client, Networking::HttpClientType::Qt);
    EXPECT_TRUE(options.force);
    EXPECT_EQ(options.progress, Options::Progress::Plain);
    EXPECT_TRUE(options.json);
    EXPECT_EQ(options.offlineMarker, "off");
    EXPECT_EQ(options.source, "src");
    EXPECT_EQ(options.sourceSpeed, 100);
    EXPECT_TRUE(options.trace);
    EXPECT_EQ(options.logLevel, Options::LogLevel::Error);
}

TEST_F(OptionsTest, TakeLongNamesToo) {
    const Options options = Good({"--output=out", "--threads=256", "m.json"});
    EXPECT_EQ(options.output, "out");
    EXPECT_EQ(options.threads, 256U);
}

TEST_F(OptionsTest, TellAddressesFromAManifest) {
    EXPECT_THAT(Good({"http://h/a", "HTTPS://h/b"}).urls, ElementsAre("http://h/a", "HTTPS://h/b"));
    for (const char* other : {"http", "http:/", "ftp://h/a"})
        EXPECT_EQ(Good({other}).manifest, other);
}

TEST_F(OptionsTest, TakeAListAndStandardInput) {
    EXPECT_EQ(Good({"-i", "list.txt"}).list, "list.txt");
    EXPECT_EQ(Good({"-i", "-"}).list, "-");
}

TEST_F(OptionsTest, RefuseThreadCountsOutOfRange) {
    for (const char* count : {"0", "257", "-1", "x", "1.5", ""})
        EXPECT_THAT(Mistake({"-j", count, "m.json"}), HasSubstr("--threads")) << count;
    EXPECT_EQ(Good({"-j", "1", "m.json"}).threads, 1U);
}

TEST_F(OptionsTest, RefuseSpeedsOutOfRangeAndWithoutASource) {
    for (const char* speed : {"0", "-1", "2097152", "x"})
        EXPECT_THAT(Mistake({"--source", "s", "--speed", speed, "m.json"}), HasSubstr("--speed"));
    EXPECT_THAT(Mistake({"--speed", "1", "m.json"}), HasSubstr("--speed requires --source"));
}

TEST_F(OptionsTest, RefuseUnknownWords) {
    EXPECT_THAT(Mistake({"--client", "other", "m.json"}), HasSubstr("--client"));
    EXPECT_THAT(Mistake({"--progress", "loud", "m.json"}), HasSubstr("--progress"));
    EXPECT_THAT(Mistake({"--log-level", "debug", "m.json"}), HasSubstr("--log-level"));
    EXPECT_THAT(Mistake({"--unknown", "m.json"}), HasSubstr("--unknown"));
}

TEST_F(OptionsTest, RefuseEmptyNames) {
    EXPECT_THAT(Mistake({"-o", "", "m.json"}), HasSubstr("must not be empty"));
    EXPECT_THAT(Mistake({"-i", ""}), HasSubstr("must not be empty"));
    EXPECT_THAT(Mistake({""}), HasSubstr("the manifest's name is empty"));
}

TEST_F(OptionsTest, RefuseInputsThatDoNotGoTogether) {
    EXPECT_THAT(Mistake({}), HasSubstr("required"));
    EXPECT_THAT(Mistake({"a.json", "b.json"}), HasSubstr("either one manifest or only addresses"));
    EXPECT_THAT(Mistake({"http://h/a", "b.json"}), HasSubstr("\"b.json\" is no address"));
    EXPECT_THAT(Mistake({"-i", "list", "m.json"}), HasSubstr("cannot be combined"));
}

TEST_F(OptionsTest, TakeAFolderToMakeAManifestOf) {
    const Options options = Good({"--make-manifest", "dir", "--base-url", "http://h"});
    EXPECT_EQ(options.makeManifest, "dir");
    EXPECT_EQ(options.baseUrl, "http://h");
    EXPECT_EQ(Good({"--make-manifest", "dir"}).baseUrl, "");
}

TEST_F(OptionsTest, RefuseToMakeAManifestBesideOtherWork) {
    EXPECT_THAT(Mistake({"--make-manifest", "dir", "m.json"}),
                HasSubstr("--make-manifest cannot be combined with inputs"));
    EXPECT_THAT(Mistake({"--make-manifest", "dir", "-i", "list"}),
                HasSubstr("--make-manifest cannot be combined with inputs"));
    EXPECT_THAT(Mistake({"--make-manifest", ""}), HasSubstr("must not be empty"));
    EXPECT_THAT(Mistake({"--base-url", "http://h", "m.json"}),
                HasSubstr("--base-url requires --make-manifest"));
}

TEST_F(OptionsTest, PrintHelpAndVersion) {
    EXPECT_EQ(std::get<int>(Parse({"--help"})), AllAvailable);
    EXPECT_THAT(out.str(), HasSubstr("--offline-marker"));
    EXPECT_THAT(out.str(), HasSubstr("--make-manifest"));
    EXPECT_EQ(std::get<int>(Parse({"-h"})), AllAvailable);
    EXPECT_EQ(std::get<int>(Parse({"--version"})), AllAvailable);
    EXPECT_THAT(out.str(), testing::MatchesRegex("halvex-fetch [0-9]+\\.[0-9]+\\.[0-9]+\n"));
    EXPECT_EQ(err.str(), "");
}

TEST_F(OptionsTest, SayThatATraceNeedsALog) {
    Parse({"--help"});
    EXPECT_THAT(InOneLine(out.str()),
                HasSubstr("(lowers --log-level to info unless that is none)"));
}

} // namespace
} // namespace Halvex::Fetch
