#include "Networking/QtHttpClient.h"

#include "support/ScriptedHttpServer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

#include <unistd.h>

namespace Halvex::Networking {
namespace {

using Testing::GeneratedBytes;
using Testing::Reply;
using Testing::ScriptedHttpServer;

/// What the process, test server included, holds in memory.
std::uint64_t ResidentBytes() {
    std::ifstream file("/proc/self/statm");
    std::uint64_t all = 0;
    std::uint64_t resident = 0;
    file >> all >> resident;
    return resident * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
}

class QtHttpClientLongTest : public testing::TestWithParam<const char*> {};

TEST_P(QtHttpClientLongTest, StreamsFiveGibibytesWholeInFlatMemory) {
    constexpr std::uint64_t kMebibyte = 1024 * 1024;
    constexpr std::uint64_t kSize = 5 * 1024 * kMebibyte;
    ScriptedHttpServer server;
    server.On("/all", Reply::Generated(kSize));
    server.On("/redirect", Reply::Redirect("/all"));

    std::uint64_t received = 0;
    std::uint64_t different = 0;
    std::uint64_t highest = 0;
    const std::uint64_t before = ResidentBytes();
    Options options;
    options.timeout = 900'000'000;
    options.dataCallback = [&](const std::string& piece) {
        if (piece != GeneratedBytes(received, piece.size()))
            ++different;
        received += piece.size();
        highest = std::max(highest, ResidentBytes());
    };
    const Response response = QtHttpClient().get({Url(server.Url(GetParam())), {}, {}}, options);

    EXPECT_EQ(response.errorCode, 0) << response.errorText;
    EXPECT_EQ(received, kSize);
    EXPECT_EQ(different, 0u);
    EXPECT_GT(highest, 0u);
    EXPECT_LT(highest, before + 64 * kMebibyte);
}

INSTANTIATE_TEST_SUITE_P(From, QtHttpClientLongTest, testing::Values("/all", "/redirect"));

} // namespace
} // namespace Halvex::Networking
