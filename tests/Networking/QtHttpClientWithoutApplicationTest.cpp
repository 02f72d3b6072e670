#include "Networking/QtHttpClient.h"

#include "support/LogCapture.h"
#include "support/ScriptedHttpServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QtCore/QCoreApplication>

namespace Halvex::Networking {
namespace {

using testing::ElementsAre;
using Testing::LogCapture;
using Testing::ScriptedHttpServer;

class QtHttpClientWithoutApplicationTest : public testing::Test {
protected:
    QtHttpClientWithoutApplicationTest() { options.timeout = 60'000'000; }

    Response Get(const std::string& url) { return QtHttpClient().get({Url(url), {}, {}}, options); }

    ScriptedHttpServer server;
    Options options;
};

TEST_F(QtHttpClientWithoutApplicationTest, ReturnsADefaultResponseAtOnce) {
    ASSERT_EQ(QCoreApplication::instance(), nullptr);
    const Response response = Get(server.Url("/"));
    EXPECT_EQ(response.errorCode, 1001);
    EXPECT_EQ(response.errorText, "");
    EXPECT_EQ(response.body, "");
    EXPECT_EQ(server.ConnectionCount(), 0);
}

TEST_F(QtHttpClientWithoutApplicationTest, LogsWhatItNeeds) {
    const LogCapture log;
    const std::string url = server.Url("/");
    Get(url);
    EXPECT_THAT(log.Errors(),
                ElementsAre("request=" + url + " needs a QCoreApplication, and there is none"));
}

TEST_F(QtHttpClientWithoutApplicationTest, LogsNothingOfAnInvalidAddress) {
    const LogCapture log;
    EXPECT_EQ(Get("nowhere").errorCode, 1001);
    EXPECT_THAT(log.Lines(), ElementsAre());
}

TEST_F(QtHttpClientWithoutApplicationTest, CallsNoCallback) {
    int calls = 0;
    options.cancellationQuery = [&] {
        return ++calls > 0;
    };
    options.progressCallback = [&](std::size_t, std::size_t) {
        ++calls;
    };
    options.dataCallback = [&](const std::string&) {
        ++calls;
    };
    Get(server.Url("/"));
    EXPECT_EQ(calls, 0);
}

} // namespace
} // namespace Halvex::Networking
