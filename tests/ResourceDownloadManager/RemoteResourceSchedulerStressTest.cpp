#include "ResourceDownloadManager/RemoteResourceScheduler.h"

#include "ResourceDownloadManager/DownloadRetrierStub.h"
#include "ResourceDownloadManager/Downloader/IResourceDownloader.h"
#include "ResourceDownloadManager/EventTracerStub.h"
#include "ResourceDownloadManager/IRemoteResourceEventHandler.h"
#include "ResourceDownloadManager/PostProcessorStub.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "ResourceDownloadManager/TaskQueue.h"
#include "ResourceDownloadManager/ValidatorStub.h"
#include "support/RecomputedState.h"
#include "support/Waiting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace Halvex::App {
namespace {

using Halvex::Testing::Recomputed;
using Halvex::Testing::WaitUntil;
using Error = IRemoteResource::DownloadError;
using Priority = ISchedulableResource::SchedulePriority;
using State = IRemoteResource::State;
using Status = IRemoteResource::DownloadStatus;

constexpr int kClients = 8;
constexpr int kWorkersPerQueue = 2;
constexpr std::size_t kResources = 40;
constexpr std::size_t kBundles = 24;
constexpr int kActionsPerClient = 1000;

/// Ends every download as chance will have it, after some progress.
class RandomDownloader : public IResourceDownloader {
public:
    explicit RandomDownloader(std::uint64_t seed) : m_seed(seed) {}

    Status Exec(Task task) const override {
        const Task local = std::move(task);
        std::minstd_rand random(static_cast<unsigned>(m_seed + m_downloads++));
        for (std::size_t done = 0; done < 10; ++done)
            local.progressCallback(done, random() % 20 == 0 ? 0 : 10);
        return static_cast<Status>(random() % 4);
    }
    void Abort() override {}

private:
    const std::uint64_t m_seed;
    mutable std::atomic<std::uint64_t> m_downloads{0};
};

/// Fails the test when it is called although it is not registered.
class StrictObserver : public IRemoteResourceEventHandler {
public:
    std::atomic<bool> isRegistered{false};
    std::atomic<int> calls{0};

    void OnStateChanged(State, const ResourceDescriptorBundle*) override {
        ++calls;
        if (!isRegistered)
            ADD_FAILURE() << "called after it was unregistered";
    }
};

/// Knows the status that it was told last. Its calls exclude each other.
class AttentiveObserver : public IRemoteResourceEventHandler {
public:
    Status lastStatus = Status::Waiting;

    void OnStateChanged(State state, const ResourceDescriptorBundle*) override {
        lastStatus = state.status;
    }
};

void Join(std::vector<std::thread>& threads) {
    for (std::thread& thread : threads)
        thread.join();
}

class RemoteResourceSchedulerStress : public testing::Test {
protected:
    RemoteResourceSchedulerStress() {
        std::mt19937_64 random(seed);
        for (ResourceDescriptor& descriptor : descriptors) {
            descriptor.localPath = "/dev/null";
            descriptor.validationMode = static_cast<std::int32_t>(random() % 3);
            // A file that is there would never be downloaded.
            if (descriptor.validationMode != 0)
                descriptor.localPath = "/nonexistent/file";
            descriptor.checkOnSchedule = static_cast<std::int32_t>(random() % 2);
        }
        for (ResourceDescriptorBundle& bundle : bundles) {
            const std::size_t members = 1 + random() % 12;
            for (std::size_t i = 0; i < members; ++i)
                bundle.descriptors.insert(&descriptors[random() % kResources]);
        }
        for (std::size_t i = 0; i < kResources; ++i)
            singles[i].descriptors.insert(&descriptors[i]);
    }

    void RunClient(std::uint64_t clientSeed) {
        std::mt19937_64 random(clientSeed);
        std::array<StrictObserver, 2> observers;
        for (int i = 0; i < kActionsPerClient; ++i)
            DoSomething(random, observers);
    }

    void DoSomething(std::mt19937_64& random, std::array<StrictObserver, 2>& observers) {
        const ResourceDescriptorBundle& bundle = bundles[random() % kBundles];
        const auto priority = static_cast<Priority>(random() % 3);
        switch (random() % 4) {
        case 0:
            scheduler.RegisterAutoSchedule(&bundle, priority);
            break;
        case 1:
            scheduler.Register(&bundle)->Schedule(priority);
            break;
        case 2:
            scheduler.Register(&bundle)->GetState();
            break;
        default:
            ObserveForAWhile(*scheduler.Register(&bundle), observers[random() % 2], random);
        }
    }

    /// Now and then until it is told something.
    void ObserveForAWhile(IRemoteResource& resource, StrictObserver& observer,
                          std::mt19937_64& random) {
        observer.isRegistered = true;
        resource.RegisterEventHandler(&observer, {});
        if (random() % 2 == 0)
            EXPECT_TRUE(WaitUntil([&observer] { return observer.calls != 0; }));
        else
            resource.Schedule(Priority::Normal);
        resource.UnregisterEventHandler(&observer);
        observer.isRegistered = false;
        told += observer.calls.exchange(0);
    }

    void Work(ITaskQueue& queue) {
        while (!isOver) {
            if (!queue.ExecOne())
                std::this_thread::yield();
        }
    }
    void DrainQueues() {
        while (checks->ExecOne() || notifications->ExecOne()) {
        }
    }

    const std::uint64_t seed = std::random_device()();
    std::array<ResourceDescriptor, kResources> descriptors;
    std::array<ResourceDescriptorBundle, kBundles> bundles;
    /// One per resource, so that its own state can be seen.
    std::array<ResourceDescriptorBundle, kResources> singles;
    /// One per bundle, for the whole time.
    std::array<AttentiveObserver, kBundles> attentive;
    const std::shared_ptr<TaskQueue> checks = std::make_shared<TaskQueue>();
    const std::shared_ptr<TaskQueue> notifications = std::make_shared<TaskQueue>();
    RemoteResourceScheduler scheduler{std::make_shared<RandomDownloader>(seed),
                                      checks,
                                      notifications,
                                      std::make_shared<PostProcessorStub>(),
                                      std::make_shared<ValidatorStub>(),
                                      std::make_shared<EventTracerStub>(),
                                      std::make_shared<DownloadRetrierStub>()};
    std::atomic<bool> isOver{false};
    std::atomic<int> told{0};
};

TEST_F(RemoteResourceSchedulerStress, BundlesFollowTheirItemsAndObserversAreCalledOnlyInTime) {
    std::cout << "seed " << seed << std::endl;
    SCOPED_TRACE("seed " + std::to_string(seed));
    for (std::size_t i = 0; i < kBundles; ++i)
        scheduler.Register(&bundles[i])->RegisterEventHandler(&attentive[i], {});
    std::vector<std::thread> clients;
    for (int i = 0; i < kClients; ++i)
        clients.emplace_back([this, i] { RunClient(seed + static_cast<std::uint64_t>(i)); });
    std::vector<std::thread> workers;
    for (int i = 0; i < kWorkersPerQueue; ++i) {
        workers.emplace_back([this] { Work(*checks); });
        workers.emplace_back([this] { Work(*notifications); });
    }
    Join(clients);
    isOver = true;
    Join(workers);
    DrainQueues();

    std::map<const ResourceDescriptor*, State> states;
    for (std::size_t i = 0; i < kResources; ++i)
        states[&descriptors[i]] = scheduler.Register(&singles[i])->GetState();
    for (std::size_t i = 0; i < kBundles; ++i) {
        std::vector<State> members;
        for (const ResourceDescriptor* descriptor : bundles[i].descriptors)
            members.push_back(states[descriptor]);
        const State expected = Recomputed(members);
        const State actual = scheduler.Register(&bundles[i])->GetState();
        EXPECT_EQ(attentive[i].lastStatus, actual.status);
        EXPECT_EQ(actual.status, expected.status);
        EXPECT_EQ(actual.error, expected.error);
        EXPECT_NEAR(actual.progress, expected.progress, 1e-12);
    }
    EXPECT_GT(told, 0);
}

} // namespace
} // namespace Halvex::App
