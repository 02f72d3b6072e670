#include "ResourceKit/PostProcessorUnpack.h"

#include "ArchiveWriter.h"
#include "DiskCalls.h"
#include "FolderTree.h"
#include "ResourceDownloadManager/IRemoteResource.h"
#include "ResourceDownloadManager/IRemoteResourceScheduler.h"
#include "ResourceDownloadManager/IValidator.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "ResourceDownloadManager/ResourceDownloadManager.h"
#include "ResourceKit/Testing/ScriptedDownloader.h"
#include "support/FileSizeLimit.h"
#include "support/LogCapture.h"
#include "support/TemporaryFolder.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <iomanip>
#include <memory>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Halvex::Kit {
namespace {

using Halvex::Testing::ArchiveWriter;
using Halvex::Testing::DiskCalls;
using Halvex::Testing::FileSizeLimit;
using Halvex::Testing::FolderTree;
using Halvex::Testing::LogCapture;
using Halvex::Testing::ReadFile;
using Halvex::Testing::SomeBytes;
using Halvex::Testing::TemporaryFolder;
using testing::Each;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::SizeIs;

class PostProcessorUnpackTest : public testing::Test {
protected:
    PostProcessorUnpackTest() { m_descriptor.downloadPath = m_downloads / "archive"; }

    std::int32_t Unpack() {
        PostProcessorUnpack processor(
            [this](const App::ResourceDescriptor& descriptor) {
                EXPECT_EQ(&descriptor, &m_descriptor);
                return m_target;
            },
            m_limits, m_stop);
        return processor.Process(&m_descriptor);
    }
    /// Unpacks what is refused for this reason, and nothing has changed.
    void ExpectRefused(const std::string& reason) {
        const std::string before = FolderTree(m_folder.Path());
        const LogCapture log;
        EXPECT_EQ(Unpack(), 1);
        EXPECT_THAT(log.Errors(),
                    ElementsAre("cannot unpack " + m_descriptor.downloadPath.string() + " to " +
                                m_target->folder.string() + ": " + reason));
        EXPECT_EQ(FolderTree(m_folder.Path()), before);
    }
    /// A tar, which can hold anything.
    ArchiveWriter Tar() const { return {m_descriptor.downloadPath, "pax"}; }
    ArchiveWriter Zip() const { return {m_descriptor.downloadPath, "zip"}; }
    ioPath InTarget(const std::string& name) const { return m_folder / ("target/" + name); }
    mode_t Permissions(const std::string& name) const {
        struct stat status {};
        EXPECT_EQ(::lstat(InTarget(name).string().c_str(), &status), 0);
        return status.st_mode & 07777;
    }

    const TemporaryFolder m_downloads;
    /// Holds the target and what is made beside it.
    const TemporaryFolder m_folder;
    App::ResourceDescriptor m_descriptor;
    std::optional<PostProcessorUnpack::Target> m_target{{m_folder / "target", {}}};
    PostProcessorUnpack::Limits m_limits;
    StopQuery m_stop;
};

struct Packing {
    std::string format;
    std::string compression;
};

class PostProcessorUnpackFormat : public PostProcessorUnpackTest,
                                  public testing::WithParamInterface<Packing> {};

std::string NameOfPacking(const testing::TestParamInfo<Packing>& packing) {
    return packing.param.format + packing.param.compression;
}

INSTANTIATE_TEST_SUITE_P(All, PostProcessorUnpackFormat,
                         testing::Values(Packing{"zip", ""}, Packing{"pax", ""},
                                         Packing{"gnutar", ""}, Packing{"pax", "gzip"},
                                         Packing{"pax", "bzip2"}, Packing{"pax", "xz"},
                                         Packing{"pax", "zstd"}),
                         NameOfPacking);

TEST_P(PostProcessorUnpackFormat, IsUnpacked) {
    const std::string large = SomeBytes(1'000'000);
    ArchiveWriter(m_descriptor.downloadPath, GetParam().format, GetParam().compression)
        .Folder("empty/")
        .File("a/b/file", "content")
        .File("large", large)
        .Link("a/link", "../large");
    EXPECT_EQ(Unpack(), 0);
    EXPECT_EQ(ReadFile(InTarget("large")), large);
    std::filesystem::remove(InTarget("large").string());
    EXPECT_EQ(FolderTree(m_folder.Path()),
              "target/ target/a/ target/a/b/ target/a/b/file=content target/a/link->../large "
              "target/empty/");
}

TEST_P(PostProcessorUnpackFormat, IsRefusedWhenItIsCut) {
    m_folder.Write("target/old", "old");
    ArchiveWriter(m_descriptor.downloadPath, GetParam().format, GetParam().compression)
        .File("one", SomeBytes(3000, 1))
        .File("two", SomeBytes(3000, 2));
    const std::string whole = ReadFile(m_descriptor.downloadPath);
    // A tar that ends between two entries is a whole one to everybody.
    const bool isPlainTar = GetParam().format != "zip" && GetParam().compression.empty();
    const std::size_t last = isPlainTar ? 3000 : whole.size() - 1;
    for (std::size_t size = 0; size <= last; size += 97) {
        SCOPED_TRACE(size);
        m_downloads.Write("archive", whole.substr(0, size));
        EXPECT_EQ(Unpack(), 1);
        EXPECT_EQ(FolderTree(m_folder.Path()), "target/ target/old=old");
    }
}

TEST_F(PostProcessorUnpackTest, TakesWhatOtherProgramsPack) {
    const TemporaryFolder packed;
    packed.Write("a/b/file", "content");
    packed.Write("large", SomeBytes(300'000));
    std::filesystem::permissions((packed / "large").string(), std::filesystem::perms(0600));
    const std::string archive = m_descriptor.downloadPath.string();
    for (const std::string& command :
         {"tar cf " + archive + " .", "tar czf " + archive + " a large",
          "tar --format=pax -cf " + archive + " ./a ./large",
          "python3 -m zipfile -c " + archive + " a large"}) {
        SCOPED_TRACE(command);
        ASSERT_EQ(std::system(("cd " + packed.Path() + " && " + command).c_str()), 0);
        EXPECT_EQ(Unpack(), 0);
        EXPECT_TRUE(FolderTree(m_folder / "target") == FolderTree(packed.Path()));
    }
}

TEST_F(PostProcessorUnpackTest, LeavesAloneWhatHasNoTarget) {
    m_target.reset();
    m_downloads.Write("archive", "no archive");
    EXPECT_EQ(Unpack(), 0);
    EXPECT_EQ(ReadFile(m_descriptor.downloadPath), "no archive");
}

TEST_F(PostProcessorUnpackTest, KeepsTheArchive) {
    Zip().File("file", "content");
    const std::string whole = ReadFile(m_descriptor.downloadPath);
    EXPECT_EQ(Unpack(), 0);
    EXPECT_EQ(ReadFile(m_descriptor.downloadPath), whole);
}

TEST_F(PostProcessorUnpackTest, ReplacesTheFolderAsAWhole) {
    m_folder.Write("target/old/file", "old");
    m_folder.Write("target/both", "old");
    m_folder.Write("beside", "stays");
    Zip().File("both", "new").File("new", "new");
    EXPECT_EQ(Unpack(), 0);
    EXPECT_EQ(FolderTree(m_folder.Path()), "beside=stays target/ target/both=new target/new=new");
}

TEST_F(PostProcessorUnpackTest, MakesAnEmptyFolderOfAnEmptyArchive) {
    m_folder.Write("target/old", "old");
    Tar();
    EXPECT_EQ(Unpack(), 0);
    EXPECT_EQ(FolderTree(m_folder.Path()), "target/");
}

TEST_F(PostProcessorUnpackTest, TakesTheLastOfSeveralEntriesOfOnePath) {
    Tar().File("file", "first").Link("link", "file").File("file", "last").File("link", "no link");
    EXPECT_EQ(Unpack(), 0);
    EXPECT_EQ(FolderTree(m_folder / "target"), "file=last link=no link");
}

TEST_F(PostProcessorUnpackTest, TakesPathsWithPartsThatMeanNothing) {
    Tar().Folder("./").File("./a//./file", "content").Folder("a/");
    EXPECT_EQ(Unpack(), 0);
    EXPECT_EQ(FolderTree(m_folder / "target"), "a/ a/file=content");
}

TEST_F(PostProcessorUnpackTest, TakesNamesOutsideOfAsciiWhateverTheLocale) {
    for (const std::string format : {"zip", "pax"}) {
        const std::string options = format == "zip" ? "zip:hdrcharset=UTF-8" : "";
        const locale_t utf8 = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
        const locale_t before = ::uselocale(utf8);
        ArchiveWriter(m_descriptor.downloadPath, format, "", options)
            .File("Größe/日本", "content")
            .Link("Länge", "Größe");
        ::uselocale(before);
        ::freelocale(utf8);
        EXPECT_EQ(Unpack(), 0);
        EXPECT_EQ(FolderTree(m_folder / "target"), "Größe/ Größe/日本=content Länge->Größe");
    }
}

TEST_F(PostProcessorUnpackTest, TakesTheTargetWithASlashAtItsEnd) {
    m_target->folder = m_folder / "target//";
    Zip().File("file", "content");
    EXPECT_EQ(Unpack(), 0);
    EXPECT_EQ(FolderTree(m_folder.Path()), "target/ target/file=content");
}

TEST_F(PostProcessorUnpackTest, TakesATargetRelativeToTheCurrentFolder) {
    const std::string before = std::filesystem::current_path().string();
    std::filesystem::current_path(m_folder.Path());
    Zip().File("file", "content");
    for (const char* folder : {"target", "./target", "../target"}) {
        std::filesystem::create_directories("below");
        if (folder[1] == '.')
            std::filesystem::current_path("below");
        m_target->folder = folder;
        EXPECT_EQ(Unpack(), 0);
    }
    std::filesystem::current_path(before);
    EXPECT_EQ(FolderTree(m_folder.Path()), "below/ target/ target/file=content");
}

TEST_F(PostProcessorUnpackTest, HasNoUseForATargetWithoutAName) {
    Zip().File("file", "content");
    for (const std::string& folder :
         {std::string(), std::string("/"), m_folder.Path() + "/.", m_folder.Path() + "/..",
          m_folder.Path() + std::string("/a\0b", 4)}) {
        m_target->folder = folder;
        const LogCapture log;
        EXPECT_EQ(Unpack(), 1);
        EXPECT_THAT(log.Errors(), ElementsAre(EndsWith("the target folder has no usable name")));
    }
    EXPECT_EQ(FolderTree(m_folder.Path()), "");
}

TEST_F(PostProcessorUnpackTest, RefusesATargetThatIsNoFolder) {
    Zip().File("file", "content");
    m_folder.Write("target", "a file");
    ExpectRefused("the target is no folder");
    std::filesystem::remove((m_folder / "target").string());
    m_folder.Write("elsewhere/file", "old");
    std::filesystem::create_symlink("elsewhere", (m_folder / "target").string());
    ExpectRefused("the target is no folder");
}

TEST_F(PostProcessorUnpackTest, RefusesATargetInAFolderThatIsMissing) {
    Zip().File("file", "content");
    m_target->folder = m_folder / "missing/target";
    ExpectRefused("the target's parent folder cannot be opened: No such file or directory");
}

TEST_F(PostProcessorUnpackTest, ComparesTheArchiveFirst) {
    m_folder.Write("target/old", "old");
    Zip().File("file", "content");
    m_target->archive.size = 1;
    ExpectRefused("long: " + std::to_string(ReadFile(m_descriptor.downloadPath).size()) +
                  " bytes instead of 1");
    m_target->archive = {std::nullopt, *Sha256OfFile(m_descriptor.downloadPath)};
    EXPECT_EQ(Unpack(), 0);
    EXPECT_EQ(FolderTree(m_folder / "target"), "file=content");
}

TEST_F(PostProcessorUnpackTest, RefusesWhatIsMissingOrNoArchive) {
    m_folder.Write("target/old", "old");
    ExpectRefused("missing");
    m_downloads.Write("archive", "");
    ExpectRefused("Unrecognized archive format");
    m_downloads.Write("archive", SomeBytes(100'000));
    ExpectRefused("Unrecognized archive format");
}

TEST_F(PostProcessorUnpackTest, RefusesPathsThatLeadOutside) {
    m_folder.Write("target/old", "old");
    Tar().File("first", "").File("/absolute", "evil");
    ExpectRefused("entry \"/absolute\": its path is absolute");
    Tar().File("first", "").File("../evil", "evil");
    ExpectRefused("entry \"../evil\": its path has \"..\"");
    Tar().File("a/../../evil", "evil");
    ExpectRefused("entry \"a/../../evil\": its path has \"..\"");
    Zip().Folder("a/../..");
    ExpectRefused("entry \"a/../../\": its path has \"..\"");
    Tar().File(".", "evil");
    ExpectRefused("entry \".\": it has no name");
}

TEST_F(PostProcessorUnpackTest, RefusesLinksThatLeadOutside) {
    m_folder.Write("target/old", "old");
    Tar().Link("a/link", "/etc");
    ExpectRefused("entry \"a/link\": it is a link to an absolute path");
    for (const std::string target : {"../..", "../../target/old", "./../../x"}) {
        Tar().Link("a/link", target);
        ExpectRefused("entry \"a/link\": it is a link that leads, or may lead, outside");
    }
    Zip().Link("link", "..");
    ExpectRefused("entry \"link\": it is a link that leads, or may lead, outside");
}

TEST_F(PostProcessorUnpackTest, RefusesChainsOfLinksThatLeadOutside) {
    m_folder.Write("target/old", "old");
    // Each looks harmless by itself: b/up is the folder itself, and out a folder above that.
    Tar().Link("b/up", "..").Link("out", "b/up/..");
    ExpectRefused("entry \"out\": it is a link that leads, or may lead, outside");
    Tar().Link("a/b/top", "../..").Link("a/b/out", "top/..");
    ExpectRefused("entry \"a/b/out\": it is a link that leads, or may lead, outside");
    Tar().Link("out", "b/up/..").Link("b/up", "..");
    ExpectRefused("entry \"out\": it is a link that leads, or may lead, outside");
}

TEST_F(PostProcessorUnpackTest, RefusesPathsThatLeadThroughALink) {
    m_folder.Write("target/old", "old");
    Tar().Folder("a").Link("link", "a").File("link/file", "evil");
    ExpectRefused("entry \"link/file\": its path leads through something that is no folder");
    Tar().Folder("a").Link("link", "a").Folder("link");
    ExpectRefused("entry \"link/\": its path leads through something that is no folder");
    Tar().File("file", "").File("file/below", "evil");
    ExpectRefused("entry \"file/below\": its path leads through something that is no folder");
}

TEST_F(PostProcessorUnpackTest, KeepsLinksThatStayInside) {
    Tar()
        .File("a/b/file", "content")
        .Link("a/b/up", "../..")
        .Link("a/b/across", ".././../c/./d")
        .Link("c/d", "e/dangling")
        .Link("loop", "loop");
    EXPECT_EQ(Unpack(), 0);
    EXPECT_EQ(FolderTree(m_folder / "target"), "a/ a/b/ a/b/across->.././../c/./d a/b/file=content "
                                               "a/b/up->../.. c/ c/d->e/dangling loop->loop");
}

TEST_F(PostProcessorUnpackTest, KeepsHardLinksToFilesBeforeThem) {
    Tar().File("a/file", "content").HardLink("b/link", "a/file");
    EXPECT_EQ(Unpack(), 0);
    EXPECT_EQ(FolderTree(m_folder / "target"), "a/ a/file=content b/ b/link=content");
    EXPECT_TRUE(
        std::filesystem::equivalent(InTarget("a/file").string(), InTarget("b/link").string()));
}

TEST_F(PostProcessorUnpackTest, RefusesHardLinksToAnythingElse) {
    m_folder.Write("target/old", "old");
    const std::string outside = m_downloads.Write("outside", "secret").string();
    Tar().HardLink("link", outside);
    ExpectRefused("entry \"link\": as a link, its path is absolute");
    Tar().HardLink("a/link", "../outside");
    ExpectRefused("entry \"a/link\": as a link, its path has \"..\"");
    for (const std::string target : {"later", "folder", "folder/missing", "missing/file", "."}) {
        Tar().Folder("folder").HardLink("link", target).File("later", "content");
        ExpectRefused("entry \"link\": it is a link to what is no file");
    }
    // A link that leads up from deep inside would lead outside from further up.
    Tar().Link("a/b/up", "../..").HardLink("up", "a/b/up");
    ExpectRefused("entry \"up\": it is a link to what is no file");
    Tar().File("a/file", "").Link("way", "a").HardLink("link", "way/file");
    ExpectRefused("entry \"link\": it is a link to what is no file");
}

TEST_F(PostProcessorUnpackTest, RefusesWhatIsNeitherFileNorFolderNorLink) {
    m_folder.Write("target/old", "old");
    for (const unsigned type : {AE_IFCHR, AE_IFBLK, AE_IFIFO}) {
        Tar().Special("special", type);
        ExpectRefused("entry \"special\": it is neither a file nor a folder nor a link");
    }
}

TEST_F(PostProcessorUnpackTest, RefusesAFileAtThePlaceOfAFolder) {
    Tar().Folder("a").File("a", "content");
    ExpectRefused("entry \"a\": a folder is at its place");
}

TEST_F(PostProcessorUnpackTest, RefusesWhatIsEncrypted) {
    ArchiveWriter(m_descriptor.downloadPath, "zip", "", "zip:encryption=aes256")
        .File("file", "content");
    ExpectRefused("entry \"file\": it is encrypted");
}

TEST_F(PostProcessorUnpackTest, RefusesABodyThatIsNotWhatItsSumSays) {
    ArchiveWriter(m_descriptor.downloadPath, "zip", "", "zip:compression=store")
        .File("file", "content");
    std::string bytes = ReadFile(m_descriptor.downloadPath);
    bytes.replace(bytes.find("content"), 7, "CONTENT");
    m_downloads.Write("archive", bytes);
    const LogCapture log;
    EXPECT_EQ(Unpack(), 1);
    EXPECT_THAT(log.Errors(), ElementsAre(HasSubstr("entry \"file\": ZIP bad CRC")));
    EXPECT_EQ(FolderTree(m_folder.Path()), "");
}

TEST_F(PostProcessorUnpackTest, RefusesMoreBytesThanAllowed) {
    Tar().File("a", SomeBytes(600)).File("b", SomeBytes(400));
    m_limits.bytes = 1000;
    EXPECT_EQ(Unpack(), 0);
    m_limits.bytes = 999;
    const LogCapture log;
    EXPECT_EQ(Unpack(), 1);
    EXPECT_THAT(log.Errors(), ElementsAre(EndsWith("entry \"b\": there are more than 999 bytes")));
}

TEST_F(PostProcessorUnpackTest, StopsAtTheLimitHoweverSmallTheArchiveIs) {
    constexpr std::size_t kSize = 50'000'000;
    ArchiveWriter(m_descriptor.downloadPath, "zip").File("bomb", std::string(kSize, '\0'));
    EXPECT_LT(ReadFile(m_descriptor.downloadPath).size(), kSize / 100);
    m_limits.bytes = 10'000'000;
    // Were more than that written, the error would be another one.
    const FileSizeLimit limit(m_limits.bytes);
    ExpectRefused("entry \"bomb\": there are more than 10000000 bytes");
}

TEST_F(PostProcessorUnpackTest, CountsHolesAsBytes) {
    Tar().Hole("hole", 1'000'000);
    m_limits.bytes = 1'000'000;
    EXPECT_EQ(Unpack(), 0);
    EXPECT_EQ(std::filesystem::file_size(InTarget("hole").string()), 1'000'000U);
    m_limits.bytes = 999'999;
    EXPECT_EQ(Unpack(), 1);
}

TEST_F(PostProcessorUnpackTest, RefusesMoreEntriesThanAllowed) {
    Tar().File("a/b/file", "").Link("link", "a").Folder("c");
    m_limits.entries = 5;
    EXPECT_EQ(Unpack(), 0);
    m_limits.entries = 4;
    const LogCapture log;
    EXPECT_EQ(Unpack(), 1);
    EXPECT_THAT(log.Errors(), ElementsAre(EndsWith("entry \"c/\": there are more than 4 entries")));
}

// They could be without end in a small archive, and each takes its time.
TEST_F(PostProcessorUnpackTest, CountsAFolderAsOftenAsTheArchiveHasIt) {
    Tar().Folder("./").Folder("a/").Folder("a/").Folder("a/b/").File("a/b/file", "");
    m_limits.entries = 5;
    EXPECT_EQ(Unpack(), 0);
    m_limits.entries = 4;
    const LogCapture log;
    EXPECT_EQ(Unpack(), 1);
    EXPECT_THAT(log.Errors(),
                ElementsAre(EndsWith("entry \"a/b/file\": there are more than 4 entries")));
}

TEST_F(PostProcessorUnpackTest, RefusesPathsThatAreTooDeep) {
    std::string path = "file";
    for (int i = 1; i < 100; ++i)
        path.insert(0, "a/");
    Tar().File(path, "content");
    EXPECT_EQ(Unpack(), 0);
    Tar().File("a/" + path, "content");
    const LogCapture log;
    EXPECT_EQ(Unpack(), 1);
    EXPECT_THAT(log.Errors(), ElementsAre(EndsWith("its path is more than 100 folders deep")));
}

TEST_F(PostProcessorUnpackTest, GivesFilesTheirPermissionsAsFarAsTheUmaskAllows) {
    const mode_t before = ::umask(027);
    Tar()
        .File("program", "", 0755)
        .File("readable", "", 0444)
        .File("closed", "", 0)
        .File("privileged", "", 07777)
        .File("folder/file", "");
    EXPECT_EQ(Unpack(), 0);
    ::umask(before);
    EXPECT_EQ(Permissions("program"), 0750U);
    EXPECT_EQ(Permissions("readable"), 0640U);
    EXPECT_EQ(Permissions("closed"), 0600U);
    EXPECT_EQ(Permissions("privileged"), 0750U);
    EXPECT_EQ(Permissions("folder"), 0750U);
    EXPECT_EQ(Permissions(""), 0750U);
}

TEST_F(PostProcessorUnpackTest, KeepsAnyTextOfAnArchiveInOneLogLine) {
    Tar().File("a\nb\x1b[31m/../x", "");
    const LogCapture log;
    EXPECT_EQ(Unpack(), 1);
    EXPECT_THAT(log.Errors(),
                ElementsAre(EndsWith(": entry \"a?b?[31m/../x\": its path has \"..\"")));
}

// As pax can have it: skipping it would take as long as the archive says, whatever the limits.
TEST_F(PostProcessorUnpackTest, RefusesAHardLinkThatHasContent) {
    m_folder.Write("target/old", "old");
    const auto header = [](std::string name, char type, const std::string& size,
                           const std::string& link) {
        std::string block(512, '\0');
        const auto put = [&block](std::size_t position, const std::string& text) {
            block.replace(position, text.size(), text);
        };
        put(0, name);
        put(100, "0000644");
        put(124, size);
        put(148, "        ");
        put(156, std::string(1, type));
        put(157, link);
        put(257, std::string("ustar\00000", 8));
        unsigned sum = 0;
        for (const char character : block)
            sum += static_cast<unsigned char>(character);
        std::ostringstream octal;
        octal << std::oct << std::setw(6) << std::setfill('0') << sum;
        put(148, octal.str() + std::string("\0 ", 2));
        return block;
    };
    const auto padded = [](std::string text) {
        text.resize((text.size() + 511) / 512 * 512);
        return text;
    };
    m_downloads.Write("archive", header("extension", 'x', "00000000014", "") +
                                     padded("12 size=512\n") + header("a", '0', "00000000001", "") +
                                     padded("A") + header("extension", 'x', "00000000014", "") +
                                     padded("12 size=512\n") +
                                     header("b", '1', "00000000000", "a") + padded("B") +
                                     std::string(1024, '\0'));
    ExpectRefused("entry \"b\": it has content, and is no file");
}

TEST_F(PostProcessorUnpackTest, FailsWhenItCannotWrite) {
    m_folder.Write("target/old", "old");
    Tar().File("small", "content").File("large", SomeBytes(100'000));
    const FileSizeLimit limit(50'000);
    ExpectRefused("entry \"large\": it cannot be written: File too large");
}

TEST_F(PostProcessorUnpackTest, UnpacksWhatItHasCheckedWhateverIsDownloadedMeanwhile) {
    ArchiveWriter(m_downloads / "other", "pax").File("file", "other");
    Tar().File("file", "content");
    m_target->archive.sha256 = *Sha256OfFile(m_descriptor.downloadPath);
    bool comes = true;
    m_stop = [&] {
        if (std::exchange(comes, false))
            ioPath::rename(m_downloads / "other", m_descriptor.downloadPath);
        return false;
    };
    EXPECT_EQ(Unpack(), 0);
    EXPECT_FALSE(comes);
    EXPECT_EQ(FolderTree(m_folder.Path()), "target/ target/file=content");
}

TEST_F(PostProcessorUnpackTest, StopsWhenItIsToldTo) {
    m_folder.Write("target/old", "old");
    Tar().File("one", "content").File("two", SomeBytes(1'000'000));
    int questions = 0;
    m_stop = [&] {
        return ++questions == 5;
    };
    ExpectRefused("entry \"two\": it has been told to stop");
    EXPECT_EQ(questions, 5);
}

TEST_F(PostProcessorUnpackTest, StopsBetweenEntriesWithoutContent) {
    m_folder.Write("target/old", "old");
    Tar().Folder("a/").Link("a/link", "b").Folder("b/");
    int questions = 0;
    m_stop = [&] {
        return ++questions == 3;
    };
    ExpectRefused("it has been told to stop");
    EXPECT_EQ(questions, 3);
}

TEST_F(PostProcessorUnpackTest, RemovesWhatACrashHasLeft) {
    m_folder.Write(".target.unpack-abc123/a/file", "left");
    m_folder.Write(".target.unpack-def456/file", "left");
    m_folder.Write(".target.unpack-old-abc123/file", "left");
    m_folder.Write("target/old", "old");
    Zip().File("file", "content");
    EXPECT_EQ(Unpack(), 0);
    EXPECT_EQ(FolderTree(m_folder.Path()), "target/ target/file=content");
}

TEST_F(PostProcessorUnpackTest, PutsAnOldFolderBackThatACrashHasLeftAside) {
    m_folder.Write(".target.unpack-old-abc123/old", "old");
    m_folder.Write(".target.unpack-abc123/half", "half");
    Tar().File("../file", "content");
    EXPECT_EQ(Unpack(), 1);
    EXPECT_EQ(FolderTree(m_folder.Path()), "target/ target/old=old");
    Zip().File("file", "content");
    EXPECT_EQ(Unpack(), 0);
    EXPECT_EQ(FolderTree(m_folder.Path()), "target/ target/file=content");
}

TEST_F(PostProcessorUnpackTest, LeavesAnOldFolderAsideThatSomebodyIsReplacing) {
    m_folder.Write(".target.unpack-old-abc123/old", "old");
    const int user = ::open((m_folder / ".target.unpack-old-abc123").string().c_str(),
                            O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(::flock(user, LOCK_EX), 0);
    Tar().File("../file", "content");
    EXPECT_EQ(Unpack(), 1);
    EXPECT_EQ(FolderTree(m_folder.Path()),
              ".target.unpack-old-abc123/ .target.unpack-old-abc123/old=old");
    ::close(user);
}

TEST_F(PostProcessorUnpackTest, RemovesNothingOfOthers) {
    m_folder.Write(".other.unpack-abc123/file", "other");
    m_folder.Write(".target.unpack-abc1234/file", "longer");
    m_folder.Write(".target.unpack-abc12/file", "shorter");
    m_folder.Write(".target.unpack-Backup/file", "other letters");
    m_folder.Write(".target.unpack-afile1", "a file");
    m_folder.Write(".target.unpack-inuse1/file", "in use");
    m_folder.Write("elsewhere/file", "linked");
    std::filesystem::create_symlink("elsewhere", (m_folder / ".target.unpack-alink1").string());
    const int user = ::open((m_folder / ".target.unpack-inuse1").string().c_str(),
                            O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(::flock(user, LOCK_EX), 0);
    const std::string before = FolderTree(m_folder.Path());
    Zip().File("file", "content");
    EXPECT_EQ(Unpack(), 0);
    EXPECT_EQ(FolderTree(m_folder.Path()), before + " target/ target/file=content");
    ::close(user);
}

TEST_F(PostProcessorUnpackTest, LocksItsStagingFolderWhileItUnpacks) {
    Tar().File("file", "content");
    bool isLocked = false;
    m_stop = [&] {
        for (const auto& entry : std::filesystem::directory_iterator(m_folder.Path())) {
            EXPECT_THAT(entry.path().filename().string(),
                        MatchesRegex("\\.target\\.unpack-[a-z0-9]{6}"));
            const int folder = ::open(entry.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
            isLocked = ::flock(folder, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
            ::close(folder);
        }
        return false;
    };
    EXPECT_EQ(Unpack(), 0);
    EXPECT_TRUE(isLocked);
}

TEST_F(PostProcessorUnpackTest, IsOnDiskBeforeItTakesThePlaceAndThatBeforeTheOldOneGoes) {
    m_folder.Write("target/old", "old");
    Zip().File("file", "content");
    DiskCalls calls;
    std::vector<std::string> trees;
    calls.onCall = [&] {
        trees.push_back(std::regex_replace(FolderTree(m_folder.Path()),
                                           std::regex(".target.unpack-[a-z0-9]{6}"), "staging"));
    };
    EXPECT_EQ(Unpack(), 0);
    EXPECT_THAT(calls.made, ElementsAre("syncfs", "exchange", "fsync"));
    const std::string before = "staging/ staging/file=content target/ target/old=old";
    EXPECT_THAT(
        trees, ElementsAre(before, before, "staging/ staging/old=old target/ target/file=content"));
    EXPECT_EQ(FolderTree(m_folder.Path()), "target/ target/file=content");
}

TEST_F(PostProcessorUnpackTest, FailsWhenItCannotReachTheDisk) {
    m_folder.Write("target/old", "old");
    Zip().File("file", "content");
    DiskCalls calls;
    calls.syncErrors = {EIO};
    ExpectRefused("it cannot be written to disk: Input/output error");
    EXPECT_THAT(calls.made, ElementsAre("syncfs"));
}

TEST_F(PostProcessorUnpackTest, LeavesTheOldContentToTheNextOneWhenTheExchangeMayNotBeOnDisk) {
    m_folder.Write("target/old", "old");
    Zip().File("file", "content");
    {
        DiskCalls calls;
        calls.syncErrors = {0, EIO};
        EXPECT_EQ(Unpack(), 0);
    }
    EXPECT_THAT(FolderTree(m_folder.Path()),
                MatchesRegex("\\.target\\.unpack-[a-z0-9]{6}/ [^ ]*/old=old target/ "
                             "target/file=content"));
    EXPECT_EQ(Unpack(), 0);
    EXPECT_EQ(FolderTree(m_folder.Path()), "target/ target/file=content");
}

TEST_F(PostProcessorUnpackTest, FailsWhenTheFolderCannotBeReplaced) {
    m_folder.Write("target/old", "old");
    Zip().File("file", "content");
    DiskCalls calls;
    calls.renameErrors = {EACCES};
    ExpectRefused("the target folder cannot be replaced: Permission denied");
}

TEST_F(PostProcessorUnpackTest, ReplacesATargetThatAppearsMeanwhile) {
    m_folder.Write("target/old", "old");
    Zip().File("file", "content");
    DiskCalls calls;
    calls.renameErrors = {ENOENT};
    EXPECT_EQ(Unpack(), 0);
    EXPECT_THAT(calls.made, ElementsAre("syncfs", "exchange", "rename", "exchange", "fsync"));
    EXPECT_EQ(FolderTree(m_folder.Path()), "target/ target/file=content");
}

TEST_F(PostProcessorUnpackTest, MovesTheOldFolderAsideWhereFoldersCannotBeExchanged) {
    m_folder.Write("target/old", "old");
    Zip().File("file", "content");
    DiskCalls calls;
    for (const int error : {EINVAL, ENOSYS}) {
        calls.made.clear();
        calls.renameErrors = {error};
        EXPECT_EQ(Unpack(), 0);
        EXPECT_EQ(FolderTree(m_folder.Path()), "target/ target/file=content");
        EXPECT_THAT(calls.made, ElementsAre("syncfs", "exchange", "rename", "rename", "fsync"));
    }
}

TEST_F(PostProcessorUnpackTest, LocksTheOldFolderAsLongAsItIsAside) {
    m_folder.Write("target/old", "old");
    Zip().File("file", "content");
    DiskCalls calls;
    calls.renameErrors = {EINVAL};
    std::vector<std::string> found;
    calls.onCall = [&] {
        for (const auto& entry : std::filesystem::directory_iterator(m_folder.Path())) {
            const std::string name = entry.path().filename().string();
            if (name.rfind(".target.unpack-old-", 0) != 0)
                continue;
            const int folder = ::open(entry.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
            EXPECT_NE(::flock(folder, LOCK_EX | LOCK_NB), 0);
            EXPECT_EQ(errno, EWOULDBLOCK);
            ::close(folder);
            found.push_back(name);
        }
    };
    EXPECT_EQ(Unpack(), 0);
    // Before the new one takes the target's place, and before that is on disk.
    EXPECT_THAT(found, SizeIs(2));
    EXPECT_THAT(found, Each(MatchesRegex("\\.target\\.unpack-old-[a-z0-9]{6}")));
}

TEST_F(PostProcessorUnpackTest, MakesAFolderWhereFoldersCannotBeExchanged) {
    Zip().File("file", "content");
    DiskCalls calls;
    calls.renameErrors = {EINVAL};
    EXPECT_EQ(Unpack(), 0);
    EXPECT_EQ(FolderTree(m_folder.Path()), "target/ target/file=content");
}

TEST_F(PostProcessorUnpackTest, ReplacesATargetThatAppearsWhileTheOldOneIsAside) {
    m_folder.Write("target/old", "old");
    Zip().File("file", "content");
    DiskCalls calls;
    calls.renameErrors = {EINVAL};
    calls.onCall = [&] {
        if (calls.made.size() == 3)
            m_folder.Write("target/other", "other");
    };
    EXPECT_EQ(Unpack(), 0);
    EXPECT_THAT(calls.made,
                ElementsAre("syncfs", "exchange", "rename", "rename", "exchange", "fsync"));
    EXPECT_EQ(FolderTree(m_folder.Path()), "target/ target/file=content");
}

TEST_F(PostProcessorUnpackTest, PutsTheOldFolderBackWhenTheNewOneCannotTakeItsPlace) {
    m_folder.Write("target/old", "old");
    Zip().File("file", "content");
    DiskCalls calls;
    calls.renameErrors = {EINVAL, 0, EIO};
    ExpectRefused("the target folder cannot be replaced: Input/output error");
    calls.renameErrors = {EINVAL, EIO};
    ExpectRefused("the old folder cannot be moved aside: Input/output error");
}

TEST_F(PostProcessorUnpackTest, LetsTheLastOfSeveralAtOnceWin) {
    constexpr std::size_t kThreads = 4;
    constexpr int kRounds = 20;
    std::vector<App::ResourceDescriptor> descriptors(kThreads);
    for (std::size_t i = 0; i < kThreads; ++i) {
        const std::string name = "archive" + std::to_string(i);
        descriptors[i].downloadPath = m_downloads / name;
        ArchiveWriter(m_downloads / name, "zip").File("a", name).File("b", name);
    }
    PostProcessorUnpack processor([this](const auto&) { return m_target; }, {});
    for (int round = 0; round < kRounds; ++round) {
        std::filesystem::remove_all((m_folder / "target").string());
        std::vector<std::thread> threads;
        for (const App::ResourceDescriptor& descriptor : descriptors) {
            threads.emplace_back(
                [&] { EXPECT_EQ(processor.Process(&descriptor), 0) << descriptor.downloadPath; });
        }
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_THAT(FolderTree(m_folder.Path()),
                    MatchesRegex("target/ target/a=(archive[0-3]) target/b=archive[0-3]"));
        EXPECT_EQ(ReadFile(InTarget("a")), ReadFile(InTarget("b")));
    }
}

/// What an application sees of it.
class PostProcessorUnpackInAManager : public PostProcessorUnpackTest {
protected:
    PostProcessorUnpackInAManager() {
        m_descriptor.relativePath = "archive.zip";
        m_descriptor.tempPath = m_downloads / "archive.part";
        m_descriptor.localPath = m_target->folder;
        m_descriptor.postProcess = 1;
        m_descriptor.validationMode = 2;
    }

    App::IRemoteResource::State Run() {
        App::ResourceDownloadManager::Dependencies dependencies;
        dependencies.resourceDownloader = m_downloader;
        dependencies.validator = m_validator;
        dependencies.postProcessor = std::make_shared<PostProcessorUnpack>(
            [this](const auto&) { return m_target; }, PostProcessorUnpack::Limits{});
        App::ResourceDownloadManager manager;
        manager.Init({}, dependencies);
        App::IRemoteResource* resource = manager.GetMainScheduler()->RegisterAutoSchedule(
            &m_bundle, App::ISchedulableResource::SchedulePriority::Normal);
        manager.ProcessCurrentQueue();
        return resource->GetState();
    }

    /// The archive as it is now is unpacked to this, and a second run needs no download.
    void ExpectOneDownload(const std::string& tree) {
        m_downloader->On("archive.zip",
                         Testing::ScriptedDownload::Complete(ReadFile(m_descriptor.downloadPath)));
        for (int run = 0; run < 2; ++run) {
            EXPECT_EQ(Run().status, App::IRemoteResource::DownloadStatus::Available);
            EXPECT_EQ(FolderTree(m_folder.Path()), tree);
        }
        EXPECT_EQ(m_downloader->DownloadCount("archive.zip"), 1U);
    }

    const App::ResourceDescriptorBundle m_bundle{{&m_descriptor}};
    const std::shared_ptr<Testing::ScriptedDownloader> m_downloader =
        std::make_shared<Testing::ScriptedDownloader>();
    std::shared_ptr<App::IValidator> m_validator;
};

TEST_F(PostProcessorUnpackInAManager, MakesAResourceAvailableThatIsNotDownloadedAgain) {
    Zip().File("file", "content");
    ExpectOneDownload("target/ target/file=content");
}

/// Accepts a folder with this version in it.
class VersionValidator : public App::IValidator {
public:
    std::int32_t Validate(const App::ResourceDescriptor* descriptor) override {
        return ReadFile(descriptor->localPath / "version") == "2" ? 0 : 1;
    }
};

TEST_F(PostProcessorUnpackInAManager, ReplacesAFolderThatAValidatorFindsTooOld) {
    m_folder.Write("target/version", "1");
    m_folder.Write("target/old", "old");
    m_descriptor.validationMode = 1;
    m_validator = std::make_shared<VersionValidator>();
    Zip().File("version", "2");
    ExpectOneDownload("target/ target/version=2");
}

TEST_F(PostProcessorUnpackInAManager, KeepsAnyFolderWhereItsExistenceSuffices) {
    m_folder.Write("target/old", "old");
    EXPECT_EQ(Run().status, App::IRemoteResource::DownloadStatus::Available);
    EXPECT_EQ(FolderTree(m_folder.Path()), "target/ target/old=old");
    EXPECT_EQ(m_downloader->DownloadCount("archive.zip"), 0U);
}

TEST_F(PostProcessorUnpackInAManager, MakesABrokenArchiveACorruptedResource) {
    m_downloader->On("archive.zip", Testing::ScriptedDownload::Complete("no archive"));
    const App::IRemoteResource::State state = Run();
    EXPECT_EQ(state.status, App::IRemoteResource::DownloadStatus::Error);
    EXPECT_EQ(state.error, App::IRemoteResource::DownloadError::Corrupted);
    EXPECT_EQ(m_downloader->DownloadCount("archive.zip"), 2U);
}

} // namespace
} // namespace Halvex::Kit
