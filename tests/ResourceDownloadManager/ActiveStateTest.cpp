#include "ResourceDownloadManager/ActiveState.h"

#include "support/SchedulingFakes.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>

#include <array>
#include <cmath>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace Halvex::App {
namespace {

using namespace Halvex::Testing;
using testing::ElementsAre;
using testing::IsEmpty;
using Error = IRemoteResource::DownloadError;
using Params = IRemoteResource::NotificationParams;
using Status = IRemoteResource::DownloadStatus;
using TraceEvent = IEventTracer::Event;
using Words = std::vector<std::string>;

/// Enough for a call that nothing holds up to come through.
constexpr std::chrono::milliseconds kHeldUp(50);

/// What an observer is known by.
class NamedHandler : public IRemoteResourceEventHandler {
public:
    void OnStateChanged(IRemoteResource::State, const ResourceDescriptorBundle*) override {
        ADD_FAILURE() << "called although it is only a name";
    }
};

/// An action on a thread of its own, joined at the end.
class OnOtherThread {
public:
    template <typename Action>
    explicit OnOtherThread(Action action)
        : m_thread([this, action] {
              action();
              m_done.Set();
          }) {}
    ~OnOtherThread() { m_thread.join(); }

    OnOtherThread(const OnOtherThread&) = delete;
    OnOtherThread& operator=(const OnOtherThread&) = delete;

    bool IsDone(std::chrono::milliseconds limit = kGenerousLimit) { return m_done.Wait(limit); }

private:
    Event m_done;
    std::thread m_thread;
};

class ActiveStateTest : public testing::Test {
protected:
    /// Adds an observer that records "<name>: <state>" when it is told.
    void Observe(IRemoteResourceEventHandler& handler, const Params& params = {},
                 const std::string& name = "told") {
        ObserveWith(
            handler,
            [this, name](IRemoteResource::State told) {
                fakes.recorder.Add(name + ": " + Describe(told));
            },
            params);
    }
    void ObserveWith(IRemoteResourceEventHandler& handler, ActiveState::Callback callback,
                     const Params& params = {}) {
        state.AddHandler(&handler, std::move(callback), params);
        state.CheckAllNotifications();
    }

    /// Delivers what is queued; what was called meanwhile.
    Words Delivered() {
        fakes.recorder.Take();
        fakes.notifications->ExecAll();
        return fakes.recorder.Take();
    }
    /// Only what the observers were told.
    Words Told() { return OnlyTold(Delivered()); }
    static Words OnlyTold(const Words& calls) {
        Words told;
        for (const std::string& call : calls) {
            if (call.find(": ") != std::string::npos)
                told.push_back(call);
        }
        return told;
    }
    void Report(double progress) { ReportTo(state, progress); }
    static void ReportTo(ActiveState& changed, double progress) {
        changed.SetProgress(static_cast<std::uint64_t>(std::lround(progress * 1000)), 1000);
    }
    /// Runs the one queued delivery until its callback is entered, calls the action on this thread
    /// and then lets the callback return.
    template <typename Action>
    void WhileAnObserverIsCalled(Action action) {
        ObserveWith(first, [this](IRemoteResource::State) {
            entered.Set();
            EXPECT_TRUE(released.Wait());
        });
        std::thread delivery([this] { fakes.notifications->ExecOne(); });
        EXPECT_TRUE(entered.Wait());
        action();
        released.Set();
        delivery.join();
    }

    Event entered;
    Event released;
    FakeServices fakes;
    ResourceDescriptorBundle bundle;
    std::array<NamedHandler, 3> handlers;
    NamedHandler& first = handlers[0];
    NamedHandler& second = handlers[1];
    NamedHandler& third = handlers[2];
    ActiveState state{nullptr, &bundle, *fakes.notifications, *fakes.tracer};
};

// The state itself.

TEST_F(ActiveStateTest, StartsWaiting) {
    EXPECT_EQ(Describe(state.GetState()), "Waiting NoError 0");
}

TEST_F(ActiveStateTest, SetAvailableMeansDoneWithoutError) {
    state.SetError(Error::Corrupted);
    state.SetAvailable();
    EXPECT_EQ(Describe(state.GetState()), "Available NoError 1");
}

TEST_F(ActiveStateTest, SetErrorTakesTheProgressBack) {
    state.SetAvailable();
    state.SetError(Error::InternetConnectionLost);
    EXPECT_EQ(Describe(state.GetState()), "Error InternetConnectionLost 0");
}

TEST_F(ActiveStateTest, SetProgressClearsTheError) {
    state.SetError(Error::Corrupted);
    state.SetProgress(1, 4);
    EXPECT_EQ(Describe(state.GetState()), "Dowloading NoError 0.25");
}

TEST_F(ActiveStateTest, ProgressIsAQuotientOfUnsigned64BitNumbers) {
    state.SetProgress(std::uint64_t{1} << 63, ~std::uint64_t{0});
    EXPECT_DOUBLE_EQ(state.GetState().progress, 0.5);
}

TEST_F(ActiveStateTest, TheProgressOfNothingOfNothingIsNotANumber) {
    state.SetProgress(0, 0);
    EXPECT_EQ(Describe(state.GetState()), "Dowloading NoError nan");
}

TEST_F(ActiveStateTest, ItsRecordSaysWhatItBelongsToWithACopyOfTheState) {
    ResourceDescriptor descriptor;
    ActiveState other(&descriptor, &bundle, *fakes.notifications, *fakes.tracer);
    other.SetProgress(1, 4);
    IRemoteResource::State snapshot;
    const IEventTracer::TraceRecord record = other.GetTraceRecord(snapshot);
    other.SetAvailable();
    EXPECT_EQ(record.descriptor, &descriptor);
    EXPECT_EQ(record.bundle, &bundle);
    EXPECT_EQ(record.text, "");
    EXPECT_EQ(record.state, &snapshot);
    EXPECT_EQ(Describe(snapshot), "Dowloading NoError 0.25");
}

// Which states are reported.

TEST_F(ActiveStateTest, TheFirstStateIsReported) {
    Observe(first);
    EXPECT_THAT(Told(), ElementsAre("told: Waiting NoError 0"));
}

TEST_F(ActiveStateTest, EveryNewStatusIsReported) {
    Observe(first);
    state.SetProgress(0, 1);
    state.SetError(Error::Cancelled);
    state.SetProgress(0, 1);
    state.SetAvailable();
    EXPECT_THAT(Told(), ElementsAre("told: Waiting NoError 0", "told: Dowloading NoError 0",
                                    "told: Error Cancelled 0", "told: Dowloading NoError 0",
                                    "told: Available NoError 1"));
}

TEST_F(ActiveStateTest, AvailableAgainIsNotReported) {
    Observe(first);
    state.SetAvailable();
    state.SetAvailable();
    EXPECT_THAT(Told(), ElementsAre("told: Waiting NoError 0", "told: Available NoError 1"));
}

TEST_F(ActiveStateTest, AnotherErrorIsNotReported) {
    state.SetError(Error::Cancelled);
    Observe(first);
    state.SetError(Error::Corrupted);
    EXPECT_THAT(Told(), ElementsAre("told: Error Cancelled 0"));
}

TEST_F(ActiveStateTest, AStatusNotAskedForIsNotReported) {
    Observe(first, {true, {Status::Available}, 0.01});
    state.SetProgress(0, 1);
    Report(0.5);
    state.SetAvailable();
    EXPECT_THAT(Told(), ElementsAre("told: Available NoError 1"));
}

TEST_F(ActiveStateTest, ProgressIsNotReportedWhenItsStatusIsNotAskedFor) {
    Observe(first, {true, {Status::Waiting}, 0});
    Report(0.2);
    Report(0.9);
    EXPECT_THAT(Told(), ElementsAre("told: Waiting NoError 0"));
}

TEST_F(ActiveStateTest, AStatusNotAskedForIsForgottenSoThatTheOneBeforeItIsNoNews) {
    state.SetAvailable();
    Observe(first, {true, {Status::Available}, 0.01});
    state.SetError(Error::Corrupted);
    state.SetAvailable();
    EXPECT_THAT(Told(), ElementsAre("told: Available NoError 1"));
}

TEST_F(ActiveStateTest, AStatusNotAskedForLeavesTheLastReportedProgress) {
    Report(0.5);
    Observe(first, {true, {Status::Dowloading}, 0.1});
    state.SetError(Error::Corrupted);
    Report(0.55);
    Report(0.625);
    EXPECT_THAT(Told(),
                ElementsAre("told: Dowloading NoError 0.5", "told: Dowloading NoError 0.625"));
}

TEST_F(ActiveStateTest, AnObserverOfNoStatusIsNeverTold) {
    Observe(first, {true, {}, 0});
    state.SetProgress(0, 1);
    state.SetAvailable();
    EXPECT_EQ(fakes.notifications->Pending(), 0u);
}

TEST_F(ActiveStateTest, ProgressIsReportedFromTheStepOn) {
    Observe(first, {true, {Status::Dowloading}, 0.1});
    Report(0);
    Report(0.05);
    EXPECT_THAT(Told(), ElementsAre("told: Dowloading NoError 0"));
    Report(0.1);
    EXPECT_THAT(Told(), ElementsAre("told: Dowloading NoError 0.1"));
}

TEST_F(ActiveStateTest, TheStepIsMeasuredFromTheLastReportedProgress) {
    Observe(first, {true, {Status::Dowloading}, 0.25});
    Report(0);
    Report(0.2);
    Report(0.3);
    Report(0.5);
    Report(0.55);
    EXPECT_THAT(Told(), ElementsAre("told: Dowloading NoError 0", "told: Dowloading NoError 0.3",
                                    "told: Dowloading NoError 0.55"));
}

TEST_F(ActiveStateTest, AFallOfTheProgressIsNotReported) {
    Observe(first, {true, {Status::Dowloading}, 0.1});
    Report(0.5);
    Report(0.1);
    Report(0.55);
    EXPECT_THAT(Told(), ElementsAre("told: Dowloading NoError 0.5"));
}

TEST_F(ActiveStateTest, AnUnchangedProgressIsReportedWithAStepOfZero) {
    Observe(first, {true, {Status::Dowloading}, 0});
    Report(0.5);
    Report(0.5);
    EXPECT_THAT(Told(),
                ElementsAre("told: Dowloading NoError 0.5", "told: Dowloading NoError 0.5"));
}

TEST_F(ActiveStateTest, WithoutProgressWantedOnlyStatusesAreReported) {
    Observe(first, {false, Params().statuses, 0.01});
    Report(0);
    Report(0.5);
    Report(1);
    state.SetAvailable();
    EXPECT_THAT(Told(), ElementsAre("told: Waiting NoError 0", "told: Dowloading NoError 0",
                                    "told: Available NoError 1"));
}

TEST_F(ActiveStateTest, AProgressThatIsNotANumberIsReportedAndSoIsWhatFollowsIt) {
    Observe(first, {true, {Status::Dowloading}, 0.5});
    Report(0.3);
    state.SetProgress(0, 0);
    Report(0.4);
    Report(0.5);
    EXPECT_THAT(Told(), ElementsAre("told: Dowloading NoError 0.3", "told: Dowloading NoError nan",
                                    "told: Dowloading NoError 0.4"));
}

TEST_F(ActiveStateTest, AnInfiniteProgressIsReportedAndAFallFromItIsNot) {
    Observe(first, {true, {Status::Dowloading}, 0.5});
    Report(0.3);
    state.SetProgress(1, 0);
    Report(0.9);
    EXPECT_THAT(Told(),
                ElementsAre("told: Dowloading NoError 0.3", "told: Dowloading NoError inf"));
}

TEST_F(ActiveStateTest, EachObserverHasItsOwnParameters) {
    Observe(first, {true, {Status::Dowloading}, 0.5}, "coarse");
    Observe(second, {true, {Status::Dowloading}, 0.1}, "fine");
    Report(0);
    Report(0.2);
    Report(0.5);
    EXPECT_THAT(Told(),
                ElementsAre("coarse: Dowloading NoError 0", "fine: Dowloading NoError 0",
                            "fine: Dowloading NoError 0.2", "coarse: Dowloading NoError 0.5",
                            "fine: Dowloading NoError 0.5"));
}

// How they are reported.

TEST_F(ActiveStateTest, NotificationsAreQueuedAtMiddlePriority) {
    Observe(first);
    EXPECT_THAT(fakes.recorder.Take(), ElementsAre("AddTask notifications 2"));
}

TEST_F(ActiveStateTest, NobodyIsToldBeforeTheQueueRuns) {
    Observe(first);
    state.SetAvailable();
    EXPECT_THAT(fakes.recorder.Take(),
                ElementsAre("AddTask notifications 2", "AddTask notifications 2"));
}

TEST_F(ActiveStateTest, ObserversAreToldInTheOrderOfTheirAddresses) {
    state.SetAvailable();
    state.AddHandler(&third, [this](auto) { fakes.recorder.Add(": third"); }, {});
    state.AddHandler(&first, [this](auto) { fakes.recorder.Add(": first"); }, {});
    state.AddHandler(&second, [this](auto) { fakes.recorder.Add(": second"); }, {});
    state.CheckAllNotifications();
    EXPECT_THAT(Told(), ElementsAre(": first", ": second", ": third"));
}

TEST_F(ActiveStateTest, AStatusNotificationIsTracedAroundTheCall) {
    Observe(first);
    EXPECT_THAT(Delivered(), ElementsAre("Trace StatusNotification bundle Waiting NoError 0",
                                         "told: Waiting NoError 0",
                                         "Trace /StatusNotification bundle Waiting NoError 0"));
}

TEST_F(ActiveStateTest, AProgressNotificationIsTracedAroundTheCall) {
    Observe(first, {true, {Status::Dowloading}, 0.1});
    Report(0);
    EXPECT_THAT(Delivered(), ElementsAre("Trace StatusNotification bundle Dowloading NoError 0",
                                         "told: Dowloading NoError 0",
                                         "Trace /StatusNotification bundle Dowloading NoError 0"));
    Report(0.5);
    EXPECT_THAT(Delivered(),
                ElementsAre("Trace ProgressNotification bundle Dowloading NoError 0.5",
                            "told: Dowloading NoError 0.5",
                            "Trace /ProgressNotification bundle Dowloading NoError 0.5"));
}

TEST_F(ActiveStateTest, TheObserverIsToldTheStateOfItsTimeWhileTheTraceShowsTheLatestNotified) {
    Observe(first, {true, {Status::Dowloading, Status::Available}, 0.1});
    Report(0);
    state.SetAvailable();
    EXPECT_THAT(Delivered(), ElementsAre("Trace StatusNotification bundle Available NoError 1",
                                         "told: Dowloading NoError 0",
                                         "Trace /StatusNotification bundle Available NoError 1",
                                         "Trace StatusNotification bundle Available NoError 1",
                                         "told: Available NoError 1",
                                         "Trace /StatusNotification bundle Available NoError 1"));
}

TEST_F(ActiveStateTest, TheTraceShowsTheLastNotifiedStateNotThePresentOne) {
    Observe(first, {true, {Status::Waiting}, 0.1});
    state.SetAvailable();
    EXPECT_THAT(Delivered(), ElementsAre("Trace StatusNotification bundle Waiting NoError 0",
                                         "told: Waiting NoError 0",
                                         "Trace /StatusNotification bundle Waiting NoError 0"));
}

TEST_F(ActiveStateTest, TheTracedStateDoesNotChangeWhileTheObserverIsCalled) {
    ObserveWith(first, [this](IRemoteResource::State told) {
        if (told.status == Status::Waiting)
            state.SetAvailable();
    });
    EXPECT_THAT(Delivered(), ElementsAre("Trace StatusNotification bundle Waiting NoError 0",
                                         "AddTask notifications 2",
                                         "Trace /StatusNotification bundle Waiting NoError 0",
                                         "Trace StatusNotification bundle Available NoError 1",
                                         "Trace /StatusNotification bundle Available NoError 1"));
}

// Deliveries that two threads queue the other way round.

TEST_F(ActiveStateTest, ALaterDeliveryThatRunsFirstBringsWhatCameBeforeIt) {
    Observe(first);
    Report(0.5);
    state.SetAvailable();
    fakes.notifications->Reverse();
    EXPECT_THAT(Told(), ElementsAre("told: Waiting NoError 0", "told: Dowloading NoError 0.5",
                                    "told: Available NoError 1"));
}

TEST_F(ActiveStateTest, ADeliveryBringsNothingThatCameLater) {
    Observe(first);
    state.SetAvailable();
    fakes.recorder.Take();
    fakes.notifications->ExecOne();
    EXPECT_THAT(fakes.recorder.Take(),
                ElementsAre("Trace StatusNotification bundle Available NoError 1",
                            "told: Waiting NoError 0",
                            "Trace /StatusNotification bundle Available NoError 1"));
    EXPECT_THAT(Told(), ElementsAre("told: Available NoError 1"));
}

TEST_F(ActiveStateTest, ADeliveryBringsOnlyWhatIsMeantForItsObserver) {
    Observe(first, {}, "first");
    Observe(second, {}, "second");
    state.SetAvailable();
    fakes.notifications->Reverse();
    EXPECT_THAT(Told(), ElementsAre("second: Waiting NoError 0", "second: Available NoError 1",
                                    "first: Waiting NoError 0", "first: Available NoError 1"));
}

TEST_F(ActiveStateTest, AnObserverThatThrowsIsStillToldWhatComesAfter) {
    int calls = 0;
    ObserveWith(first, [&](IRemoteResource::State told) {
        if (++calls == 1)
            throw std::runtime_error("an observer's");
        fakes.recorder.Add("told: " + Describe(told));
    });
    Report(0.5);
    state.SetAvailable();
    fakes.notifications->Reverse();
    fakes.recorder.Take();
    EXPECT_THROW(fakes.notifications->ExecAll(), std::runtime_error);
    EXPECT_THAT(OnlyTold(fakes.recorder.Take()),
                ElementsAre("told: Dowloading NoError 0.5", "told: Available NoError 1"));
    EXPECT_THAT(Told(), IsEmpty());
}

// Registering and unregistering.

TEST_F(ActiveStateTest, ARemovedObserverIsNotToldWhatIsOnItsWay) {
    Observe(first);
    state.RemoveHandler(&first);
    EXPECT_THAT(Delivered(), IsEmpty());
}

TEST_F(ActiveStateTest, ARemovedObserverIsNotToldOfLaterChanges) {
    Observe(first);
    fakes.notifications->ExecAll();
    state.RemoveHandler(&first);
    state.SetAvailable();
    EXPECT_EQ(fakes.notifications->Pending(), 0u);
}

TEST_F(ActiveStateTest, RemovingAnUnknownObserverChangesNothing) {
    Observe(first);
    state.RemoveHandler(&second);
    EXPECT_THAT(Told(), ElementsAre("told: Waiting NoError 0"));
}

TEST_F(ActiveStateTest, AnObserverThatCameBackIsToldOnlyWhatIsMeantForItsNewRegistration) {
    Observe(first, {}, "old");
    state.RemoveHandler(&first);
    state.SetAvailable();
    Observe(first, {}, "new");
    EXPECT_THAT(Told(), ElementsAre("new: Available NoError 1"));
}

TEST_F(ActiveStateTest, AnObserverThatCameBackHearsTheSameStateAnew) {
    Observe(first);
    EXPECT_THAT(Told(), ElementsAre("told: Waiting NoError 0"));
    state.RemoveHandler(&first);
    Observe(first);
    EXPECT_THAT(Told(), ElementsAre("told: Waiting NoError 0"));
}

TEST_F(ActiveStateTest, ASecondRegistrationKeepsTheCallbackAndTheParameters) {
    Observe(first, {false, {Status::Dowloading}, 0.5}, "once");
    Observe(first, {true, {Status::Dowloading, Status::Available}, 0.1}, "again");
    Report(0);
    Report(0.9);
    state.SetAvailable();
    EXPECT_THAT(Told(), ElementsAre("once: Dowloading NoError 0"));
}

TEST_F(ActiveStateTest, ASecondRegistrationKeepsTheLastNotifiedState) {
    Observe(first);
    Observe(first);
    EXPECT_THAT(Told(), ElementsAre("told: Waiting NoError 0"));
}

// Delivery and other threads.

TEST_F(ActiveStateTest, GetStateWaitsForAnObserverCalledElsewhere) {
    std::unique_ptr<OnOtherThread> asking;
    WhileAnObserverIsCalled([this, &asking] {
        asking = std::make_unique<OnOtherThread>([this] { state.GetState(); });
        EXPECT_FALSE(asking->IsDone(kHeldUp));
    });
    EXPECT_TRUE(asking->IsDone());
}

TEST_F(ActiveStateTest, AddingAnObserverWaitsForOneCalledElsewhere) {
    std::unique_ptr<OnOtherThread> adding;
    WhileAnObserverIsCalled([this, &adding] {
        adding = std::make_unique<OnOtherThread>(
            [this] { state.AddHandler(&second, [](IRemoteResource::State) {}, {}); });
        EXPECT_FALSE(adding->IsDone(kHeldUp));
    });
    EXPECT_TRUE(adding->IsDone());
}

TEST_F(ActiveStateTest, RemovingAnObserverWaitsUntilItHasReturned) {
    std::unique_ptr<OnOtherThread> removing;
    WhileAnObserverIsCalled([this, &removing] {
        removing = std::make_unique<OnOtherThread>([this] { state.RemoveHandler(&first); });
        EXPECT_FALSE(removing->IsDone(kHeldUp));
    });
    EXPECT_TRUE(removing->IsDone());
}

TEST_F(ActiveStateTest, AnotherObserverWaitsItsTurn) {
    std::unique_ptr<OnOtherThread> other;
    Observe(second, {true, {Status::Available}, 0.01}, "other");
    WhileAnObserverIsCalled([this, &other] {
        state.SetAvailable();
        fakes.recorder.Take();
        other = std::make_unique<OnOtherThread>([this] { fakes.notifications->ExecAll(); });
        EXPECT_FALSE(other->IsDone(kHeldUp));
        EXPECT_THAT(fakes.recorder.Take(), IsEmpty());
    });
    EXPECT_TRUE(other->IsDone());
}

TEST_F(ActiveStateTest, AChangeDoesNotWaitForAnObserver) {
    Observe(second, {true, {Status::Available}, 0.01});
    WhileAnObserverIsCalled([this] {
        OnOtherThread change([this] {
            state.SetProgress(1, 2);
            state.SetError(Error::Cancelled);
            state.SetAvailable();
            state.CheckAllNotifications();
        });
        EXPECT_TRUE(change.IsDone());
        EXPECT_EQ(fakes.notifications->Pending(), 4u);
    });
}

TEST_F(ActiveStateTest, ReadingTheTraceRecordDoesNotWaitForAnObserver) {
    WhileAnObserverIsCalled([this] {
        OnOtherThread reading([this] {
            IRemoteResource::State snapshot;
            state.GetTraceRecord(snapshot);
        });
        EXPECT_TRUE(reading.IsDone());
    });
}

TEST_F(ActiveStateTest, AnObserverMayAskForTheState) {
    std::string asked;
    ObserveWith(first,
                [this, &asked](IRemoteResource::State) { asked = Describe(state.GetState()); });
    fakes.notifications->ExecAll();
    EXPECT_EQ(asked, "Waiting NoError 0");
}

TEST_F(ActiveStateTest, AnObserverMayRemoveItself) {
    int calls = 0;
    ObserveWith(first, [this, &calls](IRemoteResource::State) {
        ++calls;
        state.RemoveHandler(&first);
    });
    state.SetAvailable();
    fakes.notifications->ExecAll();
    EXPECT_EQ(calls, 1);
}

TEST_F(ActiveStateTest, TheEndOfACallIsTracedThoughTheObserverRemovedItself) {
    ObserveWith(first, [this](IRemoteResource::State) { state.RemoveHandler(&first); });
    EXPECT_THAT(Delivered(), ElementsAre("Trace StatusNotification bundle Waiting NoError 0",
                                         "Trace /StatusNotification bundle Waiting NoError 0"));
}

TEST_F(ActiveStateTest, AnObserverMayRemoveAnother) {
    ObserveWith(first, [this](IRemoteResource::State) { state.RemoveHandler(&second); });
    Observe(second);
    EXPECT_THAT(Told(), IsEmpty());
}

TEST_F(ActiveStateTest, AnObserverMayAddAnother) {
    ObserveWith(first, [this](IRemoteResource::State) { Observe(second); });
    EXPECT_THAT(Told(), ElementsAre("told: Waiting NoError 0"));
}

TEST_F(ActiveStateTest, AnObserverMayChangeTheState) {
    ObserveWith(first, [this](IRemoteResource::State) { state.SetAvailable(); });
    fakes.notifications->ExecAll();
    EXPECT_EQ(Describe(state.GetState()), "Available NoError 1");
}

TEST_F(ActiveStateTest, AnObserverThatThrowsLeavesTheStateUsable) {
    ObserveWith(first, [](IRemoteResource::State) { throw std::runtime_error("an observer's"); });
    EXPECT_THROW(fakes.notifications->ExecOne(), std::runtime_error);
    OnOtherThread use([this] {
        state.SetAvailable();
        state.GetState();
        state.RemoveHandler(&first);
    });
    EXPECT_TRUE(use.IsDone());
}

// Where a callback dies.

/// Does something when the last copy of a callback that holds it goes.
class AtTheEnd {
public:
    explicit AtTheEnd(std::function<void()> action)
        : m_action(std::shared_ptr<void>(nullptr, [action](void*) { action(); })) {}

    void operator()(IRemoteResource::State) const {}

private:
    std::shared_ptr<void> m_action;
};

class ActiveStateCallbackEnd : public ActiveStateTest {
protected:
    /// Asks for the state on another thread, which nobody may hold up.
    AtTheEnd AskingElsewhere() {
        return AtTheEnd([this] {
            asking = std::make_unique<OnOtherThread>([this] { state.GetState(); });
            wasFree = asking->IsDone(std::chrono::seconds(10));
        });
    }

    bool wasFree = false;
    std::unique_ptr<OnOtherThread> asking;
};

TEST_F(ActiveStateCallbackEnd, OfARemovedObserverIsOutsideTheLocks) {
    ObserveWith(first, AskingElsewhere());
    fakes.notifications->ExecAll();
    state.RemoveHandler(&first);
    EXPECT_TRUE(wasFree);
}

TEST_F(ActiveStateCallbackEnd, OfASecondRegistrationIsOutsideTheLocks) {
    Observe(first);
    ObserveWith(first, AskingElsewhere());
    EXPECT_TRUE(wasFree);
}

TEST_F(ActiveStateCallbackEnd, OfAnObserverThatRemovesItselfIsOutsideTheLocks) {
    ObserveWith(first, [this, end = AskingElsewhere()](IRemoteResource::State) {
        state.RemoveHandler(&first);
    });
    fakes.notifications->ExecAll();
    EXPECT_TRUE(wasFree);
}

// Parents.

class ActiveStateFamily : public ActiveStateTest {
protected:
    void Link(ActiveState& child, ActiveState& parent) {
        child.AddParent(parent);
        child.CheckAllNotifications();
    }
    ActiveState one{nullptr, nullptr, *fakes.notifications, *fakes.tracer};
    ActiveState other{nullptr, nullptr, *fakes.notifications, *fakes.tracer};
};

TEST_F(ActiveStateFamily, AnOnlyChildIsMirrored) {
    Link(one, state);
    one.SetError(Error::GeneralError);
    EXPECT_EQ(Describe(state.GetState()), "Error GeneralError 0");
    one.SetProgress(1, 3);
    EXPECT_EQ(Describe(state.GetState()), Describe(one.GetState()));
    EXPECT_EQ(state.GetState().progress, 1.0 / 3.0);
    one.SetProgress(0, 0);
    EXPECT_EQ(Describe(state.GetState()), "Dowloading NoError nan");
}

TEST_F(ActiveStateFamily, AnOnlyChildIsMirroredEvenInAnUnknownError) {
    Link(one, state);
    one.SetError(static_cast<Error>(99));
    EXPECT_EQ(state.GetState().error, static_cast<Error>(99));
}

TEST_F(ActiveStateFamily, LinkingAloneChangesNothing) {
    one.SetAvailable();
    one.AddParent(state);
    EXPECT_EQ(Describe(state.GetState()), "Waiting NoError 0");
    one.CheckAllNotifications();
    EXPECT_EQ(Describe(state.GetState()), "Available NoError 1");
}

TEST_F(ActiveStateFamily, AChildNotYetHeardOfCountsAsWaiting) {
    one.SetAvailable();
    other.SetAvailable();
    one.AddParent(state);
    other.AddParent(state);
    one.CheckAllNotifications();
    EXPECT_EQ(Describe(state.GetState()), "Dowloading NoError 0.5");
    other.CheckAllNotifications();
    EXPECT_EQ(Describe(state.GetState()), "Available NoError 1");
}

TEST_F(ActiveStateFamily, TheStateOfAnOnlyChildCountsWhenASecondComes) {
    one.SetAvailable();
    Link(one, state);
    Link(other, state);
    EXPECT_EQ(Describe(state.GetState()), "Dowloading NoError 0.5");
}

TEST_F(ActiveStateFamily, TwoChildrenAreAggregated) {
    Link(one, state);
    Link(other, state);
    one.SetAvailable();
    EXPECT_EQ(Describe(state.GetState()), "Dowloading NoError 0.5");
    other.SetError(Error::Corrupted);
    EXPECT_EQ(Describe(state.GetState()), "Error Corrupted 0.5");
    other.SetProgress(1, 2);
    EXPECT_EQ(Describe(state.GetState()), "Dowloading NoError 0.75");
    other.SetAvailable();
    EXPECT_EQ(Describe(state.GetState()), "Available NoError 1");
}

TEST_F(ActiveStateFamily, AChildMayHaveSeveralParents) {
    ActiveState bigger{nullptr, nullptr, *fakes.notifications, *fakes.tracer};
    Link(one, state);
    Link(one, bigger);
    Link(other, bigger);
    one.SetAvailable();
    EXPECT_EQ(Describe(state.GetState()), "Available NoError 1");
    EXPECT_EQ(Describe(bigger.GetState()), "Dowloading NoError 0.5");
}

TEST_F(ActiveStateFamily, AChangeReachesGrandparents) {
    ActiveState grandparent{nullptr, nullptr, *fakes.notifications, *fakes.tracer};
    Link(one, state);
    Link(state, grandparent);
    one.SetAvailable();
    EXPECT_EQ(Describe(grandparent.GetState()), "Available NoError 1");
}

TEST_F(ActiveStateFamily, ObserversOfTheParentAreToldItsState) {
    Link(one, state);
    Link(other, state);
    Observe(first, {true, {Status::Dowloading}, 0.01});
    one.SetAvailable();
    EXPECT_THAT(Told(), ElementsAre("told: Dowloading NoError 0.5"));
}

TEST_F(ActiveStateFamily, ANotNumberOfOneChildIsToldAndLeavesNoTrace) {
    Link(one, state);
    Link(other, state);
    other.SetProgress(1, 10);
    const double before = state.GetState().progress;
    Observe(first, {true, {Status::Dowloading}, 0.5});
    one.SetProgress(0, 0);
    one.SetProgress(0, 1);
    EXPECT_THAT(Told(), ElementsAre("told: Dowloading NoError 0.05", "told: Dowloading NoError nan",
                                    "told: Dowloading NoError 0.05"));
    EXPECT_EQ(state.GetState().progress, before);
}

TEST_F(ActiveStateFamily, TheChildsObserversComeBeforeThoseOfItsParentsInTheOrderOfLinking) {
    ActiveState earlier{nullptr, nullptr, *fakes.notifications, *fakes.tracer};
    ActiveState later{nullptr, nullptr, *fakes.notifications, *fakes.tracer};
    one.AddParent(later);
    one.AddParent(earlier);
    const auto add = [this](ActiveState& observed, NamedHandler& handler, const char* name) {
        observed.AddHandler(
            &handler,
            [this, name](IRemoteResource::State) { fakes.recorder.Add(std::string(": ") + name); },
            {true, {Status::Available}, 0.01});
    };
    add(earlier, first, "linked second");
    add(later, second, "linked first");
    add(one, third, "child");
    one.SetAvailable();
    EXPECT_THAT(Told(), ElementsAre(": child", ": linked first", ": linked second"));
}

TEST_F(ActiveStateFamily, AllNotificationsGoToTheQueueOfTheStateThatChanged) {
    const auto childsQueue = std::make_shared<FakeTaskQueue>(fakes.recorder, "child's");
    ActiveState child{nullptr, nullptr, *childsQueue, *fakes.tracer};
    Link(child, state);
    Observe(first, {true, {Status::Available}, 0.01});
    child.SetAvailable();
    EXPECT_THAT(fakes.recorder.Take(), ElementsAre("AddTask child's 2"));
}

TEST_F(ActiveStateFamily, NotificationsAreQueuedOutsideTheLocks) {
    Link(one, state);
    Observe(first, {true, {Status::Available}, 0.01});
    std::unique_ptr<OnOtherThread> asking;
    bool wasFree = false;
    fakes.notifications->onAddTask = [this, &asking, &wasFree] {
        asking = std::make_unique<OnOtherThread>([this] {
            one.GetState();
            state.GetState();
        });
        wasFree = asking->IsDone(std::chrono::seconds(10));
    };
    one.SetAvailable();
    EXPECT_TRUE(wasFree);
}

TEST_F(ActiveStateFamily, AChangeOfAChildDoesNotWaitForAnObserverOfTheParent) {
    Link(one, state);
    Link(other, state);
    WhileAnObserverIsCalled([this] {
        OnOtherThread change([this] {
            one.SetAvailable();
            other.SetAvailable();
            one.GetState();
        });
        EXPECT_TRUE(change.IsDone());
        EXPECT_EQ(fakes.notifications->Pending(), 2u);
    });
    EXPECT_EQ(Describe(state.GetState()), "Available NoError 1");
}

TEST_F(ActiveStateFamily, ARepeatedCheckTellsAgainOnlyWhatItsFilterLetsThrough) {
    Link(one, state);
    Observe(first, {true, {Status::Dowloading}, 0}, "step 0");
    Observe(second, {true, {Status::Dowloading}, 0.01}, "step 0.01");
    ReportTo(one, 0.5);
    EXPECT_THAT(Told(),
                ElementsAre("step 0: Dowloading NoError 0.5", "step 0.01: Dowloading NoError 0.5"));
    one.CheckAllNotifications();
    EXPECT_THAT(Told(), ElementsAre("step 0: Dowloading NoError 0.5"));
}

TEST_F(ActiveStateFamily, AFamilyOfManyIsExactlyDoneWhenAllAre) {
    std::vector<std::unique_ptr<ActiveState>> children;
    for (int i = 0; i < 100; ++i) {
        children.push_back(
            std::make_unique<ActiveState>(nullptr, nullptr, *fakes.notifications, *fakes.tracer));
        Link(*children.back(), state);
    }
    for (const auto& child : children) {
        for (int step = 0; step < 10; ++step)
            ReportTo(*child, step / 10.0);
        child->SetAvailable();
    }
    EXPECT_EQ(state.GetState().progress, 1.0);
}

} // namespace
} // namespace Halvex::App
