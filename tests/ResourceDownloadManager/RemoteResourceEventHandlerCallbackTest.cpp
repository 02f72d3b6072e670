#include "ResourceDownloadManager/RemoteResourceEventHandlerCallback.h"

#include "ResourceDownloadManager/DownloadRetrierStub.h"
#include "ResourceDownloadManager/EventTracerStub.h"
#include "ResourceDownloadManager/PostProcessorStub.h"
#include "ResourceDownloadManager/RemoteResourceScheduler.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "ResourceDownloadManager/TaskQueue.h"
#include "ResourceDownloadManager/TaskQueueImmediate.h"
#include "ResourceDownloadManager/ValidatorStub.h"
#include "support/FakeScriptedDownloader.h"

#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace Halvex::App {
namespace {

using Callback = RemoteResourceEventHandlerCallback;
using NotificationParams = IRemoteResource::NotificationParams;
using State = IRemoteResource::State;
using Status = IRemoteResource::DownloadStatus;
using Error = IRemoteResource::DownloadError;
using testing::_;
using testing::AllOf;
using testing::ElementsAre;
using testing::Field;
using testing::InSequence;
using testing::StrictMock;

class MockRemoteResource : public IRemoteResource {
public:
    MOCK_METHOD(void, Schedule, (SchedulePriority), (override));
    MOCK_METHOD(State, GetState, (), (override));
    MOCK_METHOD(const ResourceDescriptorBundle*, GetDescriptor, (), (override));
    MOCK_METHOD(void, RegisterEventHandler,
                (IRemoteResourceEventHandler*, const NotificationParams&), (override));
    MOCK_METHOD(void, UnregisterEventHandler, (IRemoteResourceEventHandler*), (override));
};

testing::Matcher<const NotificationParams&>
AreParams(bool notifyProgress, const std::set<Status>& statuses, double progressStep) {
    return AllOf(Field(&NotificationParams::notifyProgress, notifyProgress),
                 Field(&NotificationParams::statuses, statuses),
                 Field(&NotificationParams::progressStep, progressStep));
}

const std::set<Status> kAllStatuses{Status::Waiting, Status::Dowloading, Status::Available,
                                    Status::Error};

class RemoteResourceEventHandlerCallbackTest : public testing::Test {
protected:
    /// Lets a callback register with a resource, which then expects to be left.
    void Register(Callback& callback, MockRemoteResource& resource) {
        EXPECT_CALL(resource, RegisterEventHandler(&callback, _));
        callback.RegisterWithin(&resource);
        testing::Mock::VerifyAndClearExpectations(&resource);
    }

    StrictMock<MockRemoteResource> m_first;
    StrictMock<MockRemoteResource> m_second;
};

TEST_F(RemoteResourceEventHandlerCallbackTest, PassesTheStateAndTheBundleOn) {
    testing::MockFunction<void(State, const ResourceDescriptorBundle*)> function;
    const ResourceDescriptorBundle bundle;
    Callback callback;
    callback.SetCallback(function.AsStdFunction());

    EXPECT_CALL(function,
                Call(AllOf(Field(&State::status, Status::Error),
                           Field(&State::error, Error::Corrupted), Field(&State::progress, 0.25)),
                     &bundle));
    callback.OnStateChanged({Status::Error, Error::Corrupted, 0.25}, &bundle);
}

TEST_F(RemoteResourceEventHandlerCallbackTest, PassesTheStateAloneToAFunctionWithoutTheBundle) {
    testing::MockFunction<void(State)> function;
    const ResourceDescriptorBundle bundle;
    Callback callback;
    callback.SetCallback(function.AsStdFunction());

    EXPECT_CALL(function,
                Call(AllOf(Field(&State::status, Status::Dowloading),
                           Field(&State::error, Error::NoError), Field(&State::progress, 0.5))));
    callback.OnStateChanged({Status::Dowloading, Error::NoError, 0.5}, &bundle);
}

TEST_F(RemoteResourceEventHandlerCallbackTest, CallsOnTheNotifyingThread) {
    std::thread::id called;
    Callback callback;
    callback.SetCallback([&](State) { called = std::this_thread::get_id(); });

    std::thread::id notifying;
    std::thread([&] {
        notifying = std::this_thread::get_id();
        callback.OnStateChanged({}, nullptr);
    }).join();

    EXPECT_EQ(called, notifying);
}

TEST_F(RemoteResourceEventHandlerCallbackTest, ReplacesTheFunction) {
    std::string calls;
    Callback callback;
    callback.SetCallback([&](State) { calls += "1"; });
    callback.SetCallback([&](State, const ResourceDescriptorBundle*) { calls += "2"; });
    callback.OnStateChanged({}, nullptr);
    callback.SetCallback([&](State) { calls += "3"; });
    callback.OnStateChanged({}, nullptr);

    EXPECT_EQ(calls, "23");
}

TEST_F(RemoteResourceEventHandlerCallbackTest, ThrowsWithoutAFunction) {
    Callback callback;

    EXPECT_THROW(callback.OnStateChanged({}, nullptr), std::bad_function_call);
}

TEST_F(RemoteResourceEventHandlerCallbackTest, ThrowsWhenTheFunctionIsEmpty) {
    Callback callback;
    callback.SetCallback([](State) {});
    callback.SetCallback(std::function<void(State, const ResourceDescriptorBundle*)>());

    EXPECT_THROW(callback.OnStateChanged({}, nullptr), std::bad_function_call);
}

TEST_F(RemoteResourceEventHandlerCallbackTest, ThrowsWhenTheFunctionWithoutTheBundleIsEmpty) {
    Callback callback;
    callback.SetCallback([](State) {});
    callback.SetCallback(std::function<void(State)>());

    EXPECT_THROW(callback.OnStateChanged({}, nullptr), std::bad_function_call);
}

TEST_F(RemoteResourceEventHandlerCallbackTest, RegistersItselfWithTheDefaultParameters) {
    testing::NiceMock<MockRemoteResource> resource;
    Callback callback;

    EXPECT_CALL(resource, RegisterEventHandler(&callback, AreParams(true, kAllStatuses, 0.01)));
    callback.RegisterWithin(&resource);
}

TEST_F(RemoteResourceEventHandlerCallbackTest, RegistersWithTheParametersThatWereSet) {
    testing::NiceMock<MockRemoteResource> resource;
    Callback callback;
    callback.SetNotificationParams({false, {Status::Available}, 0.5});

    EXPECT_CALL(resource,
                RegisterEventHandler(&callback, AreParams(false, {Status::Available}, 0.5)));
    callback.RegisterWithin(&resource);
}

TEST_F(RemoteResourceEventHandlerCallbackTest, DoesNotRegisterAgainWhenTheParametersAreSet) {
    Callback callback;
    Register(callback, m_first);

    EXPECT_CALL(m_first, RegisterEventHandler).Times(0);
    callback.SetNotificationParams({false, {Status::Available}, 0.5});

    EXPECT_CALL(m_first, UnregisterEventHandler(&callback));
}

TEST_F(RemoteResourceEventHandlerCallbackTest, RemembersAResourceThatThrowsOnRegistration) {
    Callback callback;
    EXPECT_CALL(m_first, RegisterEventHandler)
        .WillOnce(testing::Throw(std::runtime_error("cannot register")));

    EXPECT_THROW(callback.RegisterWithin(&m_first), std::runtime_error);

    EXPECT_CALL(m_first, UnregisterEventHandler(&callback));
}

TEST_F(RemoteResourceEventHandlerCallbackTest, UnregistersInTheOrderOfRegistration) {
    auto callback = std::make_unique<Callback>();
    Register(*callback, m_second);
    Register(*callback, m_first);

    const InSequence order;
    EXPECT_CALL(m_second, UnregisterEventHandler(callback.get()));
    EXPECT_CALL(m_first, UnregisterEventHandler(callback.get()));
    callback.reset();
}

TEST_F(RemoteResourceEventHandlerCallbackTest, UnregistersWhenDestroyedAsAnObserver) {
    auto callback = std::make_unique<Callback>();
    Register(*callback, m_first);
    std::unique_ptr<IRemoteResourceEventHandler> observer = std::move(callback);

    EXPECT_CALL(m_first, UnregisterEventHandler(observer.get()));
    observer.reset();
}

TEST_F(RemoteResourceEventHandlerCallbackTest, UnregistersTwiceWhereItRegisteredTwice) {
    auto callback = std::make_unique<Callback>();
    Register(*callback, m_first);
    Register(*callback, m_second);
    Register(*callback, m_first);

    const InSequence order;
    EXPECT_CALL(m_first, UnregisterEventHandler(callback.get()));
    EXPECT_CALL(m_second, UnregisterEventHandler(callback.get()));
    EXPECT_CALL(m_first, UnregisterEventHandler(callback.get()));
    callback.reset();
}

TEST_F(RemoteResourceEventHandlerCallbackTest, UnregistersBeforeItsFunctionDies) {
    auto token = std::make_shared<int>();
    const std::weak_ptr<int> watch = token;
    auto callback = std::make_unique<Callback>();
    callback->SetCallback([token = std::move(token)](State) {});
    Register(*callback, m_first);

    EXPECT_CALL(m_first, UnregisterEventHandler).WillOnce([&](IRemoteResourceEventHandler*) {
        EXPECT_FALSE(watch.expired());
    });
    callback.reset();
    EXPECT_TRUE(watch.expired());
}

TEST_F(RemoteResourceEventHandlerCallbackTest, CopiesTheFunction) {
    int calls = 0;
    Callback original;
    original.SetCallback([&](State) { ++calls; });

    Callback copy(original);
    copy.OnStateChanged({}, nullptr);
    Callback assigned;
    assigned = original;
    assigned.OnStateChanged({}, nullptr);

    EXPECT_EQ(calls, 2);
}

TEST_F(RemoteResourceEventHandlerCallbackTest, CopiesTheParameters) {
    testing::NiceMock<MockRemoteResource> resource;
    Callback original;
    original.SetNotificationParams({false, {Status::Error}, 0.25});
    Callback copy(original);
    Callback assigned;
    assigned = original;

    EXPECT_CALL(resource, RegisterEventHandler(&copy, AreParams(false, {Status::Error}, 0.25)));
    EXPECT_CALL(resource, RegisterEventHandler(&assigned, AreParams(false, {Status::Error}, 0.25)));
    copy.RegisterWithin(&resource);
    assigned.RegisterWithin(&resource);
}

TEST_F(RemoteResourceEventHandlerCallbackTest, ACopyIsRegisteredWithNothing) {
    Callback original;
    Register(original, m_first);

    EXPECT_CALL(m_first, RegisterEventHandler).Times(0);
    Callback copy(original);

    EXPECT_CALL(m_first, UnregisterEventHandler(&copy));
    EXPECT_CALL(m_first, UnregisterEventHandler(&original));
}

TEST_F(RemoteResourceEventHandlerCallbackTest, ACopyUnregistersItselfWhereTheOriginalRegistered) {
    Callback original;
    Register(original, m_first);
    Register(original, m_second);
    auto copy = std::make_unique<Callback>(original);

    {
        const InSequence order;
        EXPECT_CALL(m_first, UnregisterEventHandler(copy.get()));
        EXPECT_CALL(m_second, UnregisterEventHandler(copy.get()));
        copy.reset();
    }

    EXPECT_CALL(m_first, UnregisterEventHandler(&original));
    EXPECT_CALL(m_second, UnregisterEventHandler(&original));
}

TEST_F(RemoteResourceEventHandlerCallbackTest, AssignmentRegistersAndUnregistersNothing) {
    Callback original;
    Register(original, m_first);
    Callback target;
    Register(target, m_second);

    EXPECT_CALL(m_first, RegisterEventHandler).Times(0);
    EXPECT_CALL(m_second, UnregisterEventHandler).Times(0);
    target = original;
    testing::Mock::VerifyAndClearExpectations(&m_first);
    testing::Mock::VerifyAndClearExpectations(&m_second);

    EXPECT_CALL(m_first, UnregisterEventHandler(&target));
    EXPECT_CALL(m_first, UnregisterEventHandler(&original));
}

TEST_F(RemoteResourceEventHandlerCallbackTest, AnAssignedOneUnregistersOnlyWhereTheOtherDid) {
    Callback original;
    Register(original, m_first);
    auto target = std::make_unique<Callback>();
    Register(*target, m_second);
    *target = original;

    EXPECT_CALL(m_second, UnregisterEventHandler).Times(0);
    EXPECT_CALL(m_first, UnregisterEventHandler(target.get()));
    target.reset();

    EXPECT_CALL(m_first, UnregisterEventHandler(&original));
}

TEST_F(RemoteResourceEventHandlerCallbackTest, LaterRegistrationsOfTheOriginalAreNotTheCopys) {
    Callback original;
    auto copy = std::make_unique<Callback>(original);
    Register(original, m_first);

    EXPECT_CALL(m_first, UnregisterEventHandler).Times(0);
    copy.reset();
    testing::Mock::VerifyAndClearExpectations(&m_first);

    EXPECT_CALL(m_first, UnregisterEventHandler(&original));
}

TEST_F(RemoteResourceEventHandlerCallbackTest, IsCopiedWhereItCouldBeMoved) {
    int calls = 0;
    Callback original;
    original.SetCallback([&](State) { ++calls; });
    Register(original, m_first);

    Callback other(std::move(original));
    original.OnStateChanged({}, nullptr); // NOLINT(bugprone-use-after-move)
    other.OnStateChanged({}, nullptr);
    EXPECT_EQ(calls, 2);

    EXPECT_CALL(m_first, UnregisterEventHandler(&other));
    EXPECT_CALL(m_first, UnregisterEventHandler(&original));
}

/// Callbacks that observe resources of a scheduler, whose checks run when the test says so.
class RemoteResourceEventHandlerCallbackInUseTest : public testing::Test {
protected:
    /// A bundle of one resource that is downloaded on every check.
    struct Bundle {
        ResourceDescriptor member;
        ResourceDescriptorBundle descriptor{{&member}, 0};
    };

    /// A callback that records the states it is told of.
    Callback MakeRecorder(std::vector<std::string>& states) {
        Callback callback;
        callback.SetCallback([&states](State state) { states.push_back(state.ToDebugString()); });
        return callback;
    }

    void Download(IRemoteResource* resource) {
        resource->Schedule(ISchedulableResource::SchedulePriority::Normal);
        EXPECT_TRUE(m_queue->ExecOne());
    }

    /// Every download goes through these thousandths.
    void SetProgress(std::vector<std::size_t> thousandths) {
        m_downloader->SetScript([=](const IResourceDownloader::Task& task) {
            for (const std::size_t done : thousandths)
                task.progressCallback(done, 1000);
            return IResourceDownloader::Status::Ok;
        });
    }

    const std::shared_ptr<Testing::FakeScriptedDownloader> m_downloader =
        std::make_shared<Testing::FakeScriptedDownloader>();
    const std::shared_ptr<TaskQueue> m_queue = std::make_shared<TaskQueue>();
    Bundle m_firstBundle;
    Bundle m_secondBundle;
    RemoteResourceScheduler m_scheduler{m_downloader,
                                        m_queue,
                                        std::make_shared<TaskQueueImmediate>(),
                                        std::make_shared<PostProcessorStub>(),
                                        std::make_shared<ValidatorStub>(),
                                        std::make_shared<EventTracerStub>(),
                                        std::make_shared<DownloadRetrierStub>()};
    IRemoteResource* const m_first = m_scheduler.Register(&m_firstBundle.descriptor);
    IRemoteResource* const m_second = m_scheduler.Register(&m_secondBundle.descriptor);
    std::vector<std::string> m_states;
};

TEST_F(RemoteResourceEventHandlerCallbackInUseTest, HearsOfEveryStatusAndEveryPercentByDefault) {
    Callback callback = MakeRecorder(m_states);
    callback.RegisterWithin(m_first);

    SetProgress({5, 10, 15, 500});
    Download(m_first);

    EXPECT_THAT(m_states, ElementsAre("Status: Waiting, err:NoError =0%",
                                      "Status: Dowloading, err:NoError =0%",
                                      "Status: Dowloading, err:NoError =1%",
                                      "Status: Dowloading, err:NoError =50%",
                                      "Status: Available, err:NoError =100%"));
}

TEST_F(RemoteResourceEventHandlerCallbackInUseTest, HearsOfErrorsByDefault) {
    Callback callback = MakeRecorder(m_states);
    callback.RegisterWithin(m_first);

    m_downloader->SetStatus(IResourceDownloader::Status::Failed);
    Download(m_first);

    EXPECT_EQ(m_states.back(), "Status: Error, err:GeneralError =0%");
}

TEST_F(RemoteResourceEventHandlerCallbackInUseTest, IsToldWhichBundleHasChanged) {
    std::vector<const ResourceDescriptorBundle*> bundles;
    Callback callback;
    callback.SetCallback(
        [&](State, const ResourceDescriptorBundle* bundle) { bundles.push_back(bundle); });

    callback.RegisterWithin(m_second);
    callback.RegisterWithin(m_first);

    EXPECT_THAT(bundles, ElementsAre(&m_secondBundle.descriptor, &m_firstBundle.descriptor));
}

TEST_F(RemoteResourceEventHandlerCallbackInUseTest, NewParametersHoldForLaterRegistrationsOnly) {
    Callback callback = MakeRecorder(m_states);
    callback.RegisterWithin(m_first);
    m_states.clear();

    callback.SetNotificationParams({true, {Status::Available}, 0.01});
    callback.RegisterWithin(m_second);
    Download(m_second);
    Download(m_first);

    EXPECT_THAT(m_states, ElementsAre("Status: Available, err:NoError =100%",
                                      "Status: Dowloading, err:NoError =0%",
                                      "Status: Available, err:NoError =100%"));
}

TEST_F(RemoteResourceEventHandlerCallbackInUseTest, ASecondRegistrationKeepsTheFirstParameters) {
    Callback callback = MakeRecorder(m_states);
    callback.SetNotificationParams({true, {Status::Available}, 0.01});
    callback.RegisterWithin(m_first);

    callback.SetNotificationParams({});
    callback.RegisterWithin(m_first);
    Download(m_first);

    EXPECT_THAT(m_states, ElementsAre("Status: Available, err:NoError =100%"));
}

TEST_F(RemoteResourceEventHandlerCallbackInUseTest, HearsNothingOnceDestroyed) {
    std::optional<Callback> callback(MakeRecorder(m_states));
    callback->RegisterWithin(m_first);
    callback->RegisterWithin(m_first);
    callback.reset();
    m_states.clear();

    Download(m_first);

    EXPECT_THAT(m_states, ElementsAre());
}

TEST_F(RemoteResourceEventHandlerCallbackInUseTest, ACopyHearsNothing) {
    Callback original;
    original.SetCallback([](State) {});
    original.RegisterWithin(m_first);
    Callback copy(original);
    copy.SetCallback([this](State state) { m_states.push_back(state.ToDebugString()); });

    Download(m_first);

    EXPECT_THAT(m_states, ElementsAre());
}

TEST_F(RemoteResourceEventHandlerCallbackInUseTest, TheEndOfACopyLeavesTheOriginalRegistered) {
    Callback original = MakeRecorder(m_states);
    original.RegisterWithin(m_first);
    m_states.clear();
    std::optional<Callback> copy(original);
    copy.reset();

    Download(m_first);

    EXPECT_THAT(m_states, ElementsAre("Status: Dowloading, err:NoError =0%",
                                      "Status: Available, err:NoError =100%"));
}

TEST_F(RemoteResourceEventHandlerCallbackInUseTest, WithoutAFunctionTheRegistrationThrows) {
    Callback callback;

    EXPECT_THROW(callback.RegisterWithin(m_first), std::bad_function_call);
}

} // namespace
} // namespace Halvex::App
