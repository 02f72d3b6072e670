#include "ResourceDownloadManager/RemoteResourceScheduler.h"

#include "ResourceDownloadManager/Downloader/ResourceDownloaderFileMock.h"
#include "ResourceDownloadManager/TaskQueue.h"
#include "ResourceDownloadManager/TaskQueueImmediate.h"
#include "support/LogCapture.h"
#include "support/SchedulingFakes.h"
#include "support/TemporaryFolder.h"
#include "support/VirtualSlot.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace Halvex::App {
namespace {

using namespace Halvex::Testing;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using Calls = CallRecorder::Calls;
using Priority = ISchedulableResource::SchedulePriority;
using Status = IRemoteResource::DownloadStatus;

/// Resources a, b and c, whose existence suffices and which do not exist yet.
class RemoteResourceSchedulerTest : public testing::Test {
protected:
    RemoteResourceSchedulerTest() {
        for (std::size_t i = 0; i < descriptors.size(); ++i) {
            const std::string name(1, static_cast<char>('a' + i));
            descriptors[i].relativePath = name;
            descriptors[i].localPath = folder / name;
            descriptors[i].validationMode = 2;
        }
    }

    ResourceDescriptorBundle Bundle(std::initializer_list<std::size_t> members) {
        ResourceDescriptorBundle bundle;
        for (const std::size_t member : members)
            bundle.descriptors.insert(&descriptors[member]);
        return bundle;
    }
    std::size_t CallCount(const std::string& call) {
        const Calls calls = fakes.recorder.Take();
        return static_cast<std::size_t>(std::count(calls.begin(), calls.end(), call));
    }
    std::vector<std::string> HeardBy(FakeObserver& observer) {
        fakes.notifications->ExecAll();
        return observer.Take();
    }

    TemporaryFolder folder;
    std::array<ResourceDescriptor, 3> descriptors;
    FakeServices fakes;
    RemoteResourceScheduler scheduler{fakes.downloader,    fakes.checks,    fakes.notifications,
                                      fakes.postProcessor, fakes.validator, fakes.tracer,
                                      fakes.retrier};
};

// Registration.

TEST_F(RemoteResourceSchedulerTest, GivesTheSameResourceForTheSameBundle) {
    const ResourceDescriptorBundle bundle = Bundle({0});
    IRemoteResource* resource = scheduler.Register(&bundle);
    EXPECT_EQ(scheduler.Register(&bundle), resource);
    EXPECT_EQ(scheduler.RegisterAutoSchedule(&bundle, Priority::Normal), resource);
    EXPECT_EQ(resource->GetDescriptor(), &bundle);
}

TEST_F(RemoteResourceSchedulerTest, CreatesNothingWhenABundleIsRegisteredAgain) {
    const ResourceDescriptorBundle bundle = Bundle({0});
    FakeObserver observer;
    IRemoteResource* resource = scheduler.Register(&bundle);
    resource->RegisterEventHandler(&observer, {});
    scheduler.Register(&bundle);
    resource->Schedule(Priority::Normal);
    EXPECT_EQ(fakes.checks->Pending(), 1u);
    EXPECT_THAT(HeardBy(observer), ElementsAre("Waiting NoError 0"));
}

TEST_F(RemoteResourceSchedulerTest, AMemberAddedToARegisteredBundleIsNotSeen) {
    ResourceDescriptorBundle bundle = Bundle({0});
    scheduler.Register(&bundle);
    bundle.descriptors.insert(&descriptors[1]);
    scheduler.RegisterAutoSchedule(&bundle, Priority::Normal);
    EXPECT_EQ(fakes.checks->Pending(), 1u);
}

TEST_F(RemoteResourceSchedulerTest, EqualBundlesAtDifferentAddressesAreDifferent) {
    const ResourceDescriptorBundle one = Bundle({0});
    const ResourceDescriptorBundle other = Bundle({0});
    EXPECT_NE(scheduler.Register(&one), scheduler.Register(&other));
}

TEST_F(RemoteResourceSchedulerTest, EqualDescriptorsAtDifferentAddressesAreDifferentItems) {
    descriptors[1] = descriptors[0];
    const ResourceDescriptorBundle bundle = Bundle({0, 1});
    scheduler.Register(&bundle)->Schedule(Priority::Normal);
    fakes.checks->ExecAll();
    EXPECT_EQ(CallCount("Exec a"), 2u);
}

TEST_F(RemoteResourceSchedulerTest, RegisteringLooksForNoFileAndQueuesNothing) {
    folder.Write("a", "content");
    descriptors[0].checkOnSchedule = 1;
    const ResourceDescriptorBundle bundle = Bundle({0, 1});
    IRemoteResource* resource = scheduler.Register(&bundle);
    EXPECT_EQ(Describe(resource->GetState()), "Waiting NoError 0");
    EXPECT_THAT(fakes.recorder.Take(), IsEmpty());
}

TEST_F(RemoteResourceSchedulerTest, AnEmptyBundleStaysWaiting) {
    const ResourceDescriptorBundle bundle;
    IRemoteResource* resource = scheduler.RegisterAutoSchedule(&bundle, Priority::High);
    resource->Schedule(Priority::High);
    EXPECT_EQ(fakes.checks->Pending(), 0u);
    EXPECT_EQ(Describe(resource->GetState()), "Waiting NoError 0");
}

TEST_F(RemoteResourceSchedulerTest, SchedulesEachOfManyResourcesOnce) {
    // The last ones are so many that their items lie in several blocks of memory.
    for (const std::size_t count : {7u, 8u, 9u, 30'000u}) {
        std::vector<ResourceDescriptor> many(count);
        ResourceDescriptorBundle bundle;
        std::multiset<std::string> expected;
        for (ResourceDescriptor& descriptor : many) {
            descriptor.relativePath = std::to_string(expected.size());
            expected.insert("Exec " + descriptor.relativePath);
            bundle.descriptors.insert(&descriptor);
        }
        RemoteResourceScheduler ofMany(fakes.downloader, fakes.checks, fakes.notifications,
                                       fakes.postProcessor, fakes.validator, fakes.tracer,
                                       fakes.retrier);
        ofMany.RegisterAutoSchedule(&bundle, Priority::Normal);
        fakes.checks->ExecAll();
        std::multiset<std::string> downloads;
        for (const std::string& call : fakes.recorder.Take()) {
            if (call.rfind("Exec ", 0) == 0)
                downloads.insert(call);
        }
        EXPECT_EQ(downloads, expected);
    }
}

TEST_F(RemoteResourceSchedulerTest, ANewBundleStartsWithTheStatesOfItsItems) {
    const ResourceDescriptorBundle earlier = Bundle({0});
    const ResourceDescriptorBundle later = Bundle({0, 1});
    scheduler.Register(&earlier)->Schedule(Priority::Normal);
    fakes.checks->ExecAll();
    EXPECT_EQ(Describe(scheduler.Register(&later)->GetState()), "Dowloading NoError 0.5");
}

TEST_F(RemoteResourceSchedulerTest, ANewBundleDeliversWhatIsDueToObserversOfItsItemsOtherBundles) {
    const ResourceDescriptorBundle earlier = Bundle({0});
    const ResourceDescriptorBundle later = Bundle({0, 1});
    FakeObserver observer;
    fakes.downloader->onExec = [this, &later, &earlier,
                                &observer](const IResourceDownloader::Task& task) {
        task.progressCallback(1, 2);
        scheduler.Register(&earlier)->RegisterEventHandler(&observer,
                                                           {true, {Status::Dowloading}, 0});
        EXPECT_THAT(HeardBy(observer), ElementsAre("Dowloading NoError 0.5"));
        scheduler.Register(&later);
        EXPECT_THAT(HeardBy(observer), ElementsAre("Dowloading NoError 0.5"));
        return IResourceDownloader::Status::Ok;
    };
    scheduler.Register(&earlier)->Schedule(Priority::Normal);
    fakes.checks->ExecAll();
    EXPECT_EQ(CallCount("Exec a"), 1u);
}

// Items shared by bundles.

TEST_F(RemoteResourceSchedulerTest, AnItemOfTwoBundlesIsDownloadedOnceAndBothFollowIt) {
    const ResourceDescriptorBundle one = Bundle({0});
    const ResourceDescriptorBundle other = Bundle({0, 1});
    IRemoteResource* first = scheduler.Register(&one);
    IRemoteResource* second = scheduler.Register(&other);
    first->Schedule(Priority::Normal);
    second->Schedule(Priority::Normal);
    fakes.checks->ExecAll();
    EXPECT_EQ(CallCount("Exec a"), 1u);
    EXPECT_EQ(Describe(first->GetState()), "Available NoError 1");
    EXPECT_EQ(Describe(second->GetState()), "Available NoError 1");
}

TEST_F(RemoteResourceSchedulerTest, ObserversOfBothBundlesHearOfASharedItem) {
    const ResourceDescriptorBundle one = Bundle({0});
    const ResourceDescriptorBundle other = Bundle({0, 1});
    FakeObserver ofOne;
    FakeObserver ofOther;
    scheduler.Register(&one)->RegisterEventHandler(&ofOne, {true, {Status::Available}, 0.01});
    scheduler.Register(&other)->RegisterEventHandler(&ofOther, {true, {Status::Dowloading}, 0.01});
    scheduler.Register(&one)->Schedule(Priority::Normal);
    fakes.checks->ExecAll();
    EXPECT_THAT(HeardBy(ofOne), ElementsAre("Available NoError 1"));
    EXPECT_THAT(HeardBy(ofOther), ElementsAre("Dowloading NoError 0", "Dowloading NoError 0.5"));
}

TEST_F(RemoteResourceSchedulerTest, ASharedItemCountsItsSchedulingForAllBundles) {
    const ResourceDescriptorBundle one = Bundle({0});
    const ResourceDescriptorBundle other = Bundle({0, 1});
    scheduler.RegisterAutoSchedule(&one, Priority::Normal);
    scheduler.RegisterAutoSchedule(&other, Priority::Normal);
    EXPECT_EQ(fakes.checks->Pending(), 2u);
}

TEST_F(RemoteResourceSchedulerTest, EveryMemberOfABundleIsScheduled) {
    const ResourceDescriptorBundle bundle = Bundle({0, 1, 2});
    scheduler.RegisterAutoSchedule(&bundle, Priority::High);
    const Calls calls = fakes.recorder.Take();
    EXPECT_THAT(calls, Contains("Trace CheckScheduled a Waiting NoError 0").Times(1));
    EXPECT_THAT(calls, Contains("Trace CheckScheduled b Waiting NoError 0").Times(1));
    EXPECT_THAT(calls, Contains("Trace CheckScheduled c Waiting NoError 0").Times(1));
    EXPECT_THAT(calls, Contains("AddTask checks 1").Times(3));
    EXPECT_EQ(calls.size(), 6u);
}

TEST_F(RemoteResourceSchedulerTest, ABundlesScheduleAndAutoSchedulingKeepTheSameOrder) {
    const ResourceDescriptorBundle bundle = Bundle({0, 1, 2});
    scheduler.RegisterAutoSchedule(&bundle, Priority::High);
    const Calls automatic = fakes.recorder.Take();
    scheduler.Register(&bundle)->Schedule(Priority::High);
    EXPECT_EQ(fakes.recorder.Take(), automatic);
}

// Auto-scheduling: the comparison is one of numbers, Low being the greatest.

TEST_F(RemoteResourceSchedulerTest, AutoSchedulingMoreUrgentlyThanBeforeQueuesNothing) {
    const ResourceDescriptorBundle bundle = Bundle({0, 1});
    scheduler.RegisterAutoSchedule(&bundle, Priority::Low);
    scheduler.RegisterAutoSchedule(&bundle, Priority::Normal);
    scheduler.RegisterAutoSchedule(&bundle, Priority::High);
    EXPECT_EQ(fakes.checks->Pending(), 2u);
}

TEST_F(RemoteResourceSchedulerTest, AutoSchedulingLessUrgentlyThanBeforeQueuesEveryItemAgain) {
    const ResourceDescriptorBundle bundle = Bundle({0, 1});
    scheduler.RegisterAutoSchedule(&bundle, Priority::Normal);
    scheduler.RegisterAutoSchedule(&bundle, Priority::Low);
    EXPECT_THAT(CallCount("AddTask checks 3"), 2u);
    EXPECT_EQ(fakes.checks->Pending(), 4u);
}

TEST_F(RemoteResourceSchedulerTest, AutoSchedulingAgainAsUrgentlyQueuesNothing) {
    const ResourceDescriptorBundle bundle = Bundle({0});
    scheduler.RegisterAutoSchedule(&bundle, Priority::Low);
    scheduler.RegisterAutoSchedule(&bundle, Priority::Low);
    EXPECT_EQ(fakes.checks->Pending(), 1u);
}

TEST_F(RemoteResourceSchedulerTest, AutoSchedulingQueuesOneCheckPerItem) {
    const ResourceDescriptorBundle bundle = Bundle({0, 1, 2});
    scheduler.RegisterAutoSchedule(&bundle, Priority::High);
    EXPECT_EQ(CallCount("AddTask checks 1"), 3u);
}

TEST_F(RemoteResourceSchedulerTest, SchedulingABundleQueuesEveryItemWhateverWasBefore) {
    const ResourceDescriptorBundle bundle = Bundle({0, 1});
    IRemoteResource* resource = scheduler.RegisterAutoSchedule(&bundle, Priority::Low);
    resource->Schedule(Priority::High);
    EXPECT_EQ(fakes.checks->Pending(), 4u);
}

TEST_F(RemoteResourceSchedulerTest, ABundleCanBeRegisteredWhileAnotherIsBeingScheduled) {
    const ResourceDescriptorBundle one = Bundle({0});
    const ResourceDescriptorBundle other = Bundle({0, 1});
    Event registered;
    bool isRegistered = false;
    std::thread registering;
    fakes.checks->onAddTask = [&] {
        registering = std::thread([&] {
            scheduler.Register(&other);
            registered.Set();
        });
        isRegistered = registered.Wait(std::chrono::seconds(10));
    };
    scheduler.RegisterAutoSchedule(&one, Priority::Normal);
    registering.join();
    EXPECT_TRUE(isRegistered);
}

TEST_F(RemoteResourceSchedulerTest, ThreadsThatRegisterTheSameBundleGetTheSameResource) {
    const ResourceDescriptorBundle bundle = Bundle({0, 1, 2});
    std::array<IRemoteResource*, 4> resources{};
    std::vector<std::thread> threads;
    threads.reserve(resources.size());
    for (IRemoteResource*& resource : resources) {
        threads.emplace_back([this, &bundle, &resource] {
            resource = scheduler.RegisterAutoSchedule(&bundle, Priority::Normal);
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_THAT(resources, testing::Each(scheduler.Register(&bundle)));
    EXPECT_EQ(fakes.checks->Pending(), 3u);
}

// Checks that run at once.

TEST_F(RemoteResourceSchedulerTest, ARegistrationWaitsForTheEndOfAnotherOne) {
    const ResourceDescriptorBundle earlier = Bundle({0});
    const ResourceDescriptorBundle later = Bundle({0, 1});
    const ResourceDescriptorBundle another = Bundle({2});
    FakeObserver observer;
    IRemoteResource* resource = scheduler.Register(&earlier);
    resource->Schedule(Priority::Normal);
    fakes.downloader->onExec = [&](const IResourceDownloader::Task& task) {
        task.progressCallback(1, 2);
        resource->RegisterEventHandler(&observer, {true, {Status::Dowloading}, 0});
        Event hasRegistered;
        std::thread elsewhere;
        bool wasHeldUp = false;
        // Inside the last step of the registration, which tells of the items' states.
        fakes.notifications->onAddTask = [&] {
            elsewhere = std::thread([&] {
                scheduler.Register(&another);
                hasRegistered.Set();
            });
            wasHeldUp = !hasRegistered.Wait(std::chrono::milliseconds(50));
        };
        scheduler.Register(&later);
        EXPECT_TRUE(wasHeldUp);
        fakes.notifications->onAddTask = [] {
        };
        EXPECT_TRUE(hasRegistered.Wait());
        elsewhere.join();
        return IResourceDownloader::Status::Ok;
    };
    fakes.checks->ExecAll();
    EXPECT_EQ(CallCount("Exec a"), 1u);
    resource->UnregisterEventHandler(&observer);
}

TEST_F(RemoteResourceSchedulerTest, TwoChecksOfOneItemMayRunAtOnce) {
    const ResourceDescriptorBundle bundle = Bundle({0, 1});
    IRemoteResource* resource = scheduler.Register(&bundle);
    const ResourceDescriptorBundle single = Bundle({0});
    scheduler.Register(&single)->Schedule(Priority::Normal);
    scheduler.Register(&single)->Schedule(Priority::Normal);
    std::atomic<int> started{0};
    Event bothStarted;
    fakes.downloader->onExec = [&started, &bothStarted](const IResourceDownloader::Task&) {
        if (++started == 2)
            bothStarted.Set();
        EXPECT_TRUE(bothStarted.Wait());
        return IResourceDownloader::Status::Ok;
    };
    std::thread other([this] { fakes.checks->ExecOne(); });
    fakes.checks->ExecOne();
    other.join();
    EXPECT_EQ(Describe(resource->GetState()), "Dowloading NoError 0.5");
}

// Missing services.

/// Which of the seven services is missing.
class RemoteResourceSchedulerWithout
    : public RemoteResourceSchedulerTest,
      public testing::WithParamInterface<std::pair<int, std::string>> {
protected:
    template <typename Service>
    std::shared_ptr<Service> Unless(int position, const std::shared_ptr<Service>& service) {
        return GetParam().first == position ? nullptr : service;
    }
    std::unique_ptr<RemoteResourceScheduler> Make() {
        return std::make_unique<RemoteResourceScheduler>(
            Unless(1, fakes.downloader), Unless(2, fakes.checks), Unless(3, fakes.notifications),
            Unless(4, fakes.postProcessor), Unless(5, fakes.validator), Unless(6, fakes.tracer),
            Unless(7, fakes.retrier));
    }
};

TEST_P(RemoteResourceSchedulerWithout, AServiceReportsIt) {
    const LogCapture log;
    Make();
    EXPECT_THAT(log.Errors(), ElementsAre("scheduler was given no " + GetParam().second));
}

TEST_P(RemoteResourceSchedulerWithout, AServiceStillWorks) {
    const ResourceDescriptorBundle bundle = Bundle({0, 1});
    descriptors[0].validationMode = 1;
    descriptors[0].postProcess = 1;
    FakeObserver observer;
    const auto incomplete = Make();
    IRemoteResource* resource = incomplete->RegisterAutoSchedule(&bundle, Priority::Normal);
    resource->RegisterEventHandler(&observer, {});
    fakes.checks->ExecAll();
    EXPECT_THAT(HeardBy(observer), Contains("Waiting NoError 0"));
}

INSTANTIATE_TEST_SUITE_P(EachInTurn, RemoteResourceSchedulerWithout,
                         testing::Values(std::pair(1, "downloader"), std::pair(2, "check queue"),
                                         std::pair(3, "notification queue"),
                                         std::pair(4, "post-processor"), std::pair(5, "validator"),
                                         std::pair(6, "event tracer"), std::pair(7, "retrier")));

TEST_F(RemoteResourceSchedulerTest, WithoutADownloaderEveryDownloadFails) {
    RemoteResourceScheduler incomplete(nullptr, fakes.checks, fakes.notifications,
                                       fakes.postProcessor, fakes.validator, fakes.tracer,
                                       fakes.retrier);
    const ResourceDescriptorBundle bundle = Bundle({0});
    IRemoteResource* resource = incomplete.RegisterAutoSchedule(&bundle, Priority::Normal);
    fakes.checks->ExecAll();
    EXPECT_EQ(Describe(resource->GetState()), "Error GeneralError 0");
}

TEST_F(RemoteResourceSchedulerTest, WithoutANotificationQueueObserversAreToldAtOnce) {
    RemoteResourceScheduler incomplete(fakes.downloader, fakes.checks, nullptr, fakes.postProcessor,
                                       fakes.validator, fakes.tracer, fakes.retrier);
    const ResourceDescriptorBundle bundle = Bundle({0});
    FakeObserver observer;
    incomplete.Register(&bundle)->RegisterEventHandler(&observer, {});
    EXPECT_THAT(observer.Take(), ElementsAre("Waiting NoError 0"));
}

TEST_F(RemoteResourceSchedulerTest, WithAllServicesReportsNothing) {
    const LogCapture log;
    const RemoteResourceScheduler complete(fakes.downloader, fakes.checks, fakes.notifications,
                                           fakes.postProcessor, fakes.validator, fakes.tracer,
                                           fakes.retrier);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

// With a real queue and a downloader that copies real files.

class RemoteResourceSchedulerOverFiles : public RemoteResourceSchedulerTest {
protected:
    RemoteResourceSchedulerOverFiles() {
        folder.Write("source/a", "the content of a");
        folder.Write("out/.keep", "");
        ResourceDescriptor& a = descriptors[0];
        a.localPath = a.downloadPath = folder / "out/a";
        a.tempPath = folder / "out/a.part";
        resource->RegisterEventHandler(&observer, {});
    }

    void Check() {
        resource->Schedule(Priority::Normal);
        EXPECT_TRUE(checks->ExecOne());
        EXPECT_FALSE(checks->ExecOne());
    }

    FakeObserver observer;
    const std::shared_ptr<TaskQueue> checks = std::make_shared<TaskQueue>();
    RemoteResourceScheduler overFiles{
        std::make_shared<ResourceDownloaderFileMock>(folder / "source", -1),
        checks,
        std::make_shared<TaskQueueImmediate>(),
        fakes.postProcessor,
        fakes.validator,
        fakes.tracer,
        fakes.retrier};
    const ResourceDescriptorBundle bundle = Bundle({0});
    IRemoteResource* const resource = overFiles.Register(&bundle);
};

TEST_F(RemoteResourceSchedulerOverFiles, ACopiedFileIsReportedAsFailedAndFoundByTheNextCheck) {
    Check();
    EXPECT_EQ(ReadFile(folder / "out/a"), "the content of a");
    EXPECT_EQ(Describe(resource->GetState()), "Error GeneralError 0");
    EXPECT_THAT(observer.Take(),
                ElementsAre("Waiting NoError 0", "Dowloading NoError 0", "Error GeneralError 0"));
    Check();
    EXPECT_EQ(Describe(resource->GetState()), "Available NoError 1");
    EXPECT_THAT(observer.Take(), ElementsAre("Available NoError 1"));
}

TEST_F(RemoteResourceSchedulerOverFiles, AMissingSourceIsAFailure) {
    EXPECT_TRUE((folder / "source/a").remove());
    Check();
    EXPECT_EQ(Describe(resource->GetState()), "Error GeneralError 0");
    EXPECT_FALSE((folder / "out/a").exists());
}

TEST_F(RemoteResourceSchedulerOverFiles, UrgentBundlesAreCheckedFirst) {
    const ResourceDescriptorBundle urgent = Bundle({1});
    resource->Schedule(Priority::Low);
    overFiles.RegisterAutoSchedule(&urgent, Priority::High);
    fakes.recorder.Take();
    checks->ExecOne();
    EXPECT_THAT(fakes.recorder.Take(), Contains("Trace Check b Waiting NoError 0"));
}

TEST(IRemoteResourceScheduler, KeepsTheOrderOfItsOperations) {
    EXPECT_EQ(VirtualSlot(&IRemoteResourceScheduler::RegisterAutoSchedule), 1U);
    EXPECT_EQ(VirtualSlot(&IRemoteResourceScheduler::Register), 2U);
}

} // namespace
} // namespace Halvex::App
