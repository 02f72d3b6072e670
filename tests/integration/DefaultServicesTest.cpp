#include "integration/Application.h"
#include "support/ScriptedHttpServer.h"

#include <gmock/gmock.h>

#include <QtCore/QByteArray>

#include <string>

namespace Halvex::App {

namespace {

using Testing::Application;
using Testing::Outcome;
using Testing::Reply;
using Testing::ScriptedHttpServer;
using testing::StartsWith;

/// What an application gets that brings no services of its own.
class DefaultServices : public testing::Test {
protected:
    DefaultServices() { server.On("/file.bin", Reply::Ok("body")); }

    /// How the client that the manager has made calls itself.
    std::string UserAgent(bool useQtHttpClient) {
        Application::Params params;
        params.useQtHttpClient = useQtHttpClient;
        Application application(params);
        application.Schedule({&application.AddFile(server.Url(""), "file.bin")});
        application.Run();
        return server.Requests().back().Header("User-Agent");
    }

    ScriptedHttpServer server;
};

} // namespace

TEST_F(DefaultServices, FetchThroughTheNativeClient) {
    EXPECT_THAT(UserAgent(false), StartsWith("HalvexResourceDownloadManager/"));
}

TEST_F(DefaultServices, FetchThroughTheQtClientWhenThatIsAskedFor) {
    EXPECT_THAT(UserAgent(true), StartsWith("Mozilla/"));
}

TEST_F(DefaultServices, FetchThroughTheSystemsProxy) {
    const QByteArray before = qgetenv("http_proxy");
    qputenv("http_proxy", QByteArray::fromStdString(server.Url("")));
    server.On("http://files.invalid/file.bin", Reply::Ok("body"));
    Application application({});
    IRemoteResource* bundle =
        application.Schedule({&application.AddFile("http://files.invalid", "file.bin")});
    EXPECT_TRUE(application.manager.ProcessCurrentQueueQuant());
    before.isNull() ? qunsetenv("http_proxy") : qputenv("http_proxy", before);
    EXPECT_EQ(Outcome(bundle->GetState()), "Available NoError");
}

} // namespace Halvex::App
