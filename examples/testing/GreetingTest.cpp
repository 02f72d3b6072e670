// How an application tests its own code that downloads: without a server, and in no time.
#include <ResourceDownloadManager/IRemoteResource.h>
#include <ResourceDownloadManager/IRemoteResourceScheduler.h>
#include <ResourceDownloadManager/ResourceDescriptor.h>
#include <ResourceDownloadManager/ResourceDownloadManager.h>
#include <ResourceKit/Testing/RecordingEventHandler.h>
#include <ResourceKit/Testing/ScriptedDownloader.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

using namespace Halvex::App;
using namespace Halvex::Kit::Testing;

namespace {

/// What is tested: a part of the application that shows a text from the web.
class Greeting {
public:
    Greeting(IRemoteResourceScheduler& scheduler, const std::string& folder) {
        m_file.baseUrl = "https://example.org/";
        m_file.relativePath = "greeting.txt";
        m_file.localPath = m_file.downloadPath = folder + "/greeting.txt";
        m_file.tempPath = folder + "/greeting.txt.part";
        m_bundle.descriptors.insert(&m_file);
        m_resource = scheduler.RegisterAutoSchedule(&m_bundle,
                                                    ISchedulableResource::SchedulePriority::Normal);
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
    std::unique_ptr<Greeting> MakeGreeting() {
        return std::make_unique<Greeting>(*m_manager.GetInitScheduler(), m_folder);
    }

    std::string m_folder;
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

} // namespace
