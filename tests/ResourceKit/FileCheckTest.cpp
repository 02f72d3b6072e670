#include "ResourceKit/FileCheck.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include <sys/stat.h>

namespace Halvex::Kit {
namespace {

using Testing::SomeBytes;
using Testing::TemporaryFolder;
using Verdict = FileFinding::Verdict;

// As sha256sum prints them.
constexpr char kSumOfAbc[] = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
constexpr char kSumOfNothing[] = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
constexpr char kSumOfAMillionA[] =
    "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0";

class FileCheck : public testing::Test {
protected:
    void Expect(const ExpectedFile& expected, Verdict verdict, const std::string& message) const {
        const FileFinding finding = CheckFile(m_file, expected);
        EXPECT_EQ(finding.verdict, verdict);
        EXPECT_EQ(finding.message, message);
    }

    const TemporaryFolder m_folder;
    const App::ioPath m_file = m_folder.Write("file", "abc");
};

TEST_F(FileCheck, AcceptsAnyFileWhenNothingIsExpected) {
    Expect({}, Verdict::Good, "");
}

TEST_F(FileCheck, AcceptsTheRightSizeAndContent) {
    Expect({3, kSumOfAbc}, Verdict::Good, "");
    Expect({3, ""}, Verdict::Good, "");
    Expect({{}, kSumOfAbc}, Verdict::Good, "");
}

TEST_F(FileCheck, TakesDigitsInUpperCase) {
    Expect({{}, "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD"}, Verdict::Good,
           "");
}

TEST_F(FileCheck, TellsShortFromLong) {
    Expect({4, kSumOfAbc}, Verdict::Short, "short: 3 bytes instead of 4");
    Expect({2, kSumOfAbc}, Verdict::Long, "long: 3 bytes instead of 2");
}

TEST_F(FileCheck, FindsAnotherContent) {
    Expect({3, kSumOfNothing}, Verdict::Different,
           std::string("different: its sha256 is ") + kSumOfAbc + " instead of " + kSumOfNothing);
}

TEST_F(FileCheck, FindsThatAFileIsMissing) {
    for (const char* path : {"nothing", "file/below"}) {
        const FileFinding finding = CheckFile(m_folder / path, {3, kSumOfAbc});
        EXPECT_EQ(finding.verdict, Verdict::Missing) << path;
        EXPECT_EQ(finding.message, "missing") << path;
    }
}

TEST_F(FileCheck, CannotReadWhatIsNoRegularFile) {
    ASSERT_EQ(::mkfifo((m_folder / "pipe").string().c_str(), 0600), 0);
    for (const App::ioPath& path : {m_folder / "pipe", App::ioPath(m_folder.Path())}) {
        const FileFinding finding = CheckFile(path, {});
        EXPECT_EQ(finding.verdict, Verdict::Unreadable) << path;
        EXPECT_EQ(finding.message, "unreadable: no regular file") << path;
        EXPECT_EQ(Sha256OfFile(path), std::nullopt) << path;
    }
}

TEST_F(FileCheck, SaysWhyAFileCannotBeOpened) {
    const FileFinding finding = CheckFile(m_folder / std::string(300, 'a'), {});
    EXPECT_EQ(finding.verdict, Verdict::Unreadable);
    EXPECT_EQ(finding.message, "unreadable: File name too long");
}

TEST_F(FileCheck, TakesNoPathForThatBeforeItsZeroByte) {
    const FileFinding finding = CheckFile(m_folder / std::string("file\0x", 6), {});
    EXPECT_EQ(finding.verdict, Verdict::Unreadable);
    EXPECT_EQ(finding.message, "unreadable: Invalid argument");
}

TEST_F(FileCheck, DoesNotReadAFileOfTheWrongSize) {
    bool isAsked = false;
    CheckFile(m_file, {4, kSumOfAbc}, [&] { return isAsked = true; });
    EXPECT_FALSE(isAsked);
}

TEST_F(FileCheck, StopsBetweenTwoPieces) {
    const App::ioPath file = m_folder.Write("large", SomeBytes(1024 * 1024));
    int questions = 0;
    const FileFinding finding = CheckFile(file, {{}, kSumOfAbc}, [&] { return ++questions == 3; });
    EXPECT_EQ(finding.verdict, Verdict::Stopped);
    EXPECT_EQ(finding.message, "stopped before all was read");
    EXPECT_EQ(questions, 3);
}

TEST_F(FileCheck, SumsUpFilesOfAnySize) {
    EXPECT_EQ(Sha256OfFile(m_file), kSumOfAbc);
    EXPECT_EQ(Sha256OfFile(m_folder.Write("empty", "")), kSumOfNothing);
    EXPECT_EQ(Sha256OfFile(m_folder.Write("large", std::string(1'000'000, 'a'))), kSumOfAMillionA);
}

TEST_F(FileCheck, HasNoSumOfAFileThatIsMissingOrNoLongerWanted) {
    EXPECT_EQ(Sha256OfFile(m_folder / "nothing"), std::nullopt);
    EXPECT_EQ(Sha256OfFile(m_file, [] { return true; }), std::nullopt);
}

} // namespace
} // namespace Halvex::Kit
