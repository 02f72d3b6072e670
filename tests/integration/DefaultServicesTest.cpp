#include "integration/Application.h"
#include "support/FakeScriptedDownloader.h"
#include "support/NextFunction.h"
#include "support/ProxyEnvironment.h"
#include "support/ScriptedHttpServer.h"

#include <curl/curl.h>
#include <gmock/gmock.h>

#include <atomic>
#include <memory>
#include <string>

namespace {

/// How many native clients have been made so far: each makes one of what is counted here.
std::atomic<int> nativeClients{0};

} // namespace

/// Stands in front of curl's function for the whole program.
extern "C" __attribute__((visibility("default"))) CURLSH* curl_share_init() {
    static const auto next = Halvex::Testing::NextFunction(&curl_share_init, "curl_share_init");
    ++nativeClients;
    return next();
}

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

class DefaultServicesBesideADownloader : public DefaultServices {
protected:
    /// How many native clients a manager makes for an application with a downloader of its own.
    static int NativeClients(bool useQtHttpClient) {
        Application::Params params;
        params.useQtHttpClient = useQtHttpClient;
        Application::Dependencies dependencies;
        dependencies.resourceDownloader = std::make_shared<Testing::FakeScriptedDownloader>();
        const int before = nativeClients;
        const Application application(params, dependencies);
        return nativeClients - before;
    }
};

TEST_F(DefaultServicesBesideADownloader, IncludeANativeClient) {
    EXPECT_EQ(NativeClients(false), 1);
}

TEST_F(DefaultServicesBesideADownloader, IncludeNoNativeClientWhenTheQtClientIsAskedFor) {
    EXPECT_EQ(NativeClients(true), 0);
}

TEST_F(DefaultServices, FetchThroughTheSystemsProxy) {
    const Testing::ProxyEnvironment environment({{"http_proxy", server.Url("")}});
    server.On("http://files.invalid/file.bin", Reply::Ok("body"));
    Application application({});
    IRemoteResource* bundle =
        application.Schedule({&application.AddFile("http://files.invalid", "file.bin")});
    EXPECT_TRUE(application.manager.ProcessCurrentQueueQuant());
    EXPECT_EQ(Outcome(bundle->GetState()), "Available NoError");
}

} // namespace Halvex::App
