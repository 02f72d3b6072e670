#include "Foundation/DataOutputFile.h"

#include "Foundation/Exception.h"
#include "support/FileSizeLimit.h"
#include "support/LogCapture.h"
#include "support/SystemCalls.h"
#include "support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Halvex::Core {
namespace {

using Halvex::Testing::FileSizeLimit;
using Halvex::Testing::LogCapture;
using Halvex::Testing::ReadFile;
using Halvex::Testing::SomeBytes;
using Halvex::Testing::SystemCalls;
using Halvex::Testing::TemporaryFolder;
using testing::ElementsAre;
using testing::IsEmpty;

class DataOutputFileTest : public testing::Test {
protected:
    void Open() { m_output = DataOutputFile::Create(m_path); }
    std::size_t Write(const std::string& bytes) {
        return m_output->Write(bytes.data(), bytes.size());
    }
    void Release() { m_output.reset(); }

    /// The write of these bytes fails after the first one.
    void FailToWrite(const std::string& bytes) {
        SystemCalls calls;
        calls.Shorten("write", 1);
        calls.Fail("write", ENOSPC);
        EXPECT_EQ(Write(bytes), 1U);
    }

    std::string FullDiskLine() const {
        return "failed to write file=" + m_path.string() + ", errno=28 (No space left on device)";
    }

    /// The details of the exception that opening the path throws.
    static std::string RefusalOf(const ioPath& path) {
        try {
            DataOutputFile::Create(path);
        } catch (const Exception& exception) {
            const std::string* const details = boost::get_error_info<ErrorDetails>(exception);
            return details != nullptr ? *details : "no details";
        }
        return "not refused";
    }

    const LogCapture m_log;
    const TemporaryFolder m_folder;
    const ioPath m_path = m_folder / "a";
    boost::intrusive_ptr<IDataOutput> m_output;
};

TEST_F(DataOutputFileTest, MakesTheFile) {
    Open();
    Release();
    EXPECT_EQ(ReadFile(m_path), "");
}

TEST_F(DataOutputFileTest, EmptiesTheFileThatIsThere) {
    m_folder.Write("a", "old");
    Open();
    EXPECT_EQ(ReadFile(m_path), "");
}

TEST_F(DataOutputFileTest, AppendsWhatIsWritten) {
    Open();
    EXPECT_EQ(Write("12"), 2U);
    EXPECT_EQ(Write(""), 0U);
    EXPECT_EQ(Write("345"), 3U);
    Release();
    EXPECT_EQ(ReadFile(m_path), "12345");
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(DataOutputFileTest, PassesBytesOnAtOnce) {
    Open();
    Write("12345");
    EXPECT_EQ(ReadFile(m_path), "12345");
}

TEST_F(DataOutputFileTest, ClosesTheFileWhenTheLastOwnerLetsGo) {
    const SystemCalls calls;
    Open();
    auto another = m_output;
    Release();
    EXPECT_THAT(calls.Made(), ElementsAre("open a"));
    another.reset();
    EXPECT_THAT(calls.Made(), ElementsAre("open a", "close a"));
}

TEST_F(DataOutputFileTest, KeepsAFileThatWasWrittenWhole) {
    const SystemCalls calls;
    Open();
    Write("12345");
    Release();
    EXPECT_THAT(calls.Made(), ElementsAre("open a", "write a 5", "close a"));
}

TEST_F(DataOutputFileTest, GoesOnAfterAShortWrite) {
    Open();
    SystemCalls calls;
    calls.Shorten("write", 2);
    EXPECT_EQ(Write("12345"), 5U);
    EXPECT_THAT(calls.Made(), ElementsAre("write a 5", "write a 3"));
    EXPECT_EQ(ReadFile(m_path), "12345");
}

TEST_F(DataOutputFileTest, GoesOnAfterAnInterruptedWrite) {
    Open();
    SystemCalls calls;
    calls.Fail("write", EINTR);
    EXPECT_EQ(Write("12345"), 5U);
    Release();
    EXPECT_EQ(ReadFile(m_path), "12345");
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(DataOutputFileTest, TellsHowManyBytesWereWrittenBeforeAFailure) {
    Open();
    SystemCalls calls;
    calls.Shorten("write", 3);
    calls.Fail("write", EIO);
    EXPECT_EQ(Write("12345"), 3U);
}

TEST_F(DataOutputFileTest, LogsAFailedWrite) {
    Open();
    FailToWrite("12345");
    EXPECT_THAT(m_log.Errors(), ElementsAre(FullDiskLine()));
}

TEST_F(DataOutputFileTest, TakesAWriteOfNothingForAFullDisk) {
    Open();
    SystemCalls calls;
    calls.Shorten("write", 0);
    EXPECT_EQ(Write("12345"), 0U);
    EXPECT_THAT(m_log.Errors(), ElementsAre(FullDiskLine()));
}

TEST_F(DataOutputFileTest, AcceptsNothingMoreAfterAFailure) {
    Open();
    FailToWrite("12345");
    const SystemCalls calls;
    EXPECT_EQ(Write("678"), 0U);
    EXPECT_THAT(calls.Made(), IsEmpty());
}

TEST_F(DataOutputFileTest, LogsOneLineHoweverMuchFails) {
    Open();
    FailToWrite("12345");
    Write("678");
    SystemCalls calls;
    calls.Fail("close", EIO);
    Release();
    EXPECT_THAT(m_log.Errors(), ElementsAre(FullDiskLine()));
}

TEST_F(DataOutputFileTest, RemovesTheFileOnlyOnReleaseAfterAFailure) {
    Open();
    FailToWrite("12345");
    EXPECT_EQ(m_folder.List(), "a");
    Release();
    EXPECT_EQ(m_folder.List(), "");
}

TEST_F(DataOutputFileTest, RemovesTheFailedFileBeforeItIsClosed) {
    Open();
    FailToWrite("12345");
    const SystemCalls calls;
    Release();
    EXPECT_THAT(calls.Made(), ElementsAre("unlink a", "close a (deleted)"));
}

TEST_F(DataOutputFileTest, RemovesTheFileWhenTheSystemRefusesMoreBytes) {
    Open();
    {
        const FileSizeLimit limit(4096);
        EXPECT_EQ(Write(SomeBytes(10'000)), 4096U);
    }
    EXPECT_EQ(Write("more"), 0U);
    Release();
    EXPECT_EQ(m_folder.List(), "");
    EXPECT_THAT(m_log.Errors(), ElementsAre("failed to write file=" + m_path.string() +
                                            ", errno=27 (File too large)"));
}

TEST_F(DataOutputFileTest, LogsAFailedCloseAndRemovesTheFile) {
    Open();
    Write("12345");
    SystemCalls calls;
    calls.Fail("close", EIO);
    Release();
    EXPECT_EQ(m_folder.List(), "");
    EXPECT_THAT(m_log.Errors(), ElementsAre("failed to close file=" + m_path.string() +
                                            ", errno=5 (Input/output error)"));
}

TEST_F(DataOutputFileTest, LeavesAFileThatHasReplacedItsOwn) {
    Open();
    FailToWrite("12345");
    m_folder.Write("newcomer", "somebody else's");
    std::filesystem::rename((m_folder / "newcomer").string(), m_path.string());
    Release();
    EXPECT_EQ(ReadFile(m_path), "somebody else's");
}

TEST_F(DataOutputFileTest, LeavesALinkThatHasReplacedItsFile) {
    Open();
    FailToWrite("12345");
    const ioPath moved = m_folder / "moved";
    std::filesystem::rename(m_path.string(), moved.string());
    std::filesystem::create_symlink(moved.string(), m_path.string());
    Release();
    EXPECT_EQ(m_folder.List(), "a moved");
}

TEST_F(DataOutputFileTest, LeavesAReplacementAlsoAfterAFailedClose) {
    Open();
    m_folder.Write("newcomer", "somebody else's");
    std::filesystem::rename((m_folder / "newcomer").string(), m_path.string());
    SystemCalls calls;
    calls.Fail("close", EIO);
    Release();
    EXPECT_EQ(ReadFile(m_path), "somebody else's");
}

TEST_F(DataOutputFileTest, BearsThatItsFailedFileIsGoneAlready) {
    Open();
    FailToWrite("12345");
    std::filesystem::remove(m_path.string());
    Release();
    EXPECT_EQ(m_folder.List(), "");
    EXPECT_THAT(m_log.Errors(), ElementsAre(FullDiskLine()));
}

TEST_F(DataOutputFileTest, DoesNotFollowALink) {
    const ioPath target = m_folder.Write("target", "precious");
    std::filesystem::create_symlink(target.string(), m_path.string());
    EXPECT_EQ(RefusalOf(m_path), "40 (Too many levels of symbolic links)");
    EXPECT_EQ(ReadFile(target), "precious");
}

TEST_F(DataOutputFileTest, DoesNotMakeWhatADanglingLinkLeadsTo) {
    std::filesystem::create_symlink((m_folder / "target").string(), m_path.string());
    EXPECT_EQ(RefusalOf(m_path), "40 (Too many levels of symbolic links)");
    EXPECT_EQ(m_folder.List(), "a");
}

TEST_F(DataOutputFileTest, RefusesAPipeWithoutWaitingForItsReader) {
    ASSERT_EQ(::mkfifo(m_path.string().c_str(), 0600), 0);
    EXPECT_EQ(RefusalOf(m_path), "6 (No such device or address)");
    EXPECT_EQ(m_folder.List(), "a");
}

TEST_F(DataOutputFileTest, RefusesAPipeThatHasAReader) {
    ASSERT_EQ(::mkfifo(m_path.string().c_str(), 0600), 0);
    const int reader = ::open(m_path.string().c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    EXPECT_EQ(RefusalOf(m_path), "22 (Invalid argument)");
    EXPECT_EQ(m_folder.List(), "a");
    ::close(reader);
}

TEST_F(DataOutputFileTest, RefusesADevice) {
    EXPECT_EQ(RefusalOf("/dev/null"), "22 (Invalid argument)");
}

TEST_F(DataOutputFileTest, RefusesAFolder) {
    EXPECT_EQ(RefusalOf(m_folder.Path()), "21 (Is a directory)");
}

TEST_F(DataOutputFileTest, RefusesAMissingFolder) {
    EXPECT_EQ(RefusalOf(m_folder / "missing/a"), "2 (No such file or directory)");
    EXPECT_EQ(m_folder.List(), "");
}

TEST_F(DataOutputFileTest, RefusesAPathWithAZeroByte) {
    EXPECT_EQ(RefusalOf(m_folder / std::string("a\0b", 3)), "22 (Invalid argument)");
    EXPECT_EQ(m_folder.List(), "");
}

TEST_F(DataOutputFileTest, RefusesAnOverlongName) {
    EXPECT_EQ(RefusalOf(m_folder / std::string(300, 'a')), "36 (File name too long)");
}

} // namespace
} // namespace Halvex::Core
