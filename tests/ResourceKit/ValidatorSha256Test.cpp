#include "ResourceKit/ValidatorSha256.h"

#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "support/LogCapture.h"
#include "support/MemoryPeak.h"
#include "support/Sanitizers.h"
#include "support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace Halvex::Kit {
namespace {

using testing::IsEmpty;

// As sha256sum prints them.
constexpr char kSumOfAbc[] = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
constexpr char kSumOfAbd[] = "a52d159f262b2c6ddb724a61840befc36eb30c88877a4030b65cbe86298449c9";
constexpr std::uint64_t kLargeBytes = 256 * 1024 * 1024;
constexpr std::uint64_t kLittleBytes = 4 * 1024 * 1024;
constexpr char kSumOfLarge[] = "a6d72ac7690f53be6ae46ba88506bd97302a093f7108472bd9efc3cefda06484";

class ValidatorSha256Test : public testing::Test {
protected:
    ValidatorSha256Test() { descriptor.localPath = descriptor.downloadPath = folder / "file"; }

    std::int32_t Validate(const ExpectedFile& expected, const StopQuery& stop = {}) const {
        return ValidatorSha256([&](const auto&) { return expected; }, stop).Validate(&descriptor);
    }

    /// Rejected with this one line, in which the path stands in for "FILE".
    void ExpectRejection(const ExpectedFile& expected, std::string line) const {
        line.replace(line.find("FILE"), 4, descriptor.localPath.string());
        const Testing::LogCapture log;
        EXPECT_EQ(Validate(expected), 1);
        const auto lines = log.Lines();
        ASSERT_EQ(lines.size(), 1U);
        EXPECT_EQ(lines[0].text, line);
        EXPECT_EQ(lines[0].severity, google::GLOG_WARNING);
    }

    bool Exists() const { return descriptor.localPath.exists(); }

    const Testing::TemporaryFolder folder;
    App::ResourceDescriptor descriptor;
};

TEST_F(ValidatorSha256Test, AcceptsTheRightFileInSilence) {
    const Testing::LogCapture log;
    folder.Write("file", "abc");
    EXPECT_EQ(Validate({3, kSumOfAbc}), 0);
    EXPECT_TRUE(Exists());
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(ValidatorSha256Test, AcceptsAnyFileWhenNothingIsExpected) {
    folder.Write("file", "abc");
    EXPECT_EQ(Validate({}), 0);
}

TEST_F(ValidatorSha256Test, RejectsAndRemovesAnotherContent) {
    folder.Write("file", "abd");
    ExpectRejection({3, kSumOfAbc}, std::string("removing file=FILE: different: its sha256 is ") +
                                        kSumOfAbd + " instead of " + kSumOfAbc);
    EXPECT_FALSE(Exists());
}

TEST_F(ValidatorSha256Test, RejectsAndRemovesAnotherSize) {
    folder.Write("file", "abc");
    ExpectRejection({4, kSumOfAbc}, "removing file=FILE: short: 3 bytes instead of 4");
    EXPECT_FALSE(Exists());
    folder.Write("file", "abc");
    ExpectRejection({2, {}}, "removing file=FILE: long: 3 bytes instead of 2");
    EXPECT_FALSE(Exists());
}

TEST_F(ValidatorSha256Test, LeavesTheOldCopyOfAFileThatIsDownloadedElsewhere) {
    folder.Write("file", "abc");
    descriptor.downloadPath = folder / "new";
    ExpectRejection({4, {}}, "rejecting file=FILE: short: 3 bytes instead of 4");
    EXPECT_TRUE(Exists());
}

TEST_F(ValidatorSha256Test, LeavesAFileThatHasTakenThePlaceOfTheOneThatItRead) {
    folder.Write("file", "abd");
    folder.Write("better", "abc");
    bool comes = true;
    const auto replace = [&] {
        if (std::exchange(comes, false))
            App::ioPath::rename(folder / "better", descriptor.localPath);
        return false;
    };
    EXPECT_EQ(Validate({3, kSumOfAbc}, replace), 1);
    EXPECT_EQ(Testing::ReadFile(descriptor.localPath), "abc");
}

TEST_F(ValidatorSha256Test, NeedsNoMoreMemoryForALargeFile) {
    if (Testing::kSanitized)
        GTEST_SKIP() << "a sanitizer holds memory back";
    // Zeros that take no room on disk.
    std::filesystem::resize_file(folder.Write("file", "").string(), kLargeBytes);
    const Testing::MemoryPeak memory;
    ASSERT_TRUE(memory.IsReset());
    EXPECT_EQ(Validate({kLargeBytes, kSumOfLarge}), 0);
    EXPECT_LT(memory.Growth(), kLittleBytes);
    // It would have shown.
    const std::string much = Testing::SomeBytes(2 * kLittleBytes);
    EXPECT_GT(memory.Growth(), kLittleBytes);
}

TEST_F(ValidatorSha256Test, RejectsAMissingFile) {
    ExpectRejection({3, kSumOfAbc}, "rejecting file=FILE: missing");
}

TEST_F(ValidatorSha256Test, RejectsAFolderAndLeavesItAlone) {
    std::filesystem::create_directory(descriptor.localPath.string());
    ExpectRejection({}, "rejecting file=FILE: unreadable: no regular file");
    EXPECT_TRUE(Exists());
}

TEST_F(ValidatorSha256Test, RejectsInSilenceAndRemovesNothingOnceItIsToStop) {
    folder.Write("file", "abd");
    const Testing::LogCapture log;
    EXPECT_EQ(Validate({3, kSumOfAbc}, [] { return true; }), 1);
    EXPECT_THAT(log.Lines(), IsEmpty());
    EXPECT_TRUE(Exists());
}

TEST_F(ValidatorSha256Test, LooksUpEachDescriptorByItself) {
    App::ResourceDescriptor other;
    other.localPath = folder.Write("other", "abd");
    folder.Write("file", "abc");
    ValidatorSha256 validator([&](const App::ResourceDescriptor& asked) {
        return ExpectedFile{{}, &asked == &descriptor ? kSumOfAbc : kSumOfAbd};
    });
    EXPECT_EQ(validator.Validate(&descriptor), 0);
    EXPECT_EQ(validator.Validate(&other), 0);
}

TEST_F(ValidatorSha256Test, JudgesManyFilesAtOnce) {
    constexpr std::size_t kFiles = 64;
    std::vector<App::ResourceDescriptor> descriptors(kFiles);
    for (std::size_t i = 0; i < kFiles; ++i) {
        descriptors[i].localPath = folder.Write(std::to_string(i), i % 2 == 0 ? "abc" : "abd");
        descriptors[i].downloadPath = descriptors[i].localPath;
    }
    ValidatorSha256 validator([](const auto&) { return ExpectedFile{3, kSumOfAbc}; });
    std::atomic<std::size_t> next{0};
    std::atomic<std::size_t> rejected{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&] {
            for (std::size_t file = next++; file < kFiles; file = next++)
                rejected += static_cast<std::size_t>(validator.Validate(&descriptors[file]));
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(rejected, kFiles / 2);
    for (std::size_t i = 0; i < kFiles; ++i)
        EXPECT_EQ(descriptors[i].localPath.exists(), i % 2 == 0) << i;
}

TEST_F(ValidatorSha256Test, JudgesOneFileManyTimesAtOnceWhileNewCopiesTakeItsName) {
    descriptor.localPath = folder.Write("file", "abc");
    descriptor.downloadPath = descriptor.localPath;
    ValidatorSha256 validator([](const auto&) { return ExpectedFile{3, kSumOfAbc}; });
    std::atomic<int> rejected{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int round = 0; round < 100; ++round)
                rejected += validator.Validate(&descriptor);
        });
    for (int round = 0; round < 100; ++round)
        App::ioPath::rename(folder.Write("new", "abc"), descriptor.localPath);
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(rejected, 0);
    EXPECT_TRUE(descriptor.localPath.exists());
}

} // namespace
} // namespace Halvex::Kit
