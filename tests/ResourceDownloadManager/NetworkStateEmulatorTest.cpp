#include "ResourceDownloadManager/NetworkStateEmulator.h"

#include "support/LogCapture.h"
#include "support/SystemCalls.h"
#include "support/TemporaryFolder.h"
#include "support/VirtualSlot.h"

#include <gmock/gmock.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace Halvex::App {
namespace {

using Halvex::Testing::LogCapture;
using Halvex::Testing::SystemCalls;
using Halvex::Testing::TemporaryFolder;
using testing::IsEmpty;
using State = INetworkStateChecker::State;

class NetworkStateEmulatorTest : public testing::Test {
protected:
    void CreateMarker() { m_folder.Write("offline", ""); }

    const TemporaryFolder m_folder;
    const ioPath m_marker = m_folder / "offline";
    const NetworkStateEmulator m_emulator{m_marker};
};

TEST_F(NetworkStateEmulatorTest, IsOnlineWithoutItsMarkerFile) {
    m_folder.Write("another", "");
    EXPECT_EQ(m_emulator.GetState(), State::Online);
}

TEST_F(NetworkStateEmulatorTest, IsOfflineWithItsMarkerFile) {
    CreateMarker();
    EXPECT_EQ(m_emulator.GetState(), State::Offline);
}

TEST_F(NetworkStateEmulatorTest, ChangesWithItsMarkerFileFromCallToCall) {
    EXPECT_EQ(m_emulator.GetState(), State::Online);
    CreateMarker();
    EXPECT_EQ(m_emulator.GetState(), State::Offline);
    m_marker.remove();
    EXPECT_EQ(m_emulator.GetState(), State::Online);
}

TEST_F(NetworkStateEmulatorTest, IsOnlineWithAnEmptyPathWhateverTheCurrentFolderHolds) {
    CreateMarker();
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(m_folder.Path());
    EXPECT_EQ(NetworkStateEmulator(ioPath()).GetState(), State::Online);
    EXPECT_EQ(NetworkStateEmulator("offline").GetState(), State::Offline);
    std::filesystem::current_path(before);
}

TEST_F(NetworkStateEmulatorTest, TakesAFolderForAMarker) {
    EXPECT_EQ(NetworkStateEmulator(m_folder.Path()).GetState(), State::Offline);
}

TEST_F(NetworkStateEmulatorTest, IsOnlineWhenItCannotLook) {
    const LogCapture log;
    const NetworkStateEmulator emulator(m_folder / std::string(300, 'a'));
    EXPECT_EQ(emulator.GetState(), State::Online);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(NetworkStateEmulatorTest, NeverOpensItsMarkerFile) {
    CreateMarker();
    const SystemCalls calls;
    EXPECT_EQ(m_emulator.GetState(), State::Offline);
    EXPECT_THAT(calls.Made(), IsEmpty());
}

TEST_F(NetworkStateEmulatorTest, IsCopiedWithItsPath) {
    const NetworkStateEmulator copy = m_emulator;
    CreateMarker();
    EXPECT_EQ(copy.GetState(), State::Offline);
    EXPECT_EQ(m_emulator.GetState(), State::Offline);
}

TEST_F(NetworkStateEmulatorTest, IsMovedWithItsPath) {
    NetworkStateEmulator original(m_marker);
    const NetworkStateEmulator moved = std::move(original);
    CreateMarker();
    EXPECT_EQ(moved.GetState(), State::Offline);
}

TEST_F(NetworkStateEmulatorTest, AnswersManyThreadsAtOnce) {
    constexpr int kThreads = 4;
    constexpr int kCalls = 1000;
    CreateMarker();
    std::atomic<int> offline{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (int call = 0; call < kCalls; ++call)
                offline += m_emulator.GetState() == State::Offline ? 1 : 0;
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(offline, kThreads * kCalls);
}

TEST(INetworkStateChecker, KeepsThePlaceOfItsOperation) {
    EXPECT_EQ(Halvex::Testing::VirtualSlot(&INetworkStateChecker::GetState), 1U);
}

} // namespace
} // namespace Halvex::App
