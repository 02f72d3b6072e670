#include "FetchProcess.h"
#include "support/NginxServer.h"
#include "support/Sanitizers.h"
#include "support/ScriptedHttpServer.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <QtCore/QCryptographicHash>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <sstream>

namespace Halvex::Testing {
namespace {

using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::SizeIs;

constexpr std::chrono::seconds kPromptly(5);

std::string Sha256Of(const std::string& bytes) {
    return QCryptographicHash::hash(QByteArray::fromStdString(bytes), QCryptographicHash::Sha256)
        .toHex()
        .toStdString();
}

std::vector<std::string> LinesOf(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

/// The lines of standard output; never empty, so that a test can look at the last one.
std::vector<json> EventsOf(const FetchProcess::Result& result) {
    std::vector<json> events;
    for (const std::string& line : LinesOf(result.out))
        events.push_back(json::parse(line));
    EXPECT_THAT(events, testing::Not(IsEmpty())) << result.err;
    if (events.empty())
        events.emplace_back();
    return events;
}

json File(const std::string& path) {
    return {{"path", path}};
}

json Bundle(const std::string& name, const std::vector<json>& files) {
    return {{"name", name}, {"files", files}};
}

json StartupBundle(const std::string& name, const std::vector<json>& files) {
    json bundle = Bundle(name, files);
    bundle["startup"] = true;
    return bundle;
}

class HalvexFetch : public testing::Test {
protected:
    std::string WriteManifest(const std::string& baseUrl, const std::vector<json>& bundles) {
        return input.Write("m.json", json{{"baseUrl", baseUrl}, {"bundles", bundles}}.dump(1))
            .string();
    }

    /// Arguments with the output folder before them.
    std::vector<std::string> IntoOutput(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), {"-o", output.Path()});
        return arguments;
    }

    FetchProcess::Result Run(const std::vector<std::string>& arguments,
                             const std::string& standardInput = {}) const {
        FetchProcess::Setup setup;
        setup.arguments = IntoOutput(arguments);
        setup.input = standardInput;
        return FetchProcess(setup).Wait();
    }

    /// Every file in the output folder, with its path there, sorted; temporary ones included.
    std::vector<std::string> OutputFiles() const {
        std::vector<std::string> paths;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(output.Path())) {
            if (entry.is_regular_file())
                paths.push_back(std::filesystem::relative(entry.path(), output.Path()).string());
        }
        std::sort(paths.begin(), paths.end());
        return paths;
    }

    /// Waits until part of a file has arrived under a temporary name.
    bool WaitForTransfer() const {
        return WaitUntil([this] {
            std::error_code gone;
            for (const auto& entry : std::filesystem::directory_iterator(output.Path())) {
                if (entry.file_size(gone) > 0 && !gone)
                    return true;
            }
            return false;
        });
    }

    TemporaryFolder site;
    TemporaryFolder input;
    TemporaryFolder output;
};

/// With a real web server.
class HalvexFetchFromNginx : public HalvexFetch {
protected:
    NginxServer server{ioPath(site.Path())};
};

TEST_F(HalvexFetchFromNginx, DownloadsTheFilesOfAManifest) {
    site.Write("a/b c#1.bin", SomeBytes(300'000));
    site.Write("d", "small");
    const auto result = Run({WriteManifest(server.Url("/"), {Bundle("one", {File("a/b c#1.bin")}),
                                                             StartupBundle("two", {File("d")})})});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    EXPECT_THAT(OutputFiles(), ElementsAre("a/b c#1.bin", "d"));
    EXPECT_EQ(ReadFile(output / "a/b c#1.bin"), SomeBytes(300'000));
    EXPECT_EQ(ReadFile(output / "d"), "small");
}

TEST_F(HalvexFetchFromNginx, WorksWithBothClients) {
    site.Write("a", "content");
    EXPECT_EQ(Run({"--client", "qt", server.Url("/a")}).status, 0);
    EXPECT_EQ(Run({"--client", "native", "--force", server.Url("/a")}).status, 0);
    EXPECT_EQ(ReadFile(output / "a"), "content");
}

TEST_F(HalvexFetchFromNginx, WritesALineForEachFileAndASummary) {
    site.Write("a", std::string(2048, 'a'));
    const auto result = Run({server.Url("/a")});
    EXPECT_THAT(LinesOf(result.out),
                ElementsAre("1/1 a available",
                            MatchesRegex("1 file available; 2.0 KiB downloaded in .* s")));
}

TEST_F(HalvexFetchFromNginx, WritesNothingWhenNoProgressIsWanted) {
    site.Write("a", "content");
    const auto result = Run({"--progress", "none", server.Url("/a")});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out + result.err, "");
}

TEST_F(HalvexFetchFromNginx, EndsWellWithSeveralBundlesWhenNoProgressIsWanted) {
    for (const char* name : {"a", "b", "c"})
        site.Write(name, name);
    const std::string manifest =
        WriteManifest(server.Url("/"), {StartupBundle("first", {File("a")}), Bundle("empty", {}),
                                        Bundle("rest", {File("b"), File("c")})});
    const auto result = Run({"--progress", "none", manifest});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out + result.err, "");
    EXPECT_THAT(OutputFiles(), ElementsAre("a", "b", "c"));
}

TEST_F(HalvexFetchFromNginx, NamesEachFileThatWasGivenUpWhenNoProgressIsWanted) {
    for (const char* name : {"a", "b", "c"})
        site.Write(name, name);
    const std::string manifest =
        WriteManifest(server.Url("/"), {StartupBundle("all", {File("a")}),
                                        Bundle("most", {File("b"), File("missing"), File("c")}),
                                        Bundle("none", {File("lost")}), Bundle("empty", {})});
    const auto result = Run({"--progress", "none", "--log-level", "none", manifest});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "halvex-fetch: missing failed: GeneralError\n"
                          "halvex-fetch: lost failed: GeneralError\n");
    EXPECT_THAT(OutputFiles(), ElementsAre("a", "b", "c"));
}

TEST_F(HalvexFetchFromNginx, FindsEverythingPresentTheSecondTime) {
    site.Write("a", "content");
    site.Write("b", "checked");
    json checked = File("b");
    checked["sha256"] = Sha256Of("checked");
    const std::string manifest =
        WriteManifest(server.Url("/"), {Bundle("one", {File("a"), checked})});
    EXPECT_EQ(Run({manifest}).status, 0);
    ASSERT_TRUE(server.WaitForRequests(2));
    const auto again = Run({"--json", manifest});
    EXPECT_EQ(again.status, 0);
    EXPECT_EQ(EventsOf(again).back()["bytes"], 0);
    EXPECT_EQ(server.AccessLog().size(), 2U);
}

TEST_F(HalvexFetchFromNginx, CountsAPresentFileOfAnySizeWithoutAChecksum) {
    output.Write("a", "present");
    json file = File("a");
    file["size"] = 100;
    EXPECT_EQ(Run({WriteManifest(server.Url("/"), {Bundle("one", {file})})}).status, 0);
    EXPECT_EQ(ReadFile(output / "a"), "present");
}

TEST_F(HalvexFetchFromNginx, DownloadsAgainByForce) {
    site.Write("a", "new");
    output.Write("a", "old");
    EXPECT_EQ(Run({server.Url("/a")}).status, 0);
    EXPECT_EQ(ReadFile(output / "a"), "old");
    EXPECT_EQ(Run({"--force", server.Url("/a")}).status, 0);
    EXPECT_EQ(ReadFile(output / "a"), "new");
}

TEST_F(HalvexFetchFromNginx, ReplacesAPresentFileWithAnotherChecksum) {
    site.Write("a", "new");
    output.Write("a", "old");
    json file = File("a");
    file["sha256"] = Sha256Of("new");
    EXPECT_EQ(Run({WriteManifest(server.Url("/"), {Bundle("one", {file})})}).status, 0);
    EXPECT_EQ(ReadFile(output / "a"), "new");
}

TEST_F(HalvexFetchFromNginx, GivesUpAFileWhoseChecksumIsWrong) {
    site.Write("a", "content");
    json file = File("a");
    file["sha256"] = Sha256Of("other");
    const std::string manifest = WriteManifest(server.Url("/"), {Bundle("one", {file})});
    for (const std::vector<std::string>& how :
         {std::vector<std::string>{}, std::vector<std::string>{"--force"}}) {
        std::vector<std::string> arguments{"--json", manifest};
        arguments.insert(arguments.begin(), how.begin(), how.end());
        const auto result = Run(arguments);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(EventsOf(result).front(), json({{"event", "file"},
                                                  {"bundle", "one"},
                                                  {"path", "a"},
                                                  {"status", "Error"},
                                                  {"error", "Corrupted"}}));
        EXPECT_THAT(result.err, HasSubstr("halvex-fetch: a failed: Corrupted\n"));
        EXPECT_THAT(OutputFiles(), IsEmpty());
    }
}

TEST_F(HalvexFetchFromNginx, NamesEachFileThatWasGivenUp) {
    site.Write("a", "content");
    const auto result = Run({server.Url("/a"), server.Url("/missing")});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("halvex-fetch: missing failed: GeneralError\n"));
    EXPECT_THAT(result.err, testing::Not(HasSubstr("halvex-fetch: a ")));
    EXPECT_THAT(LinesOf(result.out),
                ElementsAre("1/2 a available", "2/2 missing failed: GeneralError",
                            testing::StartsWith("1 file available, 1 failed; ")));
    EXPECT_THAT(OutputFiles(), ElementsAre("a"));
}

TEST_F(HalvexFetchFromNginx, RetriesOnceButNotFilesOfAStartupBundle) {
    EXPECT_EQ(Run({server.Url("/missing")}).status, 1);
    ASSERT_TRUE(server.WaitForRequests(2));
    EXPECT_EQ(Run({WriteManifest(server.Url("/"), {StartupBundle("s", {File("missing")})})}).status,
              1);
    ASSERT_TRUE(server.WaitForRequests(3));
    EXPECT_EQ(server.AccessLog().size(), 3U);
}

TEST_F(HalvexFetchFromNginx, WritesOneJsonEventForEachFileAndNothingElse) {
    site.Write("a", "12345");
    site.Write("x/b", "678");
    const auto result =
        Run({"--json", WriteManifest(server.Url("/"), {StartupBundle("one", {File("a")}),
                                                       Bundle("two", {File("x/b")})})});
    EXPECT_EQ(result.status, 0);
    const auto lines = LinesOf(result.out);
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0], R"({"event":"file","bundle":"one","path":"a",)"
                        R"("status":"Available","error":"NoError"})");
    EXPECT_EQ(lines[1], R"({"event":"file","bundle":"two","path":"x/b",)"
                        R"("status":"Available","error":"NoError"})");
    EXPECT_THAT(lines[2], MatchesRegex("\\{\"event\":\"summary\",\"available\":2,\"failed\":0,"
                                       "\"seconds\":[0-9.e-]+,\"bytes\":8\\}"));
}

TEST_F(HalvexFetchFromNginx, ShowsOtherProgressBesideJsonOnStandardError) {
    site.Write("a", "content");
    const auto result = Run({"--json", "--progress", "plain", server.Url("/a")});
    EXPECT_EQ(LinesOf(result.out).size(), 2U);
    EXPECT_THAT(result.err, testing::StartsWith("1/1 a available\n"));
}

TEST_F(HalvexFetchFromNginx, ServesStartupBundlesFirstAndThenByPriority) {
    json low = Bundle("low", {File("1")});
    low["priority"] = "low";
    json high = Bundle("high", {File("2")});
    high["priority"] = "high";
    for (const char* name : {"1", "2", "3", "4"})
        site.Write(name, name);
    EXPECT_EQ(Run({"-j", "1",
                   WriteManifest(server.Url("/"), {low, Bundle("normal", {File("3")}), high,
                                                   StartupBundle("s", {File("4")})})})
                  .status,
              0);
    ASSERT_TRUE(server.WaitForRequests(4));
    EXPECT_THAT(server.AccessLog(), ElementsAre(HasSubstr("/4 "), HasSubstr("/2 "),
                                                HasSubstr("/3 "), HasSubstr("/1 ")));
}

TEST_F(HalvexFetchFromNginx, ReadsAListFromAFileAndFromStandardInput) {
    site.Write("a", "A");
    site.Write("b", "B");
    const std::string list = server.Url("/a") + "\n" + server.Url("/b") + "\tsub/c\n";
    EXPECT_EQ(Run({"-i", input.Write("list", list).string()}).status, 0);
    EXPECT_THAT(OutputFiles(), ElementsAre("a", "sub/c"));
    EXPECT_EQ(Run({"-i", "-", "--force"}, list).status, 0);
    ASSERT_TRUE(server.WaitForRequests(4));
}

TEST_F(HalvexFetchFromNginx, MakesTheOutputFolder) {
    site.Write("a", "A");
    const std::string folder = (output / "new/folder").string();
    FetchProcess::Setup setup;
    setup.arguments = {"-o", folder, server.Url("/a")};
    EXPECT_EQ(FetchProcess(setup).Wait().status, 0);
    EXPECT_THAT(OutputFiles(), ElementsAre("new/folder/a"));
}

TEST_F(HalvexFetchFromNginx, FailsWhereAFolderOrAFileIsInTheWay) {
    site.Write("a", "A");
    site.Write("b/c", "C");
    std::filesystem::create_directory((output / "a").string());
    output.Write("b", "a file");
    const auto result =
        Run({"--log-level", "none",
             WriteManifest(server.Url("/"), {StartupBundle("s", {File("a"), File("b/c")})})});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "halvex-fetch: a failed: GeneralError\n"
                          "halvex-fetch: b/c failed: GeneralError\n");
    EXPECT_EQ(ReadFile(output / "b"), "a file");
    EXPECT_THAT(OutputFiles(), ElementsAre("b"));
}

TEST_F(HalvexFetchFromNginx, TakesNamesAsLongAsNamesCanBe) {
    const std::string name(255, 'n');
    site.Write(name, "long");
    EXPECT_EQ(Run({server.Url("/" + name)}).status, 0);
    EXPECT_THAT(OutputFiles(), ElementsAre(name));
}

TEST_F(HalvexFetchFromNginx, FetchesTwoThousandFilesWithFewOpenFilesLittleMemoryAndALineForEach) {
    constexpr std::size_t kFiles = 2000;
    // 62 MiB in all: who keeps them in memory does not stay below the limit. The program has 21 MiB
    // at the end of one such file, and 27 MiB at the end of all.
    const std::string content = SomeBytes(std::size_t{32} * 1024);
    constexpr std::int64_t kMostMemory = std::int64_t{48} * 1024 * 1024;
    std::string list;
    for (std::size_t i = 0; i < kFiles; ++i) {
        const std::string name = "file" + std::to_string(i);
        site.Write(name, content);
        list += server.Url("/" + name) + '\n';
    }
    FetchProcess::Setup setup;
    setup.arguments = IntoOutput({"--json", "--progress", "plain", "-i", "-"});
    setup.input = list;
    setup.openFiles = rlimit{64, 64};
    const auto result = FetchProcess(setup).Wait();
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(LinesOf(result.out).size(), kFiles + 1);
    EXPECT_EQ(LinesOf(result.err).size(), kFiles + 1) << "one for each file, and the summary";
    EXPECT_EQ(EventsOf(result).back()["available"], kFiles);
    EXPECT_EQ(OutputFiles().size(), kFiles);
    if (!kSanitized) {
        EXPECT_LT(result.peakBytes, kMostMemory);
    }
}

TEST_F(HalvexFetchFromNginx, IsOfflineWhileTheMarkerExists) {
    site.Write("a", "content");
    const std::string marker = input.Write("offline", "").string();
    const std::string manifest = WriteManifest(server.Url("/"), {StartupBundle("s", {File("a")})});
    const auto offline = Run({"--offline-marker", marker, manifest});
    EXPECT_EQ(offline.status, 1);
    EXPECT_THAT(offline.err, HasSubstr("halvex-fetch: a failed: InternetConnectionLost\n"));
    std::filesystem::remove(marker);
    std::filesystem::remove_all((output / "a").string());
    EXPECT_EQ(Run({"--offline-marker", marker, manifest}).status, 0);
}

TEST_F(HalvexFetchFromNginx, LogsWhatItsLevelSays) {
    site.Write("a", "content");
    const std::string present = server.Url("/a");
    const std::string missing = server.Url("/missing");
    EXPECT_EQ(Run({present}).err, "");
    EXPECT_THAT(Run({"--log-level", "info", "--force", present}).err, HasSubstr("HTTP download="));
    EXPECT_THAT(Run({missing}).err, HasSubstr(" failed with error="));
    EXPECT_EQ(Run({"--log-level", "none", missing}).err,
              "halvex-fetch: missing failed: GeneralError\n");
}

TEST_F(HalvexFetchFromNginx, TracesEverySchedulerEventAtTheDefaultLevel) {
    site.Write("a", "content");
    const std::string trace = Run({"--trace", server.Url("/a")}).err;
    for (const char* event : {"CheckScheduled", " Check", " Download ", "StatusNotification",
                              "/Download ", "/Check", "[files/a]"})
        EXPECT_THAT(trace, HasSubstr(event));
    EXPECT_EQ(Run({"--trace", "--log-level", "none", server.Url("/a")}).err, "");
}

TEST_F(HalvexFetchFromNginx, ListsEveryRefusedPathAndDownloadsNothing) {
    site.Write("good", "content");
    const std::string manifest =
        input
            .Write("bad.json", "{\"baseUrl\": \"" + server.Url("/") +
                                   "\", \"bundles\": [{\"name\": \"b\", \"files\": [\n"
                                   "{\"path\": \"good\"},\n{\"path\": \"/absolute\"},\n"
                                   "{\"path\": \"../out\"},\n{\"path\": \"good\"}]}]}")
            .string();
    FetchProcess::Setup setup;
    setup.arguments = {"-o", (output / "new").string(), manifest};
    const auto result = FetchProcess(setup).Wait();
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(
        LinesOf(result.err),
        ElementsAre(manifest + ":3: path \"/absolute\" is absolute",
                    manifest + ":4: path \"../out\" leads out of the output folder",
                    manifest + ":5: path \"good\" is asked for already, at " + manifest + ":2"));
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(output.List(), "");
    EXPECT_THAT(server.AccessLog(), IsEmpty());
}

TEST_F(HalvexFetchFromNginx, DownloadsByAManifestThatItHasMade) {
    site.Write("a/b c#1.bin", SomeBytes(300'000));
    site.Write("d\"e", "small");
    const auto made = Run({"--make-manifest", site.Path(), "--base-url", server.Url("/")});
    EXPECT_EQ(made.status, 0);
    EXPECT_EQ(made.err, "");
    EXPECT_EQ(output.List(), "") << "nothing is downloaded yet";
    EXPECT_EQ(Run({input.Write("m.json", made.out).string()}).status, 0);
    EXPECT_THAT(OutputFiles(), ElementsAre("a/b c#1.bin", "d\"e"));
    EXPECT_EQ(ReadFile(output / "a/b c#1.bin"), SomeBytes(300'000));
    const json file = json::parse(made.out)["bundles"][0]["files"][1];
    EXPECT_EQ(file["size"], 5);
    EXPECT_EQ(file["sha256"], Sha256Of("small"));
}

TEST_F(HalvexFetch, SaysThatAManifestCannotBeWritten) {
    FetchProcess::Setup toFullDisk;
    toFullDisk.outputPath = "/dev/full";
    toFullDisk.arguments = {"--make-manifest", site.Path()};
    const auto result = FetchProcess(toFullDisk).Wait();
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "halvex-fetch: the manifest cannot be written\n");
}

TEST_F(HalvexFetch, MakesNoManifestOfWhatItCannotRead) {
    site.Write("bad\nname", "x");
    site.Write("good", "x");
    const auto result = Run({"--make-manifest", site.Path()});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "path \"bad\\nname\" has a control character\n");
}

TEST_F(HalvexFetch, RefusesInputThatCannotBeRead) {
    for (const std::string& name : {(input / "missing").string(), input.Path()}) {
        for (const auto& result : {Run({name}), Run({"-i", name})}) {
            EXPECT_EQ(result.status, 2);
            const bool isFolder = name == input.Path();
            EXPECT_EQ(result.err, name + ": cannot be read: " +
                                      (isFolder ? "Is a directory" : "No such file or directory") +
                                      '\n');
        }
    }
    FetchProcess::Setup fromFolder;
    fromFolder.inputPath = input.Path();
    fromFolder.arguments = {"-i", "-"};
    const auto unread = FetchProcess(fromFolder).Wait();
    EXPECT_EQ(unread.status, 2);
    EXPECT_EQ(unread.err, "standard input: cannot be read: Is a directory\n");
    EXPECT_EQ(Run({"-i", "-"}, "no address\n").err,
              "standard input:1: \"no address\" is no http or https address\n");
    EXPECT_EQ(Run({}).status, 2);
}

TEST_F(HalvexFetch, RefusesAnOutputFolderThatCannotBe) {
    FetchProcess::Setup setup;
    setup.arguments = {"-o", output.Write("file", "").string(), "http://127.0.0.1:1/a"};
    const auto result = FetchProcess(setup).Wait();
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.err, HasSubstr(": cannot be the output folder: "));
}

TEST_F(HalvexFetch, EndsAtOnceWhenThereIsNothingToDo) {
    const auto result = Run({"--json", WriteManifest("http://h", {})});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(LinesOf(result.out).size(), 1U);
}

TEST_F(HalvexFetch, TakesFilesFromASourceFolder) {
    site.Write("a/b", SomeBytes(200'000));
    json file = File("a/b");
    file["sha256"] = Sha256Of(SomeBytes(200'000));
    const auto result = Run(
        {"--source", site.Path(), "--speed", "100000", "--json",
         input.Write("m.json", json{{"bundles", std::vector<json>{Bundle("one", {file})}}}.dump())
             .string()});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(ReadFile(output / "a/b"), SomeBytes(200'000));
    EXPECT_EQ(EventsOf(result).back()["bytes"], 200'000);
}

TEST_F(HalvexFetch, GivesUpWhatTheSourceFolderDoesNotHave) {
    const auto result =
        Run({"--source", site.Path(), WriteManifest("http://h", {Bundle("one", {File("a")})})});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("halvex-fetch: a failed: GeneralError\n"));
}

/// Many files at a time, with an HTTP client. May have 64 files open.
class HalvexFetchOfManyAtOnce : public HalvexFetch,
                                public testing::WithParamInterface<const char*> {
protected:
    static constexpr std::size_t kFiles = 60;

    /// The limit that it may raise its own to.
    FetchProcess::Setup WithOpenFiles(rlim_t most) const {
        FetchProcess::Setup setup;
        setup.arguments = IntoOutput({"--client", GetParam(), "-j", std::to_string(kFiles),
                                      "--progress", "none", "-i", "-"});
        for (std::size_t i = 0; i < kFiles; ++i)
            setup.input += server.Url("/a") + '\t' + std::to_string(i) + '\n';
        setup.openFiles = rlimit{64, most};
        return setup;
    }

    ScriptedHttpServer server;
};

INSTANTIATE_TEST_SUITE_P(Clients, HalvexFetchOfManyAtOnce, testing::Values("native", "qt"),
                         [](const auto& client) { return std::string(client.param); });

TEST_P(HalvexFetchOfManyAtOnce, OpensAsManyFilesAsThatTakes) {
    server.On("/a", Reply::Generated(1'000'000).StallAt(500'000));
    FetchProcess process(WithOpenFiles(1024));
    EXPECT_TRUE(server.WaitForRequests("/a", kFiles));
    process.Signal(SIGINT);
    const auto result = process.Wait();
    EXPECT_EQ(result.status, 130);
    EXPECT_THAT(result.err, Not(HasSubstr("errno=")));
    EXPECT_THAT(OutputFiles(), IsEmpty());
}

TEST_P(HalvexFetchOfManyAtOnce, TakesFewerWhereThoseMayNotBeOpen) {
    server.On("/a", Reply::Generated(1'000).Drip(100, std::chrono::milliseconds(10)));
    const auto result = FetchProcess(WithOpenFiles(64)).Wait();
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(LinesOf(result.err), ElementsAre(HasSubstr("10 files at a time, not 60: ")));
    EXPECT_THAT(OutputFiles(), SizeIs(kFiles));
}

/// In the middle of a transfer that would take hours, and stopped by a signal.
class InterruptedHalvexFetch : public HalvexFetch {
protected:
    FetchProcess::Result RunAndSignal(const std::vector<std::string>& arguments, int signal) {
        FetchProcess::Setup setup;
        setup.arguments = IntoOutput(arguments);
        FetchProcess process(setup);
        EXPECT_TRUE(WaitForTransfer());
        process.Signal(signal);
        return process.Wait();
    }

    static Reply SlowReply() {
        return Reply::Generated(1'000'000'000).Drip(10'000, std::chrono::milliseconds(10));
    }

    ScriptedHttpServer server;
};

TEST_F(InterruptedHalvexFetch, EndsPromptlyAndLeavesNoTemporaryFile) {
    server.On("/a", SlowReply());
    for (const int signal : {SIGINT, SIGTERM}) {
        const auto result = RunAndSignal({server.Url("/a")}, signal);
        EXPECT_EQ(result.status, 130);
        EXPECT_LT(result.time, kPromptly);
        EXPECT_THAT(OutputFiles(), IsEmpty());
    }
}

TEST_F(InterruptedHalvexFetch, EndsPromptlyWhenTheServerHasGoneSilent) {
    server.On("/a", Reply::Generated(1'000'000).StallAt(500'000));
    const auto result = RunAndSignal({"--json", server.Url("/a")}, SIGINT);
    EXPECT_EQ(result.status, 130);
    EXPECT_LT(result.time, kPromptly);
    EXPECT_THAT(OutputFiles(), IsEmpty());
    EXPECT_EQ(LinesOf(result.out).size(), 2U);
}

TEST_F(InterruptedHalvexFetch, ReportsEachFileAsItStandsAndTheSummaryLast) {
    server.On("/a", Reply::Ok("12345"));
    server.On("/b", SlowReply());
    server.On("/c", SlowReply());
    json last = Bundle("u", {File("c")});
    last["priority"] = "low";
    const std::string manifest = WriteManifest(
        server.Url("/"), {StartupBundle("s", {File("a")}), Bundle("t", {File("b")}), last});
    FetchProcess::Setup setup;
    setup.arguments = IntoOutput({"-j", "1", "--json", manifest});
    FetchProcess process(setup);
    ASSERT_TRUE(server.WaitForRequests("/b"));
    process.Signal(SIGTERM);
    const auto result = process.Wait();
    const auto lines = LinesOf(result.out);
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(json::parse(lines[0])["status"], "Available");
    EXPECT_EQ(json::parse(lines[1])["error"], "Cancelled");
    EXPECT_EQ(json::parse(lines[2])["status"], "Waiting");
    const json summary = json::parse(lines[3]);
    EXPECT_EQ(summary["available"], 1);
    EXPECT_EQ(summary["failed"], 2);
    EXPECT_EQ(summary["bytes"], 5);
    EXPECT_EQ(server.RequestCount("/c"), 0U);
    EXPECT_THAT(result.err, testing::Not(HasSubstr("halvex-fetch: ")));
}

TEST_F(InterruptedHalvexFetch, EndsPromptlyWhileItWaitsBeforeARetry) {
    std::vector<std::string> urls;
    for (const char* path : {"/1", "/2", "/3", "/4", "/5"})
        urls.push_back(server.Url(path));
    FetchProcess::Setup setup;
    setup.arguments = IntoOutput(urls);
    FetchProcess process(setup);
    // Three are retried without a pause, the fourth only after it.
    ASSERT_TRUE(WaitUntil([&] { return server.Requests().size() == 8; }));
    process.Signal(SIGINT);
    const auto result = process.Wait();
    EXPECT_EQ(result.status, 130);
    EXPECT_LT(result.time, kPromptly);
    EXPECT_EQ(server.Requests().size(), 8U);
}

TEST_F(InterruptedHalvexFetch, InterruptsACopyFromASourceFolder) {
    site.Write("a", std::string(100'000'000, 'a'));
    const auto result = RunAndSignal({"--source", site.Path(), "--speed", "100",
                                      WriteManifest("http://h", {Bundle("b", {File("a")})})},
                                     SIGINT);
    EXPECT_EQ(result.status, 130);
    EXPECT_LT(result.time, kPromptly);
    EXPECT_THAT(OutputFiles(), IsEmpty());
}

TEST_F(InterruptedHalvexFetch, KeepsPresentFilesThatItHadNoTimeToCheck) {
    server.On("/a", SlowReply());
    output.Write("sub/b", "present");
    json file = File("sub/b");
    file["sha256"] = Sha256Of("other");
    json later = Bundle("later", {file});
    later["priority"] = "low";
    const std::string manifest =
        WriteManifest(server.Url("/"), {Bundle("first", {File("a")}), later});
    EXPECT_EQ(RunAndSignal({"-j", "1", manifest}, SIGINT).status, 130);
    EXPECT_THAT(OutputFiles(), ElementsAre("sub/b"));
}

} // namespace
} // namespace Halvex::Testing
