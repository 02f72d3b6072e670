#include "ResourceDownloadManager/ResourceBundle.h"

#include "ResourceDownloadManager/ResourceItem.h"
#include "support/SchedulingFakes.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace Halvex::App {
namespace {

using namespace Halvex::Testing;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using Error = IRemoteResource::DownloadError;
using Params = IRemoteResource::NotificationParams;
using Priority = ISchedulableResource::SchedulePriority;
using Status = IRemoteResource::DownloadStatus;

/// A bundle of as many items as a test adds, at most three.
class ResourceBundleTest : public testing::Test {
protected:
    ResourceBundleTest() {
        for (std::size_t i = 0; i < descriptors.size(); ++i) {
            descriptors[i].relativePath = std::string(1, static_cast<char>('a' + i));
            descriptors[i].localPath = "/nonexistent/file";
            descriptors[i].validationMode = 2;
            items[i] = std::make_unique<ResourceItem>(&descriptors[i], services);
        }
    }

    void AddItems(std::size_t count) { AddItemsTo(bundle, count); }
    void AddItemsTo(ResourceBundle& filled, std::size_t count) {
        for (std::size_t i = 0; i < count; ++i)
            filled.AddItem(*items[i]);
        filled.Complete();
    }
    /// The indices of the items, in the order of the items' addresses.
    std::vector<std::size_t> ByAddress() const {
        std::vector<std::size_t> indices{0, 1, 2};
        std::sort(indices.begin(), indices.end(), [this](std::size_t one, std::size_t other) {
            return std::less<>()(items[one].get(), items[other].get());
        });
        return indices;
    }
    ActiveState& Item(std::size_t i) { return items[i]->State(); }
    /// There is no way back to Waiting: an item in it must not have been changed.
    static void Set(ActiveState& item, Status status) {
        if (status == Status::Dowloading)
            item.SetProgress(1, 2);
        else if (status == Status::Available)
            item.SetAvailable();
        else if (status == Status::Error)
            item.SetError(Error::GeneralError);
    }
    std::string State() { return Describe(bundle.GetState()); }
    std::vector<std::string> Heard() {
        fakes.notifications->ExecAll();
        return observer.Take();
    }

    FakeServices fakes;
    const ItemServices services{fakes.downloader,    fakes.checks,    fakes.notifications,
                                fakes.postProcessor, fakes.validator, fakes.tracer,
                                fakes.retrier};
    std::array<ResourceDescriptor, 3> descriptors;
    std::array<std::unique_ptr<ResourceItem>, 3> items;
    ResourceDescriptorBundle descriptor;
    ResourceBundle bundle{&descriptor, *fakes.notifications, *fakes.tracer};
    FakeObserver observer;
};

TEST_F(ResourceBundleTest, KnowsItsDescriptor) {
    EXPECT_EQ(bundle.GetDescriptor(), &descriptor);
}

TEST_F(ResourceBundleTest, StaysWaitingWithoutItems) {
    bundle.Schedule(Priority::High);
    EXPECT_EQ(fakes.checks->Pending(), 0u);
    EXPECT_EQ(State(), "Waiting NoError 0");
}

TEST_F(ResourceBundleTest, ItsRecordsNameItsDescriptorAndNoResource) {
    std::vector<IEventTracer::TraceRecord> records;
    fakes.tracer->onTrace = [&records](IEventTracer::Event,
                                       const IEventTracer::TraceRecord& record) {
        records.push_back(record);
    };
    bundle.RegisterEventHandler(&observer, {});
    fakes.notifications->ExecAll();
    ASSERT_EQ(records.size(), 2u);
    for (const IEventTracer::TraceRecord& record : records) {
        EXPECT_EQ(record.descriptor, nullptr);
        EXPECT_EQ(record.bundle, &descriptor);
        EXPECT_EQ(record.text, "");
    }
}

// Scheduling.

TEST_F(ResourceBundleTest, SchedulesEachItemInTheOrderOfTheirAddresses) {
    std::vector<std::size_t> ascending = ByAddress();
    for (auto i = ascending.rbegin(); i != ascending.rend(); ++i)
        bundle.AddItem(*items[*i]);
    bundle.Complete();
    bundle.Schedule(Priority::High);
    std::vector<std::string> expected;
    for (const std::size_t i : ascending) {
        expected.push_back("Trace CheckScheduled " + descriptors[i].relativePath +
                           " Waiting NoError 0");
        expected.emplace_back("AddTask checks 1");
    }
    EXPECT_EQ(fakes.recorder.Take(), expected);
}

TEST_F(ResourceBundleTest, SchedulesTheItemsThatNeedItInTheOrderOfTheirAddresses) {
    const std::vector<std::size_t> ascending = ByAddress();
    AddItems(3);
    items[ascending[1]]->Schedule(Priority::High);
    fakes.recorder.Take();
    bundle.ScheduleIfNeeded(Priority::High);
    std::vector<std::string> expected;
    for (const std::size_t i : {ascending[0], ascending[2]}) {
        expected.push_back("Trace CheckScheduled " + descriptors[i].relativePath +
                           " Waiting NoError 0");
        expected.emplace_back("AddTask checks 1");
    }
    EXPECT_EQ(fakes.recorder.Take(), expected);
}

TEST_F(ResourceBundleTest, TellsOfItsItemsStatesWhenAllAreLinkedInTheOrderOfTheirAddresses) {
    std::vector<std::size_t> ascending = ByAddress();
    std::vector<std::unique_ptr<ResourceBundle>> others;
    std::array<FakeObserver, 3> observers;
    std::vector<std::size_t> heard;
    for (std::size_t i = 0; i < items.size(); ++i) {
        ResourceBundle& other = *others.emplace_back(
            std::make_unique<ResourceBundle>(&descriptor, *fakes.notifications, *fakes.tracer));
        other.AddItem(*items[i]);
        Set(Item(i), Status::Dowloading);
        // Every state that is pushed up is due, changed or not.
        other.RegisterEventHandler(&observers[i], {true, {Status::Dowloading}, 0});
        fakes.notifications->ExecAll();
        observers[i].onStateChanged = [&heard, i](IRemoteResource::State) {
            heard.push_back(i);
        };
    }
    for (auto i = ascending.rbegin(); i != ascending.rend(); ++i)
        bundle.AddItem(*items[*i]);
    EXPECT_EQ(fakes.notifications->Pending(), 0u);
    bundle.Complete();
    fakes.notifications->ExecAll();
    EXPECT_EQ(heard, ascending);
    for (std::size_t i = 0; i < items.size(); ++i)
        others[i]->UnregisterEventHandler(&observers[i]);
}

TEST_F(ResourceBundleTest, SchedulesWithoutCondition) {
    AddItems(2);
    bundle.Schedule(Priority::Low);
    bundle.Schedule(Priority::High);
    EXPECT_EQ(fakes.checks->Pending(), 4u);
}

TEST_F(ResourceBundleTest, SchedulesAtTheGivenPriority) {
    AddItems(1);
    bundle.Schedule(Priority::Low);
    EXPECT_THAT(fakes.recorder.Take(), testing::Contains("AddTask checks 3"));
}

// Its state.

TEST_F(ResourceBundleTest, OfOneItemMirrorsIt) {
    AddItems(1);
    Item(0).SetProgress(1, 3);
    EXPECT_EQ(bundle.GetState().progress, 1.0 / 3.0);
    EXPECT_EQ(State(), Describe(Item(0).GetState()));
    Item(0).SetError(Error::Cancelled);
    EXPECT_EQ(State(), "Error Cancelled 0");
    Item(0).SetAvailable();
    EXPECT_EQ(State(), "Available NoError 1");
}

TEST_F(ResourceBundleTest, OfOneAvailableAndOneWaitingItemIsHalfDownloaded) {
    AddItems(2);
    Item(0).SetAvailable();
    EXPECT_EQ(State(), "Dowloading NoError 0.5");
}

TEST_F(ResourceBundleTest, StartsWithTheStateThatItsItemsHave) {
    Item(0).SetAvailable();
    Item(1).SetProgress(1, 2);
    AddItems(2);
    EXPECT_EQ(State(), "Dowloading NoError 0.75");
}

class ResourceBundleOfTwo : public ResourceBundleTest,
                            public testing::WithParamInterface<std::tuple<Status, Status, Status>> {
};

TEST_P(ResourceBundleOfTwo, HasTheStatusThatFollowsFromTheirs) {
    const auto& [one, other, expected] = GetParam();
    AddItems(2);
    Set(Item(0), one);
    Set(Item(1), other);
    EXPECT_EQ(bundle.GetState().status, expected);
}

INSTANTIATE_TEST_SUITE_P(
    AllPairs, ResourceBundleOfTwo,
    testing::Values(std::tuple(Status::Waiting, Status::Waiting, Status::Waiting),
                    std::tuple(Status::Waiting, Status::Dowloading, Status::Dowloading),
                    std::tuple(Status::Waiting, Status::Available, Status::Dowloading),
                    std::tuple(Status::Waiting, Status::Error, Status::Error),
                    std::tuple(Status::Dowloading, Status::Waiting, Status::Dowloading),
                    std::tuple(Status::Dowloading, Status::Dowloading, Status::Dowloading),
                    std::tuple(Status::Dowloading, Status::Available, Status::Dowloading),
                    std::tuple(Status::Dowloading, Status::Error, Status::Error),
                    std::tuple(Status::Available, Status::Waiting, Status::Dowloading),
                    std::tuple(Status::Available, Status::Dowloading, Status::Dowloading),
                    std::tuple(Status::Available, Status::Available, Status::Available),
                    std::tuple(Status::Available, Status::Error, Status::Error),
                    std::tuple(Status::Error, Status::Waiting, Status::Error),
                    std::tuple(Status::Error, Status::Dowloading, Status::Error),
                    std::tuple(Status::Error, Status::Available, Status::Error),
                    std::tuple(Status::Error, Status::Error, Status::Error)));

class ResourceBundleError : public ResourceBundleTest,
                            public testing::WithParamInterface<std::tuple<Error, Error, Error>> {};

TEST_P(ResourceBundleError, IsTheOneThatComesFirst) {
    const auto& [one, other, expected] = GetParam();
    AddItems(3);
    Item(0).SetError(one);
    Item(1).SetError(other);
    EXPECT_EQ(bundle.GetState().error, expected);
}

INSTANTIATE_TEST_SUITE_P(
    Some, ResourceBundleError,
    testing::Values(std::tuple(Error::Corrupted, Error::Cancelled, Error::Cancelled),
                    std::tuple(Error::InternetConnectionLost, Error::Cancelled, Error::Cancelled),
                    std::tuple(Error::Corrupted, Error::InternetConnectionLost,
                               Error::InternetConnectionLost),
                    std::tuple(Error::GeneralError, Error::Corrupted, Error::Corrupted),
                    std::tuple(Error::GeneralError, Error::NoError, Error::GeneralError)));

TEST_F(ResourceBundleTest, IsInErrorEvenWhileAnotherItemDownloads) {
    AddItems(3);
    Item(0).SetError(Error::Corrupted);
    Item(1).SetAvailable();
    Item(2).SetProgress(1, 2);
    EXPECT_EQ(State(), "Error Corrupted 0.5");
}

TEST_F(ResourceBundleTest, RecoversFromTheErrorOfAnItem) {
    AddItems(2);
    Item(0).SetError(Error::Corrupted);
    Item(0).SetAvailable();
    Item(1).SetAvailable();
    EXPECT_EQ(State(), "Available NoError 1");
}

TEST_F(ResourceBundleTest, AnUnknownProgressOfOneItemLeavesNoTrace) {
    AddItems(3);
    Item(0).SetProgress(1, 3);
    Item(1).SetProgress(1, 7);
    const double before = bundle.GetState().progress;
    Item(0).SetProgress(0, 0);
    EXPECT_EQ(State(), "Dowloading NoError nan");
    Item(0).SetProgress(1, 3);
    EXPECT_EQ(bundle.GetState().progress, before);
}

// Observers.

TEST_F(ResourceBundleTest, TellsANewObserverItsStateAndItsDescriptor) {
    bundle.RegisterEventHandler(&observer, {});
    EXPECT_THAT(Heard(), ElementsAre("Waiting NoError 0"));
    EXPECT_THAT(observer.Bundles(), ElementsAre(&descriptor));
}

TEST_F(ResourceBundleTest, TellsNothingOfAStateThatANewObserverDoesNotAskFor) {
    bundle.RegisterEventHandler(&observer, {true, {Status::Available}, 0.01});
    EXPECT_THAT(Heard(), IsEmpty());
}

TEST_F(ResourceBundleTest, TellsThroughTheQueueOnly) {
    bundle.RegisterEventHandler(&observer, {});
    EXPECT_THAT(observer.Take(), IsEmpty());
    EXPECT_THAT(fakes.recorder.Take(), ElementsAre("AddTask notifications 2"));
}

TEST_F(ResourceBundleTest, TellsItsOwnStateNotThatOfTheItem) {
    AddItems(2);
    bundle.RegisterEventHandler(&observer, {true, {Status::Dowloading}, 0.01});
    Item(0).SetAvailable();
    EXPECT_THAT(Heard(), ElementsAre("Dowloading NoError 0.5"));
}

TEST_F(ResourceBundleTest, TellsAnObserverOfSeveralBundlesWhichOneItIs) {
    ResourceDescriptorBundle otherDescriptor;
    ResourceBundle other(&otherDescriptor, *fakes.notifications, *fakes.tracer);
    bundle.RegisterEventHandler(&observer, {});
    other.RegisterEventHandler(&observer, {});
    fakes.notifications->ExecAll();
    EXPECT_THAT(observer.Bundles(), ElementsAre(&descriptor, &otherDescriptor));
}

TEST_F(ResourceBundleTest, TellsOfProgressFromTheStepOn) {
    AddItems(1);
    bundle.RegisterEventHandler(&observer, {true, {Status::Dowloading}, 0.1});
    Item(0).SetProgress(0, 100);
    Item(0).SetProgress(5, 100);
    Item(0).SetProgress(10, 100);
    EXPECT_THAT(Heard(), ElementsAre("Dowloading NoError 0", "Dowloading NoError 0.1"));
}

TEST_F(ResourceBundleTest, TellsOfADownloadOnceWhenProgressIsNotWanted) {
    AddItems(1);
    bundle.RegisterEventHandler(&observer, {false, Params().statuses, 0.1});
    Item(0).SetProgress(0, 100);
    Item(0).SetProgress(50, 100);
    Item(0).SetAvailable();
    EXPECT_THAT(Heard(),
                ElementsAre("Waiting NoError 0", "Dowloading NoError 0", "Available NoError 1"));
}

TEST_F(ResourceBundleTest, TellsOfAvailableOnlyOnce) {
    AddItems(1);
    Item(0).SetAvailable();
    bundle.RegisterEventHandler(&observer, {});
    Item(0).SetAvailable();
    EXPECT_THAT(Heard(), ElementsAre("Available NoError 1"));
}

TEST_F(ResourceBundleTest, DropsTheNotificationsOfAnUnregisteredObserver) {
    bundle.RegisterEventHandler(&observer, {});
    bundle.UnregisterEventHandler(&observer);
    EXPECT_THAT(Heard(), IsEmpty());
}

TEST_F(ResourceBundleTest, ASecondRegistrationChangesNothing) {
    AddItems(1);
    bundle.RegisterEventHandler(&observer, {false, {Status::Dowloading}, 0.5});
    bundle.RegisterEventHandler(&observer, {});
    Item(0).SetProgress(0, 1);
    Item(0).SetProgress(9, 10);
    Item(0).SetAvailable();
    EXPECT_THAT(Heard(), ElementsAre("Dowloading NoError 0"));
}

TEST_F(ResourceBundleTest, ASecondRegistrationRunsTheCheckAgain) {
    AddItems(1);
    Item(0).SetProgress(1, 2);
    bundle.RegisterEventHandler(&observer, {true, {Status::Dowloading}, 0});
    EXPECT_THAT(Heard(), ElementsAre("Dowloading NoError 0.5"));
    bundle.RegisterEventHandler(&observer, {});
    EXPECT_THAT(Heard(), ElementsAre("Dowloading NoError 0.5"));
}

TEST_F(ResourceBundleTest, UnregisteringFirstMakesNewParametersCount) {
    AddItems(1);
    bundle.RegisterEventHandler(&observer, {true, {Status::Dowloading}, 0.01});
    bundle.UnregisterEventHandler(&observer);
    bundle.RegisterEventHandler(&observer, {true, {Status::Available}, 0.01});
    Item(0).SetProgress(0, 1);
    Item(0).SetAvailable();
    EXPECT_THAT(Heard(), ElementsAre("Available NoError 1"));
}

TEST_F(ResourceBundleTest, KeepsItsOwnCopyOfTheParameters) {
    AddItems(1);
    Params params{true, {Status::Available}, 0.01};
    bundle.RegisterEventHandler(&observer, params);
    params.statuses = {Status::Dowloading};
    Item(0).SetProgress(0, 1);
    EXPECT_THAT(Heard(), IsEmpty());
}

TEST_F(ResourceBundleTest, ObserversMayUseItWhileTheyAreCalled) {
    FakeObserver other;
    bundle.RegisterEventHandler(&other, {true, {Status::Available}, 0.01});
    observer.onStateChanged = [this, &other](IRemoteResource::State) {
        EXPECT_EQ(State(), "Waiting NoError 0");
        bundle.UnregisterEventHandler(&other);
        bundle.UnregisterEventHandler(&observer);
        bundle.RegisterEventHandler(&other, {});
    };
    bundle.RegisterEventHandler(&observer, {});
    EXPECT_THAT(Heard(), ElementsAre("Waiting NoError 0"));
    EXPECT_THAT(other.Take(), ElementsAre("Waiting NoError 0"));
}

TEST_F(ResourceBundleTest, NobodyIsCalledAfterUnregistering) {
    Event entered;
    Event released;
    observer.onStateChanged = [&entered, &released](IRemoteResource::State) {
        entered.Set();
        EXPECT_TRUE(released.Wait());
    };
    bundle.RegisterEventHandler(&observer, {});
    std::thread delivery([this] { fakes.notifications->ExecAll(); });
    ASSERT_TRUE(entered.Wait());
    Event unregistered;
    std::thread unregistering([this, &unregistered] {
        bundle.UnregisterEventHandler(&observer);
        unregistered.Set();
    });
    EXPECT_FALSE(unregistered.Wait(std::chrono::milliseconds(50)));
    released.Set();
    EXPECT_TRUE(unregistered.Wait());
    delivery.join();
    unregistering.join();
}

} // namespace
} // namespace Halvex::App
