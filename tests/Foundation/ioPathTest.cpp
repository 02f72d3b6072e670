#include "Foundation/ioPath.h"

#include "Foundation/Exception.h"
#include "support/FileSizeLimit.h"
#include "support/SystemCalls.h"
#include "support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Halvex {
namespace {

using Halvex::Testing::FileSizeLimit;
using Halvex::Testing::FolderOnAnotherFileSystem;
using Halvex::Testing::ReadFile;
using Halvex::Testing::SomeBytes;
using Halvex::Testing::SystemCalls;
using Halvex::Testing::TemporaryFolder;
using testing::ElementsAre;
using testing::MatchesRegex;

/// The details of the exception that the action throws.
std::string FailureOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const Exception& exception) {
        const std::string* const details = boost::get_error_info<ErrorDetails>(exception);
        return details != nullptr ? *details : "no details";
    }
    return "no failure";
}

std::string Joined(const char* left, const char* right) {
    return (ioPath(left) / ioPath(right)).string();
}

void MakeLink(const ioPath& target, const ioPath& link) {
    std::filesystem::create_symlink(target.string(), link.string());
}

bool IsLink(const ioPath& path) {
    return std::filesystem::is_symlink(path.string());
}

mode_t ModeOf(const ioPath& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.string().c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

const std::string kOverlongName(300, 'a');

TEST(ioPath, IsEmptyByDefault) {
    EXPECT_TRUE(ioPath().empty());
    EXPECT_EQ(ioPath().string(), "");
    EXPECT_TRUE(ioPath("").empty());
    EXPECT_FALSE(ioPath("a").empty());
}

TEST(ioPath, KeepsItsTextToTheLetter) {
    const std::string text = "/a//b/./../ \xc3\xa4\xff/";
    EXPECT_EQ(ioPath(text).string(), text);
    EXPECT_EQ(ioPath(text.c_str()).string(), text);
}

TEST(ioPath, IsMadeFromAStringImplicitly) {
    const ioPath fromLiteral = "a";
    const ioPath fromString = std::string("a");
    EXPECT_EQ(fromLiteral, fromString);
}

TEST(ioPath, JoinsWithASeparator) {
    EXPECT_EQ(Joined("a", "b"), "a/b");
    EXPECT_EQ(Joined("/a", "b/c"), "/a/b/c");
}

TEST(ioPath, JoinsWithExactlyOneSeparator) {
    EXPECT_EQ(Joined("a/", "b"), "a/b");
    EXPECT_EQ(Joined("a", "/b"), "a/b");
    EXPECT_EQ(Joined("a/", "/b"), "a/b");
    EXPECT_EQ(Joined("a//", "//b"), "a/b");
}

TEST(ioPath, JoinsAnEmptySideToTheOtherOne) {
    EXPECT_EQ(Joined("", "b"), "b");
    EXPECT_EQ(Joined("", "/b/"), "/b/");
    EXPECT_EQ(Joined("a", ""), "a");
    EXPECT_EQ(Joined("a//", ""), "a//");
    EXPECT_EQ(Joined("", ""), "");
}

TEST(ioPath, JoinsBelowTheRoot) {
    EXPECT_EQ(Joined("/", "b"), "/b");
    EXPECT_EQ(Joined("/", "/b"), "/b");
    EXPECT_EQ(Joined("//", "b"), "/b");
    EXPECT_EQ(Joined("/", "/"), "/");
}

TEST(ioPath, JoinsASeparatorAlone) {
    EXPECT_EQ(Joined("a", "/"), "a/");
    EXPECT_EQ(Joined("a/", "//"), "a/");
}

TEST(ioPath, LeavesTheOuterEndsAloneWhenItJoins) {
    EXPECT_EQ(Joined("//a", "b//"), "//a/b//");
}

TEST(ioPath, ComparesTexts) {
    EXPECT_TRUE(ioPath("a") == ioPath("a"));
    EXPECT_FALSE(ioPath("a") == ioPath("a/"));
    EXPECT_TRUE(ioPath("a") != ioPath("b"));
    EXPECT_FALSE(ioPath("a") != ioPath("a"));
}

TEST(ioPath, IsOrderedByItsBytes) {
    EXPECT_TRUE(ioPath("B") < ioPath("a"));
    EXPECT_FALSE(ioPath("a") < ioPath("B"));
    EXPECT_FALSE(ioPath("a") < ioPath("a"));
    EXPECT_TRUE(ioPath("z") < ioPath("\xc3\xa4"));
}

TEST(ioPath, IsWrittenPlainly) {
    std::ostringstream stream;
    stream << ioPath("/a b\"c\\");
    EXPECT_EQ(stream.str(), "/a b\"c\\");
}

class ioPathTest : public testing::Test {
protected:
    const TemporaryFolder m_folder;
    const ioPath m_missing = m_folder / "missing";
};

TEST_F(ioPathTest, ExistsAsAFileOrAFolder) {
    EXPECT_TRUE(m_folder.Write("a", "").exists());
    EXPECT_TRUE(ioPath(m_folder.Path()).exists());
}

TEST_F(ioPathTest, DoesNotExistWhenNothingIsThere) {
    EXPECT_FALSE(m_missing.exists());
    EXPECT_FALSE((m_missing / "a").exists());
    EXPECT_FALSE(ioPath().exists());
}

TEST_F(ioPathTest, DoesNotExistBelowAFile) {
    EXPECT_FALSE((m_folder.Write("a", "") / "b").exists());
}

TEST_F(ioPathTest, ExistsAsALinkWhenItsTargetDoes) {
    MakeLink(m_folder.Write("a", ""), m_folder / "link");
    MakeLink(m_missing, m_folder / "dangling");
    EXPECT_TRUE((m_folder / "link").exists());
    EXPECT_FALSE((m_folder / "dangling").exists());
}

TEST_F(ioPathTest, CannotTellWhetherAnOverlongNameExists) {
    EXPECT_EQ(FailureOf([&] { (m_folder / kOverlongName).exists(); }), "36 (File name too long)");
}

TEST_F(ioPathTest, CannotTellWhetherALinkToItselfExists) {
    MakeLink(m_folder / "link", m_folder / "link");
    EXPECT_EQ(FailureOf([&] { (m_folder / "link").exists(); }),
              "40 (Too many levels of symbolic links)");
}

TEST_F(ioPathTest, DoesNotMistakeAPathWithAZeroByteForItsBeginning) {
    const ioPath file = m_folder.Write("a", "");
    const ioPath path = m_folder / std::string("a\0b", 3);
    EXPECT_EQ(FailureOf([&] { path.exists(); }), "22 (Invalid argument)");
    EXPECT_EQ(FailureOf([&] { path.remove(); }), "22 (Invalid argument)");
    EXPECT_EQ(FailureOf([&] { ioPath::rename(path, m_missing); }), "22 (Invalid argument)");
    EXPECT_EQ(FailureOf([&] { ioPath::rename(file, path); }), "22 (Invalid argument)");
    EXPECT_EQ(m_folder.List(), "a");
}

TEST_F(ioPathTest, RemovesAFile) {
    EXPECT_TRUE(m_folder.Write("a", "content").remove());
    EXPECT_EQ(m_folder.List(), "");
}

TEST_F(ioPathTest, TellsThatThereWasNothingToRemove) {
    EXPECT_FALSE(m_missing.remove());
    EXPECT_FALSE((m_missing / "a").remove());
    EXPECT_FALSE(ioPath().remove());
}

TEST_F(ioPathTest, FindsNothingToRemoveBelowAFile) {
    EXPECT_FALSE((m_folder.Write("a", "") / "b").remove());
}

TEST_F(ioPathTest, RemovesALinkAndNotItsTarget) {
    MakeLink(m_folder.Write("a", ""), m_folder / "link");
    EXPECT_TRUE((m_folder / "link").remove());
    EXPECT_EQ(m_folder.List(), "a");
}

TEST_F(ioPathTest, RemovesADanglingLink) {
    MakeLink(m_missing, m_folder / "link");
    EXPECT_TRUE((m_folder / "link").remove());
    EXPECT_EQ(m_folder.List(), "");
}

TEST_F(ioPathTest, DoesNotRemoveAFolder) {
    std::filesystem::create_directory((m_folder / "empty").string());
    EXPECT_EQ(FailureOf([&] { (m_folder / "empty").remove(); }), "21 (Is a directory)");
    EXPECT_EQ(m_folder.List(), "empty");
}

TEST_F(ioPathTest, CannotRemoveAnOverlongName) {
    EXPECT_EQ(FailureOf([&] { (m_folder / kOverlongName).remove(); }), "36 (File name too long)");
}

TEST_F(ioPathTest, RenamesAFile) {
    ioPath::rename(m_folder.Write("a", "content"), m_folder / "b");
    EXPECT_EQ(m_folder.List(), "b");
    EXPECT_EQ(ReadFile(m_folder / "b"), "content");
}

TEST_F(ioPathTest, ReplacesAFileWhenItRenames) {
    m_folder.Write("b", "much older content");
    ioPath::rename(m_folder.Write("a", "content"), m_folder / "b");
    EXPECT_EQ(m_folder.List(), "b");
    EXPECT_EQ(ReadFile(m_folder / "b"), "content");
}

TEST_F(ioPathTest, ReplacesALinkAndNotItsTargetWhenItRenames) {
    const ioPath target = m_folder.Write("target", "precious");
    MakeLink(target, m_folder / "b");
    ioPath::rename(m_folder.Write("a", "content"), m_folder / "b");
    EXPECT_FALSE(IsLink(m_folder / "b"));
    EXPECT_EQ(ReadFile(m_folder / "b"), "content");
    EXPECT_EQ(ReadFile(target), "precious");
}

TEST_F(ioPathTest, DoesNotRenameWhatIsNotThere) {
    m_folder.Write("b", "old");
    EXPECT_EQ(FailureOf([&] { ioPath::rename(m_missing, m_folder / "b"); }),
              "2 (No such file or directory)");
    EXPECT_EQ(ReadFile(m_folder / "b"), "old");
}

TEST_F(ioPathTest, DoesNotRenameALink) {
    MakeLink(m_folder.Write("a", "content"), m_folder / "link");
    EXPECT_EQ(FailureOf([&] { ioPath::rename(m_folder / "link", m_folder / "b"); }),
              "40 (Too many levels of symbolic links)");
    EXPECT_EQ(m_folder.List(), "a link");
}

TEST_F(ioPathTest, DoesNotRenameAPipe) {
    const ioPath pipe = m_folder / "pipe";
    ASSERT_EQ(::mkfifo(pipe.string().c_str(), 0600), 0);
    EXPECT_EQ(FailureOf([&] { ioPath::rename(pipe, m_folder / "b"); }), "22 (Invalid argument)");
    EXPECT_EQ(m_folder.List(), "pipe");
}

TEST_F(ioPathTest, DoesNotRenameOntoAFolder) {
    const ioPath file = m_folder.Write("a", "content");
    m_folder.Write("folder/b", "old");
    EXPECT_EQ(FailureOf([&] { ioPath::rename(file, m_folder / "folder"); }), "21 (Is a directory)");
    EXPECT_EQ(ReadFile(file), "content");
    EXPECT_EQ(ReadFile(m_folder / "folder/b"), "old");
}

TEST_F(ioPathTest, DoesNotRenameIntoAMissingFolder) {
    const ioPath file = m_folder.Write("a", "content");
    EXPECT_EQ(FailureOf([&] { ioPath::rename(file, m_missing / "b"); }),
              "2 (No such file or directory)");
    EXPECT_EQ(m_folder.List(), "a");
}

TEST_F(ioPathTest, DoesNotRenameToAnOverlongName) {
    const ioPath file = m_folder.Write("a", "content");
    EXPECT_EQ(FailureOf([&] { ioPath::rename(file, m_folder / kOverlongName); }),
              "36 (File name too long)");
    EXPECT_EQ(ReadFile(file), "content");
}

TEST_F(ioPathTest, DoesNotRenameFromOrToTheEmptyPath) {
    const ioPath file = m_folder.Write("a", "content");
    EXPECT_EQ(FailureOf([&] { ioPath::rename(ioPath(), m_folder / "b"); }),
              "2 (No such file or directory)");
    EXPECT_EQ(FailureOf([&] { ioPath::rename(file, ioPath()); }), "2 (No such file or directory)");
    EXPECT_EQ(m_folder.List(), "a");
}

TEST_F(ioPathTest, PutsTheBytesOnDiskBeforeTheNewName) {
    const ioPath file = m_folder.Write("a", "content");
    const SystemCalls calls;
    ioPath::rename(file, m_folder / "b");
    EXPECT_THAT(calls.Made(), ElementsAre("open a", "fdatasync a", "rename a -> b", "close b"));
}

TEST_F(ioPathTest, DoesNotRenameWhatDoesNotReachTheDisk) {
    const ioPath file = m_folder.Write("a", "content");
    m_folder.Write("b", "old");
    SystemCalls calls;
    calls.Fail("fdatasync", EIO);
    EXPECT_EQ(FailureOf([&] { ioPath::rename(file, m_folder / "b"); }), "5 (Input/output error)");
    EXPECT_THAT(calls.Made(), ElementsAre("open a", "fdatasync a", "close a"));
    EXPECT_EQ(ReadFile(m_folder / "b"), "old");
}

TEST_F(ioPathTest, DoesNotMakeACopyWhenTheSystemRefusesTheRename) {
    const ioPath file = m_folder.Write("a", "content");
    SystemCalls calls;
    calls.Fail("rename", EACCES);
    EXPECT_EQ(FailureOf([&] { ioPath::rename(file, m_folder / "b"); }), "13 (Permission denied)");
    EXPECT_EQ(m_folder.List(), "a");
}

/// Renames a file to another file system, where a copy has to be made.
class ioPathAcrossFileSystemsTest : public testing::Test {
protected:
    void Rename() const { ioPath::rename(m_from, m_to); }

    const TemporaryFolder m_folder;
    const TemporaryFolder m_elsewhere{FolderOnAnotherFileSystem()};
    const std::string m_content = SomeBytes(600'000);
    const ioPath m_from = m_folder.Write("a", m_content);
    const ioPath m_to = m_elsewhere / "b";
};

TEST_F(ioPathAcrossFileSystemsTest, MovesTheWholeFile) {
    Rename();
    EXPECT_EQ(ReadFile(m_to), m_content);
    EXPECT_FALSE(m_from.exists());
    EXPECT_EQ(m_elsewhere.List(), "b");
}

TEST_F(ioPathAcrossFileSystemsTest, MovesAnEmptyFile) {
    m_folder.Write("a", "");
    Rename();
    EXPECT_EQ(ReadFile(m_to), "");
    EXPECT_FALSE(m_from.exists());
}

TEST_F(ioPathAcrossFileSystemsTest, ReplacesAFile) {
    m_elsewhere.Write("b", "old");
    Rename();
    EXPECT_EQ(ReadFile(m_to), m_content);
    EXPECT_EQ(m_elsewhere.List(), "b");
}

TEST_F(ioPathAcrossFileSystemsTest, ReplacesALinkAndNotItsTarget) {
    const ioPath target = m_elsewhere.Write("target", "precious");
    MakeLink(target, m_to);
    Rename();
    EXPECT_FALSE(IsLink(m_to));
    EXPECT_EQ(ReadFile(target), "precious");
}

TEST_F(ioPathAcrossFileSystemsTest, KeepsTheAccessRights) {
    std::filesystem::permissions(m_from.string(), std::filesystem::perms(0640));
    Rename();
    EXPECT_EQ(ModeOf(m_to), 0640U);
}

TEST_F(ioPathAcrossFileSystemsTest, ReachesANameAsLongAsNamesCanBe) {
    const ioPath longest = m_elsewhere / std::string(255, 'b');
    ioPath::rename(m_from, longest);
    EXPECT_EQ(ReadFile(longest), m_content);
}

TEST_F(ioPathAcrossFileSystemsTest, PutsTheCopyOnDiskUnderANameOfItsOwnFirst) {
    m_folder.Write("a", "content");
    const SystemCalls calls;
    Rename();
    EXPECT_THAT(
        calls.Made(),
        ElementsAre("open a", "fdatasync a", "rename a -> b", MatchesRegex("read a [0-9]+"),
                    MatchesRegex("write \\.halvex[^ ]+ 7"), MatchesRegex("read a [0-9]+"),
                    MatchesRegex("fdatasync \\.halvex[^ ]+"), MatchesRegex("close \\.halvex[^ ]+"),
                    MatchesRegex("rename \\.halvex[^ ]+ -> b"), "unlink a", "close a (deleted)"));
}

TEST_F(ioPathAcrossFileSystemsTest, GoesOnAfterInterruptedAndShortCalls) {
    SystemCalls calls;
    calls.Fail("read", EINTR);
    calls.Shorten("read", 1000);
    calls.Fail("write", EINTR);
    calls.Shorten("write", 10);
    Rename();
    EXPECT_EQ(ReadFile(m_to), m_content);
}

/// A rename to another file system that fails half way, with a file at its destination.
class ioPathFailureAcrossFileSystemsTest : public ioPathAcrossFileSystemsTest {
protected:
    void SetUp() override { m_elsewhere.Write("b", "old"); }

    void ExpectFailure(const std::string& details) {
        EXPECT_EQ(FailureOf([&] { Rename(); }), details);
        EXPECT_EQ(ReadFile(m_to), "old");
        EXPECT_EQ(m_elsewhere.List(), "b");
        EXPECT_EQ(ReadFile(m_from), m_content);
    }

    SystemCalls m_calls;
};

TEST_F(ioPathFailureAcrossFileSystemsTest, LeavesAllAsItWasWhenTheDiskIsFull) {
    const FileSizeLimit limit(300'000);
    ExpectFailure("27 (File too large)");
}

TEST_F(ioPathFailureAcrossFileSystemsTest, LeavesAllAsItWasWhenTheSourceCannotBeRead) {
    m_calls.Pass("read");
    m_calls.Fail("read", EIO);
    ExpectFailure("5 (Input/output error)");
}

TEST_F(ioPathFailureAcrossFileSystemsTest, LeavesAllAsItWasWhenTheCopyCannotBeWritten) {
    m_calls.Pass("write");
    m_calls.Fail("write", ENOSPC);
    ExpectFailure("28 (No space left on device)");
}

TEST_F(ioPathFailureAcrossFileSystemsTest, LeavesAllAsItWasWhenTheCopyDoesNotReachTheDisk) {
    m_calls.Pass("fdatasync");
    m_calls.Fail("fdatasync", EIO);
    ExpectFailure("5 (Input/output error)");
}

TEST_F(ioPathFailureAcrossFileSystemsTest, LeavesAllAsItWasWhenTheCopyCannotBeClosed) {
    m_calls.Fail("close", EIO);
    ExpectFailure("5 (Input/output error)");
}

TEST_F(ioPathFailureAcrossFileSystemsTest, LeavesAllAsItWasWhenTheCopyCannotBeRenamed) {
    m_calls.Pass("rename");
    m_calls.Fail("rename", EACCES);
    ExpectFailure("13 (Permission denied)");
}

TEST_F(ioPathAcrossFileSystemsTest, LeavesAllAsItWasWhenTheDestinationIsAFolder) {
    std::filesystem::create_directory(m_to.string());
    EXPECT_EQ(FailureOf([&] { Rename(); }), "21 (Is a directory)");
    EXPECT_EQ(m_elsewhere.List(), "b");
    EXPECT_EQ(ReadFile(m_from), m_content);
}

TEST_F(ioPathAcrossFileSystemsTest, DoesNotMoveALink) {
    MakeLink(m_from, m_folder / "link");
    EXPECT_EQ(FailureOf([&] { ioPath::rename(m_folder / "link", m_to); }),
              "40 (Too many levels of symbolic links)");
    EXPECT_EQ(m_elsewhere.List(), "");
}

} // namespace
} // namespace Halvex
