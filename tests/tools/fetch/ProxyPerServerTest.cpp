#include "ProxyPerServer.h"

#include "Foundation/Mutex.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace Halvex::Fetch {
namespace {

using Proxy = App::IProxyProvider::Proxy;
using testing::ElementsAre;

/// Gives a proxy whose host is the address that it was asked for.
class FakeProvider : public App::IProxyProvider {
public:
    Proxy GetSystemProxy(const std::string& url) const override {
        const MutexLock lock(m_mutex);
        m_asked.push_back(url);
        return {Proxy::Type::Socks5, "proxy for " + url, 1080};
    }

    std::vector<std::string> Asked() const {
        const MutexLock lock(m_mutex);
        return m_asked;
    }

private:
    mutable Mutex m_mutex;
    mutable std::vector<std::string> m_asked HALVEX_GUARDED_BY(m_mutex);
};

class ProxyPerServerTest : public testing::Test {
protected:
    std::string HostFor(const std::string& url) const { return proxies.GetSystemProxy(url).host; }

    const std::shared_ptr<FakeProvider> fake = std::make_shared<FakeProvider>();
    const ProxyPerServer proxies{fake};
};

TEST_F(ProxyPerServerTest, GivesTheOthersAnswerWhole) {
    for (int time = 0; time < 2; ++time) {
        const Proxy proxy = proxies.GetSystemProxy("http://h/a");
        EXPECT_EQ(proxy.type, Proxy::Type::Socks5);
        EXPECT_EQ(proxy.host, "proxy for http://h/a");
        EXPECT_EQ(proxy.port, 1080);
    }
}

TEST_F(ProxyPerServerTest, AsksOnceForAServer) {
    for (const char* url :
         {"http://h/a", "http://h/b/c", "http://h/", "http://h", "http://h?q=/", "http://h#f"})
        EXPECT_EQ(HostFor(url), "proxy for http://h/a") << url;
    EXPECT_THAT(fake->Asked(), ElementsAre("http://h/a"));
}

TEST_F(ProxyPerServerTest, AsksForEachServer) {
    const std::vector<std::string> urls = {"http://h/a",  "https://h/a",  "http://h:81/a",
                                           "http://hh/a", "http://i.h/a", "http://u@h/a"};
    for (int time = 0; time < 2; ++time) {
        for (const std::string& url : urls)
            EXPECT_EQ(HostFor(url), "proxy for " + url);
    }
    EXPECT_EQ(fake->Asked(), urls);
}

TEST_F(ProxyPerServerTest, PassesOnWhatIsNoAddress) {
    EXPECT_EQ(HostFor(""), "proxy for ");
    EXPECT_EQ(HostFor("a/b"), "proxy for a/b");
    EXPECT_EQ(HostFor("a/c"), "proxy for a/c");
}

TEST_F(ProxyPerServerTest, ServesManyThreadsAtOnce) {
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int n = 0; n < 8; ++n)
        threads.emplace_back([&] {
            for (int file = 0; file < 1000; ++file) {
                const std::string server = "http://h" + std::to_string(file % 10);
                wrong += HostFor(server + "/a") == "proxy for " + server + "/a" ? 0 : 1;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_GE(fake->Asked().size(), 10U);
    EXPECT_LE(fake->Asked().size(), 80U);
}

} // namespace
} // namespace Halvex::Fetch
