#include "ResourceDownloadManager/Downloader/PathClaim.h"

#include "support/TemporaryFolder.h"
#include "support/Waiting.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <future>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace Halvex::App {
namespace {

using Halvex::Testing::Event;
using Halvex::Testing::TemporaryFolder;
using Halvex::Testing::WaitUntil;

bool GiveUpAtOnce() {
    return true;
}

bool IsFree(const ioPath& path) {
    return static_cast<bool>(PathClaim(path, GiveUpAtOnce));
}

/// Tries to claim a path on a thread of its own.
class Waiter {
public:
    explicit Waiter(const ioPath& path)
        : m_result(std::async(std::launch::async, [this, path] {
              const PathClaim claim(path, [this] {
                  ++m_questions;
                  m_waiting.Set();
                  return m_giveUp.load();
              });
              return static_cast<bool>(claim);
          })) {}

    /// Until it was asked whether to give up.
    bool HasToWait() { return m_waiting.Wait(); }
    void GiveUp() { m_giveUp = true; }
    int Questions() const { return m_questions; }
    /// Whether it got the claim in the end.
    bool Result() { return m_result.get(); }

private:
    Event m_waiting;
    std::atomic<bool> m_giveUp{false};
    std::atomic<int> m_questions{0};
    std::future<bool> m_result;
};

class PathClaimTest : public testing::Test {
protected:
    const TemporaryFolder m_folder;
    const ioPath m_path = m_folder / "temp";
};

TEST_F(PathClaimTest, IsHeldAtOnceWhenThePathIsFree) {
    const PathClaim claim(m_path, GiveUpAtOnce);
    EXPECT_TRUE(claim);
}

TEST_F(PathClaimTest, DoesNotAskWhetherToGiveUpWhenThePathIsFree) {
    int questions = 0;
    const PathClaim claim(m_path, [&] { return ++questions > 0; });
    EXPECT_EQ(questions, 0);
}

TEST_F(PathClaimTest, IsNotHeldTwice) {
    const PathClaim claim(m_path, GiveUpAtOnce);
    EXPECT_FALSE(IsFree(m_path));
}

TEST_F(PathClaimTest, EndsWithItsObject) {
    { const PathClaim claim(m_path, GiveUpAtOnce); }
    EXPECT_TRUE(IsFree(m_path));
}

TEST_F(PathClaimTest, IsNotEndedByOneThatGaveUp) {
    const PathClaim claim(m_path, GiveUpAtOnce);
    EXPECT_FALSE(IsFree(m_path));
    EXPECT_FALSE(IsFree(m_path));
}

TEST_F(PathClaimTest, LeavesOtherPathsFree) {
    const PathClaim claim(m_path, GiveUpAtOnce);
    EXPECT_TRUE(IsFree(m_folder / "temp2"));
    EXPECT_TRUE(IsFree(m_folder / "tem"));
    EXPECT_TRUE(IsFree(m_folder.Path()));
}

TEST_F(PathClaimTest, LeavesTheSameNameInAnotherFolderFree) {
    std::filesystem::create_directory((m_folder / "other").string());
    const PathClaim claim(m_path, GiveUpAtOnce);
    EXPECT_TRUE(IsFree(m_folder / "other/temp"));
    EXPECT_FALSE(claim.IsOn(m_folder / "other/temp"));
}

TEST_F(PathClaimTest, TakesOtherSpellingsForTheSamePath) {
    const PathClaim claim(m_path, GiveUpAtOnce);
    EXPECT_FALSE(IsFree(m_folder / "./temp"));
    EXPECT_FALSE(IsFree(m_folder / "/temp"));
    EXPECT_FALSE(IsFree(m_folder / "other/../temp"));
}

TEST_F(PathClaimTest, TakesARelativePathForTheSameAsItsAbsoluteOne) {
    const ioPath absolute(std::filesystem::absolute("temp").string());
    const PathClaim claim("temp", GiveUpAtOnce);
    EXPECT_FALSE(IsFree(absolute));
}

TEST_F(PathClaimTest, TakesAWayThroughALinkedFolderForTheSamePath) {
    std::filesystem::create_directory((m_folder / "real").string());
    std::filesystem::create_directory_symlink("real", (m_folder / "link").string());
    const PathClaim claim(m_folder / "real/temp", GiveUpAtOnce);
    EXPECT_FALSE(IsFree(m_folder / "link/temp"));
    EXPECT_FALSE(IsFree(m_folder / "link/../real/temp"));
    EXPECT_TRUE(claim.IsOn(m_folder / "link/temp"));
    EXPECT_FALSE(claim.IsOn(m_folder / "link/other"));
}

TEST_F(PathClaimTest, TakesALinkAtThePathForTheFileThatReplacesIt) {
    std::filesystem::create_symlink("elsewhere", m_path.string());
    const PathClaim claim(m_path, GiveUpAtOnce);
    EXPECT_TRUE(IsFree(m_folder / "elsewhere"));
}

TEST_F(PathClaimTest, TouchesNothingOnDisk) {
    const PathClaim claim(m_path, GiveUpAtOnce);
    EXPECT_EQ(m_folder.List(), "");
}

TEST_F(PathClaimTest, IsGotByAWaiterOnceItIsGivenBack) {
    std::optional<PathClaim> claim;
    claim.emplace(m_path, GiveUpAtOnce);
    Waiter waiter(m_path);
    EXPECT_TRUE(waiter.HasToWait());
    claim.reset();
    EXPECT_TRUE(waiter.Result());
}

TEST_F(PathClaimTest, IsNotHeldByAWaiterThatGaveUp) {
    const PathClaim claim(m_path, GiveUpAtOnce);
    Waiter waiter(m_path);
    EXPECT_TRUE(waiter.HasToWait());
    waiter.GiveUp();
    EXPECT_FALSE(waiter.Result());
}

TEST_F(PathClaimTest, AsksAWaiterAgainAndAgain) {
    const PathClaim claim(m_path, GiveUpAtOnce);
    Waiter waiter(m_path);
    EXPECT_TRUE(WaitUntil([&] { return waiter.Questions() >= 3; }));
    waiter.GiveUp();
    EXPECT_FALSE(waiter.Result());
}

TEST_F(PathClaimTest, IsGotByEveryWaiterInTheEnd) {
    std::optional<PathClaim> claim;
    claim.emplace(m_path, GiveUpAtOnce);
    Waiter first(m_path);
    Waiter second(m_path);
    EXPECT_TRUE(first.HasToWait());
    EXPECT_TRUE(second.HasToWait());
    claim.reset();
    EXPECT_TRUE(first.Result());
    EXPECT_TRUE(second.Result());
}

TEST_F(PathClaimTest, IsNotHeldWhenTheQuestionThrows) {
    std::optional<PathClaim> claim;
    claim.emplace(m_path, GiveUpAtOnce);
    const auto throwing = []() -> bool {
        throw std::runtime_error("stop");
    };
    EXPECT_THROW(PathClaim(m_path, throwing), std::runtime_error);
    claim.reset();
    EXPECT_TRUE(IsFree(m_path));
}

TEST_F(PathClaimTest, IsHeldByOneThreadAtATime) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 500;
    int holders = 0;
    int rounds = 0;
    bool shared = false;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds; ++round) {
                const PathClaim claim(m_path, [] { return false; });
                shared = shared || ++holders != 1;
                ++rounds;
                --holders;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_FALSE(shared);
    EXPECT_EQ(rounds, kThreads * kRounds);
}

} // namespace
} // namespace Halvex::App
