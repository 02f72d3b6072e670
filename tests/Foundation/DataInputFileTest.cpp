#include "Foundation/DataInputFile.h"

#include "Foundation/Exception.h"
#include "support/SystemCalls.h"
#include "support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include <sys/stat.h>

namespace Halvex::Core {
namespace {

using Halvex::Testing::SomeBytes;
using Halvex::Testing::SystemCalls;
using Halvex::Testing::TemporaryFolder;
using testing::ElementsAre;

class DataInputFileTest : public testing::Test {
protected:
    boost::intrusive_ptr<IDataInput> OpenFileWith(const std::string& content) {
        return DataInputFile::Create(m_folder.Write("a", content));
    }

    static std::string Read(IDataInput& input, std::size_t size) {
        std::string buffer(size, '\0');
        buffer.resize(input.Read(buffer.data(), size));
        return buffer;
    }

    /// The details of the exception that opening the path throws.
    static std::string RefusalOf(const ioPath& path) {
        try {
            DataInputFile::Create(path);
        } catch (const Exception& exception) {
            const std::string* const details = boost::get_error_info<ErrorDetails>(exception);
            return details != nullptr ? *details : "no details";
        }
        return "not refused";
    }

    const TemporaryFolder m_folder;
};

TEST_F(DataInputFileTest, TellsTheSizeOfTheWholeFile) {
    EXPECT_EQ(OpenFileWith("")->Size(), 0U);
    EXPECT_EQ(OpenFileWith("12345")->Size(), 5U);
}

TEST_F(DataInputFileTest, TellsTheSameSizeAfterAPartIsRead) {
    const auto input = OpenFileWith("12345");
    Read(*input, 3);
    EXPECT_EQ(input->Size(), 5U);
}

TEST_F(DataInputFileTest, TellsSizesBeyond32Bits) {
    const ioPath path = m_folder.Write("a", "");
    std::filesystem::resize_file(path.string(), 5'000'000'000);
    EXPECT_EQ(DataInputFile::Create(path)->Size(), 5'000'000'000U);
}

TEST_F(DataInputFileTest, ReadsTheWholeInOneCall) {
    const std::string content = SomeBytes(1'000'000);
    EXPECT_EQ(Read(*OpenFileWith(content), content.size()), content);
}

TEST_F(DataInputFileTest, GoesOnWhereTheLastReadEnded) {
    const auto input = OpenFileWith("12345");
    EXPECT_EQ(Read(*input, 2), "12");
    EXPECT_EQ(Read(*input, 2), "34");
}

TEST_F(DataInputFileTest, ReadsFewerBytesOnlyAtTheEnd) {
    const auto input = OpenFileWith("12345");
    EXPECT_EQ(Read(*input, 10), "12345");
    EXPECT_EQ(Read(*input, 10), "");
}

TEST_F(DataInputFileTest, GoesOnAfterAShortRead) {
    const auto input = OpenFileWith("12345");
    SystemCalls calls;
    calls.Shorten("read", 2);
    EXPECT_EQ(Read(*input, 5), "12345");
    EXPECT_THAT(calls.Made(), ElementsAre("read a 5", "read a 3"));
}

TEST_F(DataInputFileTest, GoesOnAfterAnInterruptedRead) {
    const auto input = OpenFileWith("12345");
    SystemCalls calls;
    calls.Fail("read", EINTR);
    EXPECT_EQ(Read(*input, 5), "12345");
}

TEST_F(DataInputFileTest, ThrowsWhenAReadFails) {
    const auto input = OpenFileWith("12345");
    SystemCalls calls;
    calls.Fail("read", EIO);
    EXPECT_THROW(Read(*input, 5), Exception);
}

TEST_F(DataInputFileTest, ClosesTheFileWhenTheLastOwnerLetsGo) {
    const SystemCalls calls;
    auto input = OpenFileWith("");
    EXPECT_THAT(calls.Made(), ElementsAre("open a"));
    input.reset();
    EXPECT_THAT(calls.Made(), ElementsAre("open a", "close a"));
}

TEST_F(DataInputFileTest, RefusesAMissingFile) {
    EXPECT_EQ(RefusalOf(m_folder / "missing"), "2 (No such file or directory)");
}

TEST_F(DataInputFileTest, RefusesTheEmptyPath) {
    EXPECT_EQ(RefusalOf(ioPath()), "2 (No such file or directory)");
}

TEST_F(DataInputFileTest, RefusesAFolder) {
    EXPECT_EQ(RefusalOf(m_folder.Path()), "21 (Is a directory)");
}

TEST_F(DataInputFileTest, RefusesAPipeWithoutWaitingForItsWriter) {
    const ioPath pipe = m_folder / "pipe";
    ASSERT_EQ(::mkfifo(pipe.string().c_str(), 0600), 0);
    EXPECT_EQ(RefusalOf(pipe), "22 (Invalid argument)");
}

TEST_F(DataInputFileTest, RefusesADevice) {
    EXPECT_EQ(RefusalOf("/dev/zero"), "22 (Invalid argument)");
}

TEST_F(DataInputFileTest, ClosesWhatItRefuses) {
    const SystemCalls calls;
    RefusalOf("/dev/zero");
    EXPECT_THAT(calls.Made(), ElementsAre("open zero", "close zero"));
}

TEST_F(DataInputFileTest, RefusesAPathWithAZeroByte) {
    m_folder.Write("a", "");
    EXPECT_EQ(RefusalOf(m_folder / std::string("a\0b", 3)), "22 (Invalid argument)");
}

TEST_F(DataInputFileTest, RefusesAnOverlongName) {
    EXPECT_EQ(RefusalOf(m_folder / std::string(300, 'a')), "36 (File name too long)");
}

TEST_F(DataInputFileTest, FollowsALink) {
    const ioPath target = m_folder.Write("target", "12345");
    std::filesystem::create_symlink(target.string(), (m_folder / "link").string());
    EXPECT_EQ(DataInputFile::Create(m_folder / "link")->Size(), 5U);
}

} // namespace
} // namespace Halvex::Core
