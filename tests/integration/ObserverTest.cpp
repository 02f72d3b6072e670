#include "integration/Application.h"
#include "support/BackgroundCall.h"
#include "support/FakeScriptedDownloader.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <utility>

namespace Halvex::App {

namespace {

using Status = IResourceDownloader::Status;
using Testing::Application;
using Testing::BackgroundCall;
using Testing::Event;
using Testing::FakeScriptedDownloader;
using Testing::WaitUntil;

/// An observer that may go at any time, and fails the test when it is told of anything afterwards.
class Listener : public IRemoteResourceEventHandler {
public:
    explicit Listener(
        IRemoteResource* resource, std::function<void()> onCall = [] {})
        : m_resource(resource), m_onCall(std::move(onCall)) {
        IRemoteResource::NotificationParams params;
        params.progressStep = 0;
        m_resource->RegisterEventHandler(this, params);
    }

    void Leave() {
        m_resource->UnregisterEventHandler(this);
        m_left = true;
    }

    int CallCount() const { return m_calls; }

    void OnStateChanged(IRemoteResource::State, const ResourceDescriptorBundle*) override {
        EXPECT_FALSE(m_left);
        ++m_calls;
        m_onCall();
        EXPECT_FALSE(m_left);
    }

private:
    IRemoteResource* const m_resource;
    const std::function<void()> m_onCall;
    std::atomic<bool> m_left{false};
    std::atomic<int> m_calls{0};
};

/// Two transfers that report progress all the time.
class ObserverDuringTransfers : public testing::Test {
protected:
    ObserverDuringTransfers() {
        downloader->SetScript([this](const IResourceDownloader::Task& task) {
            for (std::size_t done = 0; !end; ++done)
                task.progressCallback(done, 1'000'000'000);
            return Status::Ok;
        });
    }

    void Start(bool useQtTaskQueue) {
        Application::Params params;
        params.useParallelExecutor = true;
        params.threadCount = 2;
        params.useQtTaskQueue = useQtTaskQueue;
        Application::Dependencies dependencies;
        dependencies.resourceDownloader = downloader;
        application = std::make_unique<Application>(params, dependencies);
        resource = application->Schedule(
            {&application->AddFile("", "left"), &application->AddFile("", "right")});
        application->manager.StartEventLoopThread();
        ASSERT_TRUE(downloader->WaitForDownloads(2));
    }

    ~ObserverDuringTransfers() override { end = true; }

    std::atomic<bool> end{false};
    std::shared_ptr<FakeScriptedDownloader> downloader = std::make_shared<FakeScriptedDownloader>();
    std::unique_ptr<Application> application;
    IRemoteResource* resource = nullptr;
};

} // namespace

TEST_F(ObserverDuringTransfers, IsToldOfNothingOnceItHasLeft) {
    Start(false);
    for (int round = 0; round < 50; ++round) {
        Listener listener(resource);
        ASSERT_TRUE(WaitUntil([&] { return listener.CallCount() > 1; }));
        listener.Leave();
    }
}

TEST_F(ObserverDuringTransfers, LeavesOnlyWhenTheCallThatIsUnderWayHasEnded) {
    Start(false);
    Event registered;
    Event called;
    Event mayReturn;
    Listener listener(resource, [&] {
        // The registration itself waits for a call that is under way.
        if (!registered.IsSet())
            return;
        called.Set();
        EXPECT_TRUE(mayReturn.Wait());
    });
    registered.Set();
    ASSERT_TRUE(called.Wait());
    BackgroundCall leave([&] { listener.Leave(); });
    EXPECT_TRUE(leave.Blocks());
    mayReturn.Set();
    EXPECT_TRUE(leave.Returns());
}

TEST_F(ObserverDuringTransfers, StaysWhenAnotherLeaves) {
    Start(false);
    Listener other(resource);
    Listener listener(resource);
    other.Leave();
    const int before = listener.CallCount();
    EXPECT_TRUE(WaitUntil([&] { return listener.CallCount() > before; }));
    listener.Leave();
}

TEST_F(ObserverDuringTransfers, IsNotToldOfWhatIsStillInTheEventLoopWhenItLeaves) {
    Start(true);
    Listener listener(resource);
    ASSERT_TRUE(WaitUntil([&] {
        QCoreApplication::processEvents();
        return listener.CallCount() > 1;
    }));
    end = true;
    ASSERT_TRUE(WaitUntil(
        [&] { return resource->GetState().status == IRemoteResource::DownloadStatus::Available; }));
    const int before = listener.CallCount();
    listener.Leave();
    QCoreApplication::processEvents();
    EXPECT_EQ(listener.CallCount(), before);
}

} // namespace Halvex::App
