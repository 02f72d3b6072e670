#include "ResourceDownloadManager/FileUtils.h"

#include "Foundation/Exception.h"
#include "ResourceDownloadManager/FileUtilsInternal.h"
#include "support/LogCapture.h"
#include "support/SystemCalls.h"
#include "support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <exception>
#include <filesystem>
#include <new>
#include <string>
#include <vector>

namespace Halvex::App {
namespace {

using Halvex::Testing::LogCapture;
using Halvex::Testing::ReadFile;
using Halvex::Testing::SomeBytes;
using Halvex::Testing::SystemCalls;
using Halvex::Testing::TemporaryFolder;
using testing::ElementsAre;
using testing::IsEmpty;
using Buffer = std::vector<std::uint8_t>;

class FileUtilsTest : public testing::Test {
protected:
    ioPath MakeFolder(const std::string& name) const {
        std::filesystem::create_directory((m_folder / name).string());
        return m_folder / name;
    }
    ioPath MakeLink(const ioPath& target, const std::string& name) const {
        std::filesystem::create_symlink(target.string(), (m_folder / name).string());
        return m_folder / name;
    }

    const TemporaryFolder m_folder;
    const ioPath m_missing = m_folder / "missing";
    const ioPath m_overlong = m_folder / std::string(300, 'a');
    const LogCapture m_log;
};

class FileExistsTest : public FileUtilsTest {};

TEST_F(FileExistsTest, IsTrueForAFileAndAFolder) {
    EXPECT_TRUE(FileExists(m_folder.Write("a", "")));
    EXPECT_TRUE(FileExists(m_folder.Path()));
}

TEST_F(FileExistsTest, IsFalseWhenNothingIsThere) {
    EXPECT_FALSE(FileExists(m_missing));
    EXPECT_FALSE(FileExists(ioPath()));
}

TEST_F(FileExistsTest, IsSilentlyFalseWhenItCannotBeTold) {
    EXPECT_FALSE(FileExists(m_overlong));
    EXPECT_FALSE(FileExists(std::string("/\0", 2)));
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

class RemoveFileTest : public FileUtilsTest {};

TEST_F(RemoveFileTest, RemovesAFile) {
    EXPECT_TRUE(RemoveFile(m_folder.Write("a", "")));
    EXPECT_EQ(m_folder.List(), "");
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(RemoveFileTest, SucceedsSilentlyWhenNothingIsThere) {
    EXPECT_TRUE(RemoveFile(m_missing));
    EXPECT_TRUE(RemoveFile(m_missing / "a"));
    EXPECT_TRUE(RemoveFile(ioPath()));
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(RemoveFileTest, RemovesALinkAndNotItsTarget) {
    EXPECT_TRUE(RemoveFile(MakeLink(m_folder.Write("a", ""), "link")));
    EXPECT_EQ(m_folder.List(), "a");
}

TEST_F(RemoveFileTest, LogsAFolderThatItLeavesAlone) {
    const ioPath folder = MakeFolder("folder");
    EXPECT_FALSE(RemoveFile(folder));
    EXPECT_EQ(m_folder.List(), "folder");
    EXPECT_THAT(m_log.Errors(), ElementsAre("Failed to remove file=" + folder.string()));
}

TEST_F(RemoveFileTest, LogsWhenItCannotBeToldWhetherAFileIsThere) {
    EXPECT_FALSE(RemoveFile(m_overlong));
    EXPECT_THAT(m_log.Errors(), ElementsAre("Failed to remove file=" + m_overlong.string()));
}

TEST_F(RemoveFileTest, LogsARefusedRemoval) {
    const ioPath file = m_folder.Write("a", "");
    SystemCalls calls;
    calls.Fail("unlink", EACCES);
    EXPECT_FALSE(RemoveFile(file));
    EXPECT_THAT(m_log.Errors(), ElementsAre("Failed to remove file=" + file.string()));
}

TEST_F(RemoveFileTest, RemovesADanglingLink) {
    EXPECT_TRUE(RemoveFile(MakeLink(m_missing, "link")));
    EXPECT_EQ(m_folder.List(), "");
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(RemoveFileTest, LogsALinkToAFolderWithASlashBehindIt) {
    MakeLink(MakeFolder("folder"), "link");
    const ioPath path = m_folder / "link/";
    EXPECT_FALSE(RemoveFile(path));
    EXPECT_EQ(m_folder.List(), "folder link");
    EXPECT_THAT(m_log.Errors(), ElementsAre("Failed to remove file=" + path.string()));
}

TEST_F(RemoveFileTest, SucceedsSilentlyWhenNothingIsThereAndNothingCanBeRemoved) {
    SystemCalls calls;
    calls.Fail("unlink", EROFS);
    EXPECT_TRUE(RemoveFile(m_missing));
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(RemoveFileTest, LogsAFileOfAReadOnlyFileSystem) {
    const ioPath file = m_folder.Write("a", "");
    SystemCalls calls;
    calls.Fail("unlink", EROFS);
    EXPECT_FALSE(RemoveFile(file));
    EXPECT_THAT(m_log.Errors(), ElementsAre("Failed to remove file=" + file.string()));
}

class ReadWholeFileToBufferTest : public FileUtilsTest {
protected:
    static Buffer BufferOf(const std::string& text) { return {text.begin(), text.end()}; }
};

TEST_F(ReadWholeFileToBufferTest, ReadsTheWholeFile) {
    const std::string content = SomeBytes(300'000);
    Buffer buffer;
    EXPECT_TRUE(ReadWholeFileToBuffer(m_folder.Write("a", content), buffer));
    EXPECT_EQ(buffer, BufferOf(content));
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(ReadWholeFileToBufferTest, ReadsInOneCallAndClosesTheFile) {
    const ioPath file = m_folder.Write("a", SomeBytes(300'000));
    Buffer buffer;
    const SystemCalls calls;
    ReadWholeFileToBuffer(file, buffer);
    EXPECT_THAT(calls.Made(), ElementsAre("open a", "read a 300000", "close a"));
}

TEST_F(ReadWholeFileToBufferTest, ShrinksALargerBuffer) {
    Buffer buffer(10, 0xff);
    EXPECT_TRUE(ReadWholeFileToBuffer(m_folder.Write("a", "123"), buffer));
    EXPECT_EQ(buffer, BufferOf("123"));
}

TEST_F(ReadWholeFileToBufferTest, GrowsASmallerBuffer) {
    Buffer buffer(1, 0xff);
    EXPECT_TRUE(ReadWholeFileToBuffer(m_folder.Write("a", "123"), buffer));
    EXPECT_EQ(buffer, BufferOf("123"));
}

TEST_F(ReadWholeFileToBufferTest, EmptiesTheBufferForAnEmptyFile) {
    Buffer buffer(10, 0xff);
    EXPECT_TRUE(ReadWholeFileToBuffer(m_folder.Write("a", ""), buffer));
    EXPECT_THAT(buffer, IsEmpty());
}

TEST_F(ReadWholeFileToBufferTest, LogsAMissingFileAndLeavesTheBufferAlone) {
    Buffer buffer = BufferOf("old");
    EXPECT_FALSE(ReadWholeFileToBuffer(m_missing, buffer));
    EXPECT_EQ(buffer, BufferOf("old"));
    EXPECT_THAT(m_log.Errors(),
                ElementsAre("failed to create file for reading=" + m_missing.string() +
                            ", errno=2 (No such file or directory)"));
}

TEST_F(ReadWholeFileToBufferTest, FailsWhenTheFileIsShorterThanItsSize) {
    const ioPath file = m_folder.Write("a", "12345");
    Buffer buffer;
    SystemCalls calls;
    calls.Shorten("read", 3);
    calls.Shorten("read", 0);
    EXPECT_FALSE(ReadWholeFileToBuffer(file, buffer));
}

TEST_F(ReadWholeFileToBufferTest, GrowsTheBufferWithZeroBytesBeforeItReads) {
    const ioPath file = m_folder.Write("a", "12345");
    Buffer buffer(1, 0xff);
    SystemCalls calls;
    calls.Shorten("read", 0);
    EXPECT_FALSE(ReadWholeFileToBuffer(file, buffer));
    EXPECT_EQ(buffer, (Buffer{0xff, 0, 0, 0, 0}));
}

TEST_F(ReadWholeFileToBufferTest, LogsAFileThatCannotBeRead) {
    const ioPath file = m_folder.Write("a", "12345");
    Buffer buffer;
    SystemCalls calls;
    calls.Fail("read", EIO);
    EXPECT_FALSE(ReadWholeFileToBuffer(file, buffer));
    EXPECT_THAT(m_log.Errors(), ElementsAre("failed to read file=" + file.string()));
    EXPECT_EQ(calls.Made().back(), "close a");
}

class OpenFileTest : public FileUtilsTest {
protected:
    const ioPath m_file = m_folder.Write("a", "12345");
    SystemCalls m_calls;
};

TEST_F(OpenFileTest, GivesTheOpenFile) {
    const auto input = OpenFileForReading(m_file);
    ASSERT_TRUE(input);
    EXPECT_EQ(input->Size(), 5U);
    const auto output = OpenFileForWriting(m_folder / "b");
    ASSERT_TRUE(output);
    EXPECT_EQ(output->Write("67", 2), 2U);
    EXPECT_EQ(ReadFile(m_folder / "b"), "67");
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(OpenFileTest, LogsTheSystemsErrorForReading) {
    EXPECT_FALSE(OpenFileForReading(m_folder.Path()));
    EXPECT_THAT(m_log.Errors(), ElementsAre("failed to create file for reading=" + m_folder.Path() +
                                            ", errno=21 (Is a directory)"));
}

TEST_F(OpenFileTest, LogsTheSystemsErrorForWriting) {
    EXPECT_FALSE(OpenFileForWriting(m_folder.Path()));
    EXPECT_THAT(m_log.Errors(), ElementsAre("failed to create file for writing=" + m_folder.Path() +
                                            ", errno=21 (Is a directory)"));
}

TEST_F(OpenFileTest, LogsAQuestionMarkForReadingWhenThereAreNoDetails) {
    m_calls.Throw("open", std::make_exception_ptr(Exception()));
    EXPECT_FALSE(OpenFileForReading(m_file));
    EXPECT_THAT(m_log.Errors(),
                ElementsAre("failed to create file for reading=" + m_file.string() + ", errno=?"));
}

TEST_F(OpenFileTest, LogsAQuestionMarkForWritingWhenThereAreNoDetails) {
    m_calls.Throw("open", std::make_exception_ptr(Exception()));
    EXPECT_FALSE(OpenFileForWriting(m_file));
    EXPECT_THAT(m_log.Errors(),
                ElementsAre("failed to create file for writing=" + m_file.string() + ", errno=?"));
}

TEST_F(OpenFileTest, LogsAnUnknownExceptionForReading) {
    m_calls.Throw("open", std::make_exception_ptr(std::bad_alloc()));
    EXPECT_FALSE(OpenFileForReading(m_file));
    EXPECT_THAT(m_log.Errors(), ElementsAre("failed to create file for reading=" + m_file.string() +
                                            " (unknown exception)"));
}

TEST_F(OpenFileTest, LogsAnUnknownExceptionForWriting) {
    m_calls.Throw("open", std::make_exception_ptr(42));
    EXPECT_FALSE(OpenFileForWriting(m_file));
    EXPECT_THAT(m_log.Errors(), ElementsAre("failed to create file for writing=" + m_file.string() +
                                            " (unknown exception)"));
}

class TemporaryFileTest : public FileUtilsTest {
protected:
    ioPath WriteTemporary(const std::string& content) const {
        return m_folder.Write("temp", content);
    }
    std::string RenameLine() const {
        return "Failed to rename: " + m_temporary.string() + " -> " + m_destination.string();
    }

    const ioPath m_temporary = m_folder / "temp";
    const ioPath m_destination = m_folder / "dest";
};

TEST_F(TemporaryFileTest, IsValidWhenNothingIsThere) {
    EXPECT_TRUE(TemporaryFile(m_temporary, m_destination));
    EXPECT_EQ(m_folder.List(), "");
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(TemporaryFileTest, RemovesTheDestinationAtOnce) {
    m_folder.Write("dest", "old");
    const TemporaryFile file(m_temporary, m_destination);
    EXPECT_TRUE(file);
    EXPECT_EQ(m_folder.List(), "");
}

TEST_F(TemporaryFileTest, RemovesTheTemporaryPathFirst) {
    WriteTemporary("old");
    m_folder.Write("dest", "old");
    const SystemCalls calls;
    const TemporaryFile file(m_temporary, m_destination);
    EXPECT_TRUE(file);
    EXPECT_THAT(calls.Made(), ElementsAre("unlink temp", "unlink dest"));
}

TEST_F(TemporaryFileTest, KeepsTheDestinationWhenTheTemporaryPathCannotBeCleared) {
    MakeFolder("temp");
    m_folder.Write("dest", "old");
    const TemporaryFile file(m_temporary, m_destination);
    EXPECT_FALSE(file);
    EXPECT_EQ(m_folder.List(), "dest temp");
    EXPECT_THAT(m_log.Errors(), ElementsAre("Failed to remove file=" + m_temporary.string()));
}

TEST_F(TemporaryFileTest, IsInvalidWhenTheDestinationCannotBeCleared) {
    MakeFolder("dest");
    const TemporaryFile file(m_temporary, m_destination);
    EXPECT_FALSE(file);
    EXPECT_THAT(m_log.Errors(), ElementsAre("Failed to remove file=" + m_destination.string()));
}

TEST_F(TemporaryFileTest, RemovesTheTemporaryPathAtItsEnd) {
    {
        const TemporaryFile file(m_temporary, m_destination);
        WriteTemporary("content");
    }
    EXPECT_EQ(m_folder.List(), "");
}

TEST_F(TemporaryFileTest, RemovesTheTemporaryPathAtItsEndAlsoWhenInvalid) {
    MakeFolder("dest");
    {
        const TemporaryFile file(m_temporary, m_destination);
        WriteTemporary("content");
    }
    EXPECT_EQ(m_folder.List(), "dest");
}

TEST_F(TemporaryFileTest, MovesTheFinishedFile) {
    {
        const TemporaryFile file(m_temporary, m_destination);
        WriteTemporary("content");
        EXPECT_TRUE(file.MoveToDest());
        EXPECT_EQ(m_folder.List(), "dest");
    }
    EXPECT_EQ(ReadFile(m_destination), "content");
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(TemporaryFileTest, PutsTheFinishedFileOnDiskBeforeItIsMoved) {
    const TemporaryFile file(m_temporary, m_destination);
    WriteTemporary("content");
    const SystemCalls calls;
    EXPECT_TRUE(file.MoveToDest());
    EXPECT_THAT(calls.Made(),
                ElementsAre("open temp", "fdatasync temp", "rename temp -> dest", "close dest"));
}

TEST_F(TemporaryFileTest, LogsAMoveOfAFileThatWasNeverMade) {
    const TemporaryFile file(m_temporary, m_destination);
    EXPECT_FALSE(file.MoveToDest());
    EXPECT_THAT(m_log.Errors(), ElementsAre(RenameLine()));
}

TEST_F(TemporaryFileTest, LogsAMoveThatTheSystemRefuses) {
    const TemporaryFile file(m_temporary, m_destination);
    WriteTemporary("content");
    SystemCalls calls;
    calls.Fail("rename", EACCES);
    EXPECT_FALSE(file.MoveToDest());
    EXPECT_THAT(m_log.Errors(), ElementsAre(RenameLine()));
    EXPECT_EQ(m_folder.List(), "temp");
}

TEST_F(TemporaryFileTest, DoesNotMoveALinkPutInItsPlace) {
    const TemporaryFile file(m_temporary, m_destination);
    MakeLink(m_folder.Write("target", "precious"), "temp");
    EXPECT_FALSE(file.MoveToDest());
    EXPECT_EQ(m_folder.List(), "target temp");
}

TEST_F(TemporaryFileTest, CopyHasThePathsAndTheValidity) {
    MakeFolder("dest");
    const TemporaryFile invalid(m_temporary, m_destination);
    EXPECT_FALSE(TemporaryFile(invalid));

    const TemporaryFile valid(m_temporary, m_folder / "other");
    const TemporaryFile copy = valid; // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_TRUE(copy);
    WriteTemporary("content");
    EXPECT_TRUE(copy.MoveToDest());
    EXPECT_EQ(ReadFile(m_folder / "other"), "content");
}

TEST_F(TemporaryFileTest, CopyRemovesTheTemporaryPathOnceMore) {
    const TemporaryFile original(m_temporary, m_destination);
    WriteTemporary("content");
    { const TemporaryFile copy = original; } // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_EQ(m_folder.List(), "");
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

} // namespace
} // namespace Halvex::App
