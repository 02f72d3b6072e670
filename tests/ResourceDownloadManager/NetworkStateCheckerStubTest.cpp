#include "ResourceDownloadManager/NetworkStateCheckerStub.h"

#include <gtest/gtest.h>

#include <memory>
#include <type_traits>

namespace Halvex::App {
namespace {

TEST(NetworkStateCheckerStub, IsAlwaysOnline) {
    const std::unique_ptr<const INetworkStateChecker> checker =
        std::make_unique<NetworkStateCheckerStub>();
    EXPECT_EQ(checker->GetState(), INetworkStateChecker::State::Online);
    EXPECT_EQ(checker->GetState(), INetworkStateChecker::State::Online);
}

TEST(NetworkStateChecker, StatesHaveTheirNumbers) {
    using State = INetworkStateChecker::State;
    EXPECT_TRUE((std::is_same_v<std::underlying_type_t<State>, std::int32_t>));
    EXPECT_EQ(static_cast<int>(State::Online), 0);
    EXPECT_EQ(static_cast<int>(State::Offline), 1);
}

} // namespace
} // namespace Halvex::App
