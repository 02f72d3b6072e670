// How an application tests its own code that downloads: without a server, and in no time.
#include <Foundation/HttpClientFactory.h>
#include <Networking/IHttpClient.h>
#include <ResourceDownloadManager/DownloadRetrierStub.h>
#include <ResourceDownloadManager/Downloader/ResourceDownloaderHttp.h>
#include <ResourceDownloadManager/EventTracerStub.h>
#include <ResourceDownloadManager/IRemoteResource.h>
#include <ResourceDownloadManager/IRemoteResourceScheduler.h>
#include <ResourceDownloadManager/PostProcessorStub.h>
#include <ResourceDownloadManager/RemoteResourceScheduler.h>
#include <ResourceDownloadManager/ResourceDescriptor.h>
#include <ResourceDownloadManager/ResourceDownloadManager.h>
#include <ResourceDownloadManager/ValidatorStub.h>
#include <ResourceKit/Testing/ManualTaskQueue.h>
#include <ResourceKit/Testing/RecordingEventHandler.h>
#include <ResourceKit/Testing/ScriptedDownloader.h>
#include <ResourceKit/Testing/ScriptedHttpServer.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

using namespace Halvex::App;
using namespace Halvex::Kit::Testing;

namespace {

constexpr auto kNormal = ISchedulableResource::SchedulePriority::Normal;

/// What is tested: a part of the application that shows a text from the web.
class Greeting {
public:
    Greeting(IRemoteResourceScheduler& scheduler, const std::string& folder,
             const std::string& baseUrl) {
        m_file.baseUrl = baseUrl;
        m_file.relativePath = "greeting.txt";
        m_file.localPath = m_file.downloadPath = folder + "/greeting.txt";
        m_file.tempPath = folder + "/greeting.txt.part";
        m_bundle.descriptors.insert(&m_file);
        m_resource = scheduler.RegisterAutoSchedule(&m_bundle, kNormal);
    }

    IRemoteResource& Resource() const { return *m_resource; }

    std::string Text() const {
        const IRemoteResource::State state = m_resource->GetState();
        switch (state.status) {
        case IRemoteResource::DownloadStatus::Available:
            return Content();
        case IRemoteResource::DownloadStatus::Error:
            return "(no greeting today)";
        case IRemoteResource::DownloadStatus::Dowloading:
            return std::to_string(state.GetPercentage()) + " %";
        case IRemoteResource::DownloadStatus::Waiting:
            break;
        }
        return "...";
    }

private:
    std::string Content() const {
        std::ifstream file(m_file.localPath.string());
        std::string line;
        std::getline(file, line);
        return line;
    }

    ResourceDescriptor m_file;
    ResourceDescriptorBundle m_bundle;
    IRemoteResource* m_resource = nullptr;
};

class GreetingTest : public testing::Test {
protected:
    void SetUp() override {
        std::string folder = "/tmp/greeting-XXXXXX";
        ASSERT_NE(::mkdtemp(folder.data()), nullptr);
        m_folder = folder;
        ResourceDownloadManager::Dependencies services;
        services.resourceDownloader = m_downloader;
        m_manager.Init({}, services);
    }
    void TearDown() override {
        m_manager.Abort();
        std::filesystem::remove_all(m_folder);
    }

    // The init scheduler does not retry: a failure is the end, and no test waits for a second try.
    Greeting* MakeGreeting() { return MakeGreeting(*m_manager.GetInitScheduler()); }
    Greeting* MakeGreeting(IRemoteResourceScheduler& scheduler,
                           const std::string& baseUrl = "https://example.org/") {
        m_greeting = std::make_unique<Greeting>(scheduler, m_folder, baseUrl);
        return m_greeting.get();
    }

    std::string m_folder;
    // Outlives the schedulers, as its descriptor must.
    std::unique_ptr<Greeting> m_greeting;
    const std::shared_ptr<ScriptedDownloader> m_downloader = std::make_shared<ScriptedDownloader>();
    ResourceDownloadManager m_manager;
};

TEST_F(GreetingTest, ShowsWhatWasDownloaded) {
    m_downloader->On("greeting.txt", ScriptedDownload::Complete("Hello!"));
    const auto greeting = MakeGreeting();
    EXPECT_EQ(greeting->Text(), "...");
    m_manager.ProcessCurrentQueue(); // downloads on this thread
    EXPECT_EQ(greeting->Text(), "Hello!");
}

TEST_F(GreetingTest, DoesWithoutWhenThereIsNoConnection) {
    m_downloader->On("greeting.txt",
                     ScriptedDownload::Fail(IResourceDownloader::Status::NetworkFailure));
    const auto greeting = MakeGreeting();
    m_manager.ProcessCurrentQueue();
    EXPECT_EQ(greeting->Text(), "(no greeting today)");
}

TEST_F(GreetingTest, ShowsHowFarItIs) {
    m_downloader->On("greeting.txt", ScriptedDownload::Hang());
    const auto greeting = MakeGreeting();
    RecordingEventHandler observer;
    greeting->Resource().RegisterEventHandler(&observer, {});
    m_manager.StartEventLoopThread(); // downloads on another thread, which hangs on command
    EXPECT_TRUE(m_downloader->Report("greeting.txt", 2, 5));
    EXPECT_EQ(greeting->Text(), "40 %");
    EXPECT_TRUE(m_downloader->Finish("greeting.txt", ScriptedDownload::Complete("Hello!")));
    EXPECT_TRUE(observer.WaitForStatus(IRemoteResource::DownloadStatus::Available));
    EXPECT_EQ(greeting->Text(), "Hello!");
    greeting->Resource().UnregisterEventHandler(&observer);
}

TEST_F(GreetingTest, IsToldWhenTheEventLoopGetsToIt) {
    m_downloader->On("greeting.txt", ScriptedDownload::Complete("Hello!"));
    const auto checks = std::make_shared<ManualTaskQueue>();        // for the worker threads
    const auto notifications = std::make_shared<ManualTaskQueue>(); // for the event loop
    RemoteResourceScheduler scheduler(
        m_downloader, checks, notifications, std::make_shared<PostProcessorStub>(),
        std::make_shared<ValidatorStub>(), std::make_shared<EventTracerStub>(),
        std::make_shared<DownloadRetrierStub>());
    const auto greeting = MakeGreeting(scheduler);
    RecordingEventHandler observer;
    greeting->Resource().RegisterEventHandler(&observer, {});
    EXPECT_EQ(checks->RunAll(), 1U);
    EXPECT_EQ(greeting->Text(), "Hello!");
    EXPECT_TRUE(observer.Notifications().empty()); // downloaded, and nobody knows yet
    notifications->RunAll();
    EXPECT_TRUE(observer.WaitForStatus(IRemoteResource::DownloadStatus::Available));
    greeting->Resource().UnregisterEventHandler(&observer);
}

TEST_F(GreetingTest, ShowsNoErrorPage) {
    ScriptedHttpServer server;
    server.On("/greeting.txt", {Reply::Status(503), Reply::Ok("Hello!")});
    ResourceDownloadManager::Dependencies services;
    services.resourceDownloader = std::make_shared<ResourceDownloaderHttp>(
        Halvex::Networking::createHttpClient(Halvex::Networking::HttpClientType::Native),
        nullptr,  // no proxy
        nullptr); // always online
    ResourceDownloadManager manager;
    manager.Init({}, services);
    const auto greeting = MakeGreeting(*manager.GetInitScheduler(), server.Url("/"));
    manager.ProcessCurrentQueue();
    EXPECT_EQ(greeting->Text(), "(no greeting today)");
    greeting->Resource().Schedule(kNormal);
    manager.ProcessCurrentQueue();
    EXPECT_EQ(greeting->Text(), "Hello!");
    manager.Abort();
}

} // namespace
