#include "Sha256Validator.h"

#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "support/LogCapture.h"
#include "support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <filesystem>

#include <sys/stat.h>

namespace Halvex::Fetch {
namespace {

constexpr const char* kSumOfAbc =
    "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
/// Of a million times the letter a: several pieces.
constexpr const char* kSumOfMillion =
    "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0";

class Sha256ValidatorTest : public testing::Test {
protected:
    Sha256ValidatorTest() { descriptor.localPath = folder / "file"; }

    std::int32_t Validate(const std::string& sum) {
        return Sha256Validator({{&descriptor, sum}}).Validate(&descriptor);
    }
    bool Exists() const { return descriptor.localPath.exists(); }

    Testing::TemporaryFolder folder;
    App::ResourceDescriptor descriptor;
    Testing::LogCapture log;
};

TEST_F(Sha256ValidatorTest, AcceptsTheRightFile) {
    folder.Write("file", "abc");
    EXPECT_EQ(Validate(kSumOfAbc), 0);
    EXPECT_TRUE(Exists());
}

TEST_F(Sha256ValidatorTest, ReadsAFileOfManyPiecesToItsEnd) {
    folder.Write("file", std::string(1'000'000, 'a'));
    EXPECT_EQ(Validate(kSumOfMillion), 0);
}

TEST_F(Sha256ValidatorTest, RejectsAndRemovesAnotherFile) {
    folder.Write("file", "abd");
    EXPECT_EQ(Validate(kSumOfAbc), 1);
    EXPECT_FALSE(Exists());
}

TEST_F(Sha256ValidatorTest, RejectsWhatCannotBeRead) {
    EXPECT_EQ(Validate(kSumOfAbc), 1);
    EXPECT_THAT(log.Errors(),
                testing::ElementsAre("cannot read file=" + descriptor.localPath.string() +
                                     " for its checksum"));
}

TEST_F(Sha256ValidatorTest, RejectsAFolderAndLeavesItAlone) {
    std::filesystem::create_directory(descriptor.localPath.string());
    EXPECT_EQ(Validate(kSumOfAbc), 1);
    EXPECT_TRUE(Exists());
}

TEST_F(Sha256ValidatorTest, DoesNotWaitForAPipe) {
    ASSERT_EQ(::mkfifo(descriptor.localPath.string().c_str(), 0600), 0);
    EXPECT_EQ(Validate(kSumOfAbc), 1);
}

TEST_F(Sha256ValidatorTest, AcceptsFilesWithoutAChecksum) {
    EXPECT_EQ(Sha256Validator({}).Validate(&descriptor), 0);
}

TEST_F(Sha256ValidatorTest, JudgesTheSameWayAsAPostProcessor) {
    folder.Write("file", "abc");
    Sha256Validator validator({{&descriptor, kSumOfAbc}});
    EXPECT_EQ(validator.Process(&descriptor), 0);
    folder.Write("file", "abd");
    EXPECT_NE(validator.Process(&descriptor), 0);
}

TEST_F(Sha256ValidatorTest, RejectsInSilenceAndRemovesNothingOnceAborted) {
    folder.Write("file", "abd");
    Sha256Validator validator({{&descriptor, kSumOfAbc}});
    validator.Abort();
    EXPECT_EQ(validator.Validate(&descriptor), 1);
    EXPECT_THAT(log.Errors(), testing::IsEmpty());
    EXPECT_TRUE(Exists());
}

} // namespace
} // namespace Halvex::Fetch
