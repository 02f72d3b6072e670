#include "ResourceDownloadManager/ResourceItem.h"

#include "support/NextFunction.h"
#include "support/SchedulingFakes.h"
#include "support/TemporaryFolder.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>

#include <atomic>
#include <functional>
#include <limits>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <sys/stat.h>

namespace Halvex::App {
namespace {

/// What happens on this thread between the next look at a file that is there and the answer.
thread_local std::function<void()> onFileFound;

} // namespace
} // namespace Halvex::App

/// Stands in front of the system's function, or the sanitizer's, for the whole program.
extern "C" __attribute__((visibility("default"))) int stat(const char* path,
                                                           struct stat* status) noexcept {
    using Function = int(const char*, struct stat*);
    static Function* const next =
        Halvex::Testing::NextFunction(static_cast<Function*>(&stat), "stat");
    const int result = next(path, status);
    if (result == 0 && Halvex::App::onFileFound)
        std::exchange(Halvex::App::onFileFound, nullptr)();
    return result;
}

namespace Halvex::App {
namespace {

using namespace Halvex::Testing;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::Values;
using Calls = CallRecorder::Calls;
using DownloadTask = IResourceDownloader::Task;
using Priority = ISchedulableResource::SchedulePriority;
using Status = IResourceDownloader::Status;
using TraceEvent = IEventTracer::Event;

/// Enough for a call that nothing holds up to come through.
constexpr std::chrono::milliseconds kHeldUp(50);

/// An item for the resource a.bin, whose existence suffices and which does not exist yet.
class ResourceItemTest : public testing::Test {
protected:
    ResourceItemTest() {
        descriptor.localPath = folder / "a.bin";
        descriptor.relativePath = "a.bin";
        descriptor.validationMode = 2;
    }

    void PutFile() { folder.Write("a.bin", "content"); }
    void RemoveFile() { EXPECT_TRUE(descriptor.localPath.remove()); }

    void Check() {
        item.Schedule(Priority::Normal);
        fakes.checks->ExecAll();
    }
    /// Without those of the scheduling.
    Calls CallsOfCheck() {
        item.Schedule(Priority::Normal);
        fakes.recorder.Take();
        fakes.checks->ExecAll();
        return fakes.recorder.Take();
    }
    Calls CallsOfScheduling(Priority priority) {
        item.Schedule(priority);
        return fakes.recorder.Take();
    }

    void DownloaderAnswers(Status status) {
        fakes.downloader->onExec = [status](const DownloadTask&) {
            return status;
        };
    }
    void ValidatorAnswers(std::int32_t result) {
        fakes.validator->onValidate = [result](const ResourceDescriptor*) {
            return result;
        };
    }
    void PostProcessorAnswers(std::int32_t result) {
        fakes.postProcessor->onProcess = [result](const ResourceDescriptor*) {
            return result;
        };
    }

    void Observe() {
        item.State().AddHandler(
            &observer,
            [this](IRemoteResource::State state) { observer.OnStateChanged(state, nullptr); }, {});
    }
    std::vector<std::string> Heard() {
        fakes.notifications->ExecAll();
        return observer.Take();
    }
    std::string State() { return Describe(item.State().GetState()); }

    /// Tries to schedule on another thread; true: it has not come through while this was called.
    bool SchedulingElsewhereIsHeldUp() {
        other = std::thread([this] {
            item.ScheduleIfNeeded(Priority::High);
            otherHasScheduled.Set();
        });
        return !otherHasScheduled.Wait(kHeldUp);
    }

    TemporaryFolder folder;
    ResourceDescriptor descriptor;
    FakeServices fakes;
    FakeObserver observer;
    std::thread other;
    Event otherHasScheduled;
    const ItemServices services{fakes.downloader,    fakes.checks,    fakes.notifications,
                                fakes.postProcessor, fakes.validator, fakes.tracer,
                                fakes.retrier};
    ResourceItem item{&descriptor, services};
};

// Scheduling.

TEST_F(ResourceItemTest, StartsWaiting) {
    EXPECT_EQ(State(), "Waiting NoError 0");
}

TEST_F(ResourceItemTest, TracesThatACheckIsScheduledBeforeItIsQueued) {
    EXPECT_THAT(CallsOfScheduling(Priority::Normal),
                ElementsAre("Trace CheckScheduled a.bin Waiting NoError 0", "AddTask checks 2"));
}

TEST_F(ResourceItemTest, ItsRecordNamesItsDescriptorAndNoBundle) {
    IEventTracer::TraceRecord record;
    fakes.tracer->onTrace = [&record](TraceEvent, const IEventTracer::TraceRecord& traced) {
        record = traced;
    };
    item.Schedule(Priority::Normal);
    EXPECT_EQ(record.descriptor, &descriptor);
    EXPECT_EQ(record.bundle, nullptr);
    EXPECT_EQ(record.text, "");
}

TEST_F(ResourceItemTest, SchedulingDoesNotChangeItsStateWithoutCheckOnSchedule) {
    PutFile();
    item.Schedule(Priority::Normal);
    EXPECT_EQ(State(), "Waiting NoError 0");
}

class ResourceItemQueuePriority : public ResourceItemTest,
                                  public testing::WithParamInterface<std::pair<int, int>> {};

TEST_P(ResourceItemQueuePriority, FollowsThatOfTheScheduling) {
    const auto& [priority, queuePriority] = GetParam();
    EXPECT_THAT(CallsOfScheduling(static_cast<Priority>(priority)),
                Contains("AddTask checks " + std::to_string(queuePriority)));
}

INSTANTIATE_TEST_SUITE_P(All, ResourceItemQueuePriority,
                         Values(std::pair(0, 1), std::pair(1, 2), std::pair(2, 3), std::pair(3, 3),
                                std::pair(-1, 3), std::pair(std::numeric_limits<int>::min(), 3)));

TEST_F(ResourceItemTest, ScheduleAlwaysQueuesAnotherCheck) {
    item.Schedule(Priority::Low);
    item.Schedule(Priority::High);
    item.Schedule(Priority::High);
    EXPECT_EQ(fakes.checks->Pending(), 3u);
}

TEST_F(ResourceItemTest, EveryQueuedCheckRuns) {
    item.Schedule(Priority::Low);
    item.Schedule(Priority::High);
    fakes.recorder.Take();
    fakes.checks->ExecAll();
    EXPECT_THAT(fakes.recorder.Take(), Contains("Trace /Check a.bin Available NoError 1").Times(2));
    EXPECT_EQ(fakes.checks->Pending(), 0u);
}

// The comparison is one of numbers: Low is greater than High.
class ResourceItemSecondRequest
    : public ResourceItemTest,
      public testing::WithParamInterface<std::tuple<int, int, std::size_t>> {};

TEST_P(ResourceItemSecondRequest, IsQueuedOnlyIfItsPriorityIsTheGreaterNumber) {
    const auto& [first, second, queued] = GetParam();
    item.ScheduleIfNeeded(static_cast<Priority>(first));
    item.ScheduleIfNeeded(static_cast<Priority>(second));
    EXPECT_EQ(fakes.checks->Pending(), queued);
}

INSTANTIATE_TEST_SUITE_P(All, ResourceItemSecondRequest,
                         Values(std::tuple(0, 0, 1u), std::tuple(0, 1, 2u), std::tuple(0, 2, 2u),
                                std::tuple(1, 0, 1u), std::tuple(1, 1, 1u), std::tuple(1, 2, 2u),
                                std::tuple(2, 0, 1u), std::tuple(2, 1, 1u), std::tuple(2, 2, 1u),
                                std::tuple(2, 7, 2u), std::tuple(-1, 0, 2u),
                                std::tuple(0, -1, 1u)));

TEST_F(ResourceItemTest, ARequestIsComparedWithTheLatestScheduling) {
    item.Schedule(Priority::Low);
    item.Schedule(Priority::High);
    item.ScheduleIfNeeded(Priority::Normal);
    EXPECT_EQ(fakes.checks->Pending(), 3u);
}

TEST_F(ResourceItemTest, ARequestIsComparedEvenAfterTheChecksHaveRun) {
    Check();
    item.ScheduleIfNeeded(Priority::Normal);
    EXPECT_EQ(fakes.checks->Pending(), 0u);
}

TEST_F(ResourceItemTest, AFirstRequestIsQueuedAtItsPriority) {
    item.ScheduleIfNeeded(Priority::High);
    EXPECT_THAT(fakes.recorder.Take(),
                ElementsAre("Trace CheckScheduled a.bin Waiting NoError 0", "AddTask checks 1"));
}

TEST_F(ResourceItemTest, HoldsItsMutexWhileItQueuesACheck) {
    bool isHeldUp = false;
    fakes.checks->onAddTask = [this, &isHeldUp] {
        isHeldUp = SchedulingElsewhereIsHeldUp();
    };
    item.Schedule(Priority::Normal);
    other.join();
    EXPECT_TRUE(isHeldUp);
}

TEST_F(ResourceItemTest, HoldsItsMutexWhileAFileFoundMakesItAvailable) {
    PutFile();
    descriptor.checkOnSchedule = 1;
    Observe();
    bool isHeldUp = false;
    fakes.notifications->onAddTask = [this, &isHeldUp] {
        isHeldUp = SchedulingElsewhereIsHeldUp();
    };
    item.Schedule(Priority::Normal);
    other.join();
    EXPECT_TRUE(isHeldUp);
}

// Checking while scheduling.

TEST_F(ResourceItemTest, AFileFoundAtSchedulingMakesItAvailableAndQueuesNothing) {
    PutFile();
    descriptor.checkOnSchedule = 1;
    EXPECT_THAT(CallsOfScheduling(Priority::Normal), IsEmpty());
    EXPECT_EQ(State(), "Available NoError 1");
}

TEST_F(ResourceItemTest, AFileFoundAtSchedulingIsNotified) {
    PutFile();
    descriptor.checkOnSchedule = 1;
    Observe();
    item.Schedule(Priority::Normal);
    EXPECT_THAT(Heard(), ElementsAre("Available NoError 1"));
}

TEST_F(ResourceItemTest, AFileFoundAtSchedulingDoesNotCountAsScheduled) {
    PutFile();
    descriptor.checkOnSchedule = 1;
    item.Schedule(Priority::Low);
    RemoveFile();
    item.ScheduleIfNeeded(Priority::High);
    EXPECT_EQ(fakes.checks->Pending(), 1u);
}

TEST_F(ResourceItemTest, AFileFoundAtSchedulingLeavesThePriorityOfTheLatestScheduling) {
    descriptor.checkOnSchedule = 1;
    item.Schedule(Priority::High);
    PutFile();
    item.Schedule(Priority::Low);
    RemoveFile();
    item.ScheduleIfNeeded(Priority::Normal);
    EXPECT_EQ(fakes.checks->Pending(), 2u);
}

TEST_F(ResourceItemTest, AFileMissingAtSchedulingQueuesACheck) {
    descriptor.checkOnSchedule = 1;
    EXPECT_THAT(CallsOfScheduling(Priority::Low),
                ElementsAre("Trace CheckScheduled a.bin Waiting NoError 0", "AddTask checks 3"));
    EXPECT_EQ(State(), "Waiting NoError 0");
}

TEST_F(ResourceItemTest, AFileFoundAtSchedulingIsStillToBeValidated) {
    PutFile();
    descriptor.checkOnSchedule = 1;
    descriptor.validationMode = 1;
    EXPECT_THAT(CallsOfScheduling(Priority::Normal),
                ElementsAre("Trace CheckScheduled a.bin Available NoError 1", "AddTask checks 2"));
}

TEST_F(ResourceItemTest, AFileFoundAtSchedulingAndRejectedIsDownloaded) {
    PutFile();
    descriptor.checkOnSchedule = 1;
    descriptor.validationMode = 1;
    ValidatorAnswers(1);
    EXPECT_THAT(CallsOfCheck(),
                ElementsAre("Trace Check a.bin Available NoError 1", "Validate a.bin",
                            "Trace Download \"a.bin\"", "Exec a.bin", "Validate a.bin",
                            "DownloadFinished Corrupted",
                            "Trace /Download \"a.bin, err:Corrupted\"",
                            "Trace /Check a.bin Error Corrupted 0"));
}

TEST_F(ResourceItemTest, AFileFoundAtSchedulingIsDownloadedAllTheSameInMode0) {
    PutFile();
    descriptor.checkOnSchedule = 1;
    descriptor.validationMode = 0;
    EXPECT_THAT(CallsOfScheduling(Priority::Normal),
                ElementsAre("Trace CheckScheduled a.bin Available NoError 1", "AddTask checks 2"));
    fakes.checks->ExecAll();
    EXPECT_THAT(fakes.recorder.Take(), Contains("Exec a.bin"));
}

/// While the scheduling finds the file, the download of an earlier check removes it and fails.
class ResourceItemOvertakenSchedulingTest : public ResourceItemTest {
protected:
    ResourceItemOvertakenSchedulingTest() {
        descriptor.checkOnSchedule = 1;
        item.Schedule(Priority::Normal);
        PutFile();
        DownloaderAnswers(Status::NetworkFailure);
        onFileFound = [this] {
            RemoveFile();
            std::thread([this] { fakes.checks->ExecOne(); }).join();
            EXPECT_EQ(State(), "Error InternetConnectionLost 0");
            onFailed();
        };
    }

    std::function<void()> onFailed = [] {
    };
};

TEST_F(ResourceItemOvertakenSchedulingTest, QueuesACheckOfTheFileThatIsGoneAgain) {
    item.Schedule(Priority::Low);
    EXPECT_EQ(State(), "Error InternetConnectionLost 0");
    EXPECT_THAT(fakes.recorder.Take(),
                Contains("Trace CheckScheduled a.bin Error InternetConnectionLost 0"));
    EXPECT_EQ(fakes.checks->Pending(), 1u);
}

TEST_F(ResourceItemOvertakenSchedulingTest, IsAvailableAndQueuesNothingWhenTheFileIsBack) {
    onFailed = [this] {
        PutFile();
    };
    item.Schedule(Priority::Low);
    EXPECT_EQ(State(), "Available NoError 1");
    EXPECT_EQ(fakes.checks->Pending(), 0u);
}

class ResourceItemCheckOnSchedule : public ResourceItemTest,
                                    public testing::WithParamInterface<int> {};

TEST_P(ResourceItemCheckOnSchedule, OnlyTheValueOneLooksForTheFile) {
    PutFile();
    descriptor.checkOnSchedule = GetParam();
    item.Schedule(Priority::Normal);
    EXPECT_EQ(State(), "Waiting NoError 0");
    EXPECT_EQ(fakes.checks->Pending(), 1u);
}

INSTANTIATE_TEST_SUITE_P(OtherValues, ResourceItemCheckOnSchedule, Values(0, 2, -1));

// Checks.

TEST_F(ResourceItemTest, AFileOnDiskSufficesInMode2) {
    PutFile();
    EXPECT_THAT(CallsOfCheck(), ElementsAre("Trace Check a.bin Waiting NoError 0",
                                            "Trace /Check a.bin Available NoError 1"));
}

TEST_F(ResourceItemTest, AMissingFileIsDownloadedInMode2) {
    EXPECT_THAT(CallsOfCheck(),
                ElementsAre("Trace Check a.bin Waiting NoError 0", "Trace Download \"a.bin\"",
                            "Exec a.bin", "DownloadFinished NoError",
                            "Trace /Download \"a.bin, err:NoError\"",
                            "Trace /Check a.bin Available NoError 1"));
}

TEST_F(ResourceItemTest, AnAcceptedFileIsNotDownloadedInMode1) {
    PutFile();
    descriptor.validationMode = 1;
    EXPECT_THAT(CallsOfCheck(), ElementsAre("Trace Check a.bin Waiting NoError 0", "Validate a.bin",
                                            "Trace /Check a.bin Available NoError 1"));
}

TEST_F(ResourceItemTest, AMissingFileIsDownloadedBeforeItIsValidatedInMode1) {
    descriptor.validationMode = 1;
    EXPECT_THAT(CallsOfCheck(),
                ElementsAre("Trace Check a.bin Waiting NoError 0", "Trace Download \"a.bin\"",
                            "Exec a.bin", "Validate a.bin", "DownloadFinished NoError",
                            "Trace /Download \"a.bin, err:NoError\"",
                            "Trace /Check a.bin Available NoError 1"));
}

TEST_F(ResourceItemTest, IsDownloadedOnEveryCheckInMode0) {
    PutFile();
    descriptor.validationMode = 0;
    EXPECT_THAT(CallsOfCheck(), Contains("Exec a.bin"));
    EXPECT_EQ(State(), "Available NoError 1");
    EXPECT_THAT(CallsOfCheck(),
                ElementsAre("Trace Check a.bin Available NoError 1", "Trace Download \"a.bin\"",
                            "Exec a.bin", "DownloadFinished NoError",
                            "Trace /Download \"a.bin, err:NoError\"",
                            "Trace /Check a.bin Available NoError 1"));
}

TEST_F(ResourceItemTest, AFileOnDiskIsValidatedInAnUnknownModeButADownloadIsNot) {
    PutFile();
    descriptor.validationMode = 3;
    ValidatorAnswers(1);
    EXPECT_THAT(CallsOfCheck(),
                ElementsAre("Trace Check a.bin Waiting NoError 0", "Validate a.bin",
                            "Trace Download \"a.bin\"", "Exec a.bin", "DownloadFinished NoError",
                            "Trace /Download \"a.bin, err:NoError\"",
                            "Trace /Check a.bin Available NoError 1"));
}

class ResourceItemValidatorAnswer : public ResourceItemTest,
                                    public testing::WithParamInterface<int> {
protected:
    ResourceItemValidatorAnswer() { descriptor.validationMode = 1; }
};

TEST_P(ResourceItemValidatorAnswer, AcceptsAFileOnDiskUnlessItIsOne) {
    PutFile();
    ValidatorAnswers(GetParam());
    EXPECT_THAT(CallsOfCheck(), Not(Contains("Exec a.bin")));
    EXPECT_EQ(State(), "Available NoError 1");
}

TEST_P(ResourceItemValidatorAnswer, AcceptsADownloadUnlessItIsOne) {
    ValidatorAnswers(GetParam());
    EXPECT_THAT(CallsOfCheck(), Contains("DownloadFinished NoError"));
    EXPECT_EQ(State(), "Available NoError 1");
}

INSTANTIATE_TEST_SUITE_P(OtherValues, ResourceItemValidatorAnswer, Values(0, 2, 5, -1));

TEST_F(ResourceItemTest, ARejectedFileOnDiskIsNoError) {
    PutFile();
    descriptor.validationMode = 1;
    Observe();
    bool isFirst = true;
    fakes.validator->onValidate = [&isFirst](const ResourceDescriptor*) {
        return std::exchange(isFirst, false) ? 1 : 0;
    };
    Check();
    EXPECT_THAT(Heard(), ElementsAre("Dowloading NoError 0", "Available NoError 1"));
}

TEST_F(ResourceItemTest, LooksForTheFileAfterTracingTheCheck) {
    fakes.tracer->onTrace = [this](TraceEvent event, const IEventTracer::TraceRecord&) {
        if (event == TraceEvent::Check)
            PutFile();
    };
    EXPECT_THAT(CallsOfCheck(), Not(Contains("Exec a.bin")));
}

TEST_F(ResourceItemTest, OnceCheckedAndAvailableIsTrustedWithoutTheValidator) {
    PutFile();
    descriptor.validationMode = 1;
    Check();
    EXPECT_THAT(CallsOfCheck(), ElementsAre("Trace Check a.bin Available NoError 1",
                                            "Trace /Check a.bin Available NoError 1"));
}

TEST_F(ResourceItemTest, OnceCheckedAndAvailableIsTrustedWithoutTouchingTheDisk) {
    PutFile();
    Check();
    RemoveFile();
    EXPECT_THAT(CallsOfCheck(), Not(Contains("Exec a.bin")));
    EXPECT_EQ(State(), "Available NoError 1");
}

TEST_F(ResourceItemTest, OnceDownloadedIsTrustedWithoutTouchingTheDisk) {
    Check();
    EXPECT_THAT(CallsOfCheck(), Not(Contains("Exec a.bin")));
}

TEST_F(ResourceItemTest, TheFirstCheckConsultsTheValidatorEvenWhenAlreadyAvailable) {
    PutFile();
    descriptor.checkOnSchedule = 1;
    descriptor.validationMode = 1;
    EXPECT_THAT(CallsOfCheck(),
                ElementsAre("Trace Check a.bin Available NoError 1", "Validate a.bin",
                            "Trace /Check a.bin Available NoError 1"));
}

TEST_F(ResourceItemTest, ALaterCheckConsultsTheValidatorWhenNotAvailable) {
    descriptor.validationMode = 1;
    DownloaderAnswers(Status::Failed);
    Check();
    PutFile();
    EXPECT_THAT(CallsOfCheck(),
                ElementsAre("Trace Check a.bin Error GeneralError 0", "Validate a.bin",
                            "Trace /Check a.bin Available NoError 1"));
}

TEST_F(ResourceItemTest, TheFirstCheckLastsUntilItsEnd) {
    PutFile();
    descriptor.checkOnSchedule = 1;
    descriptor.validationMode = 1;
    int validations = 0;
    fakes.validator->onValidate = [this, &validations](const ResourceDescriptor*) {
        ++validations;
        fakes.checks->ExecOne();
        return 0;
    };
    item.Schedule(Priority::Normal);
    item.Schedule(Priority::Normal);
    fakes.checks->ExecOne();
    EXPECT_EQ(validations, 2);
}

TEST_F(ResourceItemTest, TheFirstCheckIsOverWhenItsEndIsTraced) {
    PutFile();
    descriptor.validationMode = 1;
    int validations = 0;
    fakes.validator->onValidate = [&validations](const ResourceDescriptor*) {
        ++validations;
        return 0;
    };
    fakes.tracer->onTrace = [this](TraceEvent event, const IEventTracer::TraceRecord&) {
        if (event == TraceEvent::CheckEnd)
            fakes.checks->ExecOne();
    };
    item.Schedule(Priority::Normal);
    item.Schedule(Priority::Normal);
    fakes.checks->ExecOne();
    EXPECT_EQ(fakes.checks->Pending(), 0u);
    EXPECT_EQ(validations, 1);
}

TEST_F(ResourceItemTest, FoundAvailableAgainIsNotNotifiedAgain) {
    PutFile();
    Observe();
    Check();
    EXPECT_THAT(Heard(), ElementsAre("Available NoError 1"));
    Check();
    EXPECT_THAT(Heard(), IsEmpty());
}

TEST_F(ResourceItemTest, NotifiesOfAnAvailableFileBeforeTheEndOfTheCheck) {
    PutFile();
    Observe();
    EXPECT_THAT(CallsOfCheck(),
                ElementsAre("Trace Check a.bin Waiting NoError 0", "AddTask notifications 2",
                            "Trace /Check a.bin Available NoError 1"));
}

TEST_F(ResourceItemTest, ChecksWithoutItsMutex) {
    fakes.retrier->onFinished = [](ISchedulableResource* resource) {
        resource->Schedule(Priority::Normal);
    };
    item.Schedule(Priority::Normal);
    fakes.checks->ExecOne();
    EXPECT_EQ(fakes.checks->Pending(), 1u);
}

// Downloads.

TEST_F(ResourceItemTest, ADownloadGoesThroughItsStepsInOrder) {
    descriptor.validationMode = 1;
    descriptor.postProcess = 1;
    Observe();
    fakes.downloader->onExec = [](const DownloadTask& task) {
        task.progressCallback(1, 2);
        return Status::Ok;
    };
    EXPECT_THAT(CallsOfCheck(),
                ElementsAre("Trace Check a.bin Waiting NoError 0", "Trace Download \"a.bin\"",
                            "AddTask notifications 2", "Exec a.bin", "AddTask notifications 2",
                            "Process a.bin", "Validate a.bin", "AddTask notifications 2",
                            "DownloadFinished NoError", "Trace /Download \"a.bin, err:NoError\"",
                            "Trace /Check a.bin Available NoError 1"));
    EXPECT_THAT(Heard(), ElementsAre("Dowloading NoError 0", "Dowloading NoError 0.5",
                                     "Available NoError 1"));
}

TEST_F(ResourceItemTest, AFailedDownloadGoesThroughItsStepsInOrder) {
    descriptor.validationMode = 1;
    descriptor.postProcess = 1;
    DownloaderAnswers(Status::NetworkFailure);
    Observe();
    EXPECT_THAT(CallsOfCheck(),
                ElementsAre("Trace Check a.bin Waiting NoError 0", "Trace Download \"a.bin\"",
                            "AddTask notifications 2", "Exec a.bin", "AddTask notifications 2",
                            "DownloadFinished InternetConnectionLost",
                            "Trace /Download \"a.bin, err:InternetConnectionLost\"",
                            "Trace /Check a.bin Error InternetConnectionLost 0"));
    EXPECT_THAT(Heard(), ElementsAre("Dowloading NoError 0", "Error InternetConnectionLost 0"));
}

TEST_F(ResourceItemTest, TheRecordsOfADownloadCarryOnlyATextThatNamesIt) {
    descriptor.relativePath = "sub folder/a,b.bin";
    std::vector<std::string> texts;
    fakes.tracer->onTrace = [&texts](TraceEvent event, const IEventTracer::TraceRecord& record) {
        if (event != TraceEvent::Download && event != TraceEvent::DownloadEnd)
            return;
        texts.push_back(record.text);
        EXPECT_EQ(record.descriptor, nullptr);
        EXPECT_EQ(record.bundle, nullptr);
        EXPECT_EQ(record.state, nullptr);
    };
    Check();
    EXPECT_THAT(texts, ElementsAre("sub folder/a,b.bin", "sub folder/a,b.bin, err:NoError"));
}

TEST_F(ResourceItemTest, ATransferBeginsWithTheProgressAtZero) {
    std::string state;
    fakes.downloader->onExec = [this, &state](const DownloadTask&) {
        state = State();
        return Status::Ok;
    };
    Check();
    EXPECT_EQ(state, "Dowloading NoError 0");
}

TEST_F(ResourceItemTest, TheStateIsStillTheOldOneWhenTheBeginOfADownloadIsTraced) {
    std::string state;
    fakes.tracer->onTrace = [this, &state](TraceEvent event, const IEventTracer::TraceRecord&) {
        if (event == TraceEvent::Download)
            state = State();
    };
    Check();
    EXPECT_EQ(state, "Waiting NoError 0");
}

TEST_F(ResourceItemTest, HandsItsDescriptorToTheServices) {
    descriptor.validationMode = 1;
    descriptor.postProcess = 1;
    std::vector<const ResourceDescriptor*> handed;
    fakes.downloader->onExec = [&handed](const DownloadTask& task) {
        handed.push_back(task.descriptor);
        return Status::Ok;
    };
    fakes.postProcessor->onProcess = [&handed](const ResourceDescriptor* processed) {
        handed.push_back(processed);
        return 0;
    };
    fakes.validator->onValidate = [&handed](const ResourceDescriptor* validated) {
        handed.push_back(validated);
        return 0;
    };
    Check();
    EXPECT_THAT(handed, ElementsAre(&descriptor, &descriptor, &descriptor));
}

TEST_F(ResourceItemTest, NeverAsksADownloadToStop) {
    bool isCancelled = true;
    fakes.downloader->onExec = [&isCancelled](const DownloadTask& task) {
        isCancelled = task.cancellationQuery();
        return Status::Ok;
    };
    Check();
    EXPECT_FALSE(isCancelled);
}

class ResourceItemProgress
    : public ResourceItemTest,
      public testing::WithParamInterface<std::tuple<std::size_t, std::size_t, std::string>> {};

TEST_P(ResourceItemProgress, IsTheQuotientOfWhatTheDownloaderReports) {
    const auto& [done, total, expected] = GetParam();
    fakes.downloader->onExec = [this, done = done, total = total,
                                expected = expected](const DownloadTask& task) {
        task.progressCallback(done, total);
        EXPECT_EQ(State(), expected);
        return Status::Ok;
    };
    EXPECT_THAT(CallsOfCheck(), Contains("Exec a.bin"));
}

constexpr std::size_t kMost = std::numeric_limits<std::size_t>::max();

INSTANTIATE_TEST_SUITE_P(All, ResourceItemProgress,
                         Values(std::tuple(1, 4, "Dowloading NoError 0.25"),
                                std::tuple(4, 4, "Dowloading NoError 1"),
                                std::tuple(6, 4, "Dowloading NoError 1.5"),
                                std::tuple(kMost, kMost, "Dowloading NoError 1"),
                                std::tuple(0, kMost, "Dowloading NoError 0"),
                                std::tuple(0, 0, "Dowloading NoError nan"),
                                std::tuple(1, 0, "Dowloading NoError inf")));

// What the downloader answers, what is told to the retrier, and the state afterwards.
class ResourceItemOutcome
    : public ResourceItemTest,
      public testing::WithParamInterface<std::tuple<int, std::string, std::string>> {};

TEST_P(ResourceItemOutcome, FollowsFromTheDownloadersAnswer) {
    const auto& [status, error, state] = GetParam();
    DownloaderAnswers(static_cast<Status>(status));
    EXPECT_THAT(CallsOfCheck(),
                ElementsAre("Trace Check a.bin Waiting NoError 0", "Trace Download \"a.bin\"",
                            "Exec a.bin", "DownloadFinished " + error,
                            "Trace /Download \"a.bin, err:" + error + '"',
                            "Trace /Check a.bin " + state));
}

INSTANTIATE_TEST_SUITE_P(All, ResourceItemOutcome,
                         Values(std::tuple(0, "NoError", "Available NoError 1"),
                                std::tuple(1, "GeneralError", "Error GeneralError 0"),
                                std::tuple(2, "InternetConnectionLost",
                                           "Error InternetConnectionLost 0"),
                                std::tuple(3, "Cancelled", "Error Cancelled 0"),
                                std::tuple(4, "NoError", "Available NoError 1"),
                                std::tuple(-1, "NoError", "Available NoError 1")));

class ResourceItemFailedTransfer : public ResourceItemTest,
                                   public testing::WithParamInterface<Status> {};

TEST_P(ResourceItemFailedTransfer, IsNeitherPostProcessedNorValidated) {
    descriptor.validationMode = 1;
    descriptor.postProcess = 1;
    DownloaderAnswers(GetParam());
    EXPECT_THAT(CallsOfCheck(),
                Not(testing::AnyOf(Contains("Process a.bin"), Contains("Validate a.bin"))));
}

INSTANTIATE_TEST_SUITE_P(All, ResourceItemFailedTransfer,
                         Values(Status::Failed, Status::NetworkFailure, Status::Cancelled));

class ResourceItemPostProcess : public ResourceItemTest, public testing::WithParamInterface<int> {};

TEST_P(ResourceItemPostProcess, IsDueWithAnyValueButZero) {
    descriptor.postProcess = GetParam();
    EXPECT_THAT(CallsOfCheck(), Contains("Process a.bin"));
}

TEST_P(ResourceItemPostProcess, AnyAnswerButZeroMakesTheDownloadCorruptedUnvalidated) {
    descriptor.validationMode = 1;
    descriptor.postProcess = 1;
    PostProcessorAnswers(GetParam());
    EXPECT_THAT(CallsOfCheck(),
                ElementsAre("Trace Check a.bin Waiting NoError 0", "Trace Download \"a.bin\"",
                            "Exec a.bin", "Process a.bin", "DownloadFinished Corrupted",
                            "Trace /Download \"a.bin, err:Corrupted\"",
                            "Trace /Check a.bin Error Corrupted 0"));
}

INSTANTIATE_TEST_SUITE_P(ValuesButZero, ResourceItemPostProcess, Values(1, 2, 5, -1));

TEST_F(ResourceItemTest, IsNotPostProcessedUnlessAsked) {
    PostProcessorAnswers(1);
    EXPECT_THAT(CallsOfCheck(), Not(Contains("Process a.bin")));
    EXPECT_EQ(State(), "Available NoError 1");
}

TEST_F(ResourceItemTest, AFileFoundOnDiskIsNotPostProcessed) {
    PutFile();
    descriptor.postProcess = 1;
    EXPECT_THAT(CallsOfCheck(), Not(Contains("Process a.bin")));
}

TEST_F(ResourceItemTest, ADownloadThatTheValidatorRejectsIsCorrupted) {
    descriptor.validationMode = 1;
    ValidatorAnswers(1);
    EXPECT_THAT(CallsOfCheck(), Contains("DownloadFinished Corrupted"));
    EXPECT_EQ(State(), "Error Corrupted 0");
}

TEST_F(ResourceItemTest, ADownloadIsNotYetAvailableWhileItIsJudged) {
    descriptor.validationMode = 1;
    descriptor.postProcess = 1;
    std::vector<std::string> states;
    fakes.postProcessor->onProcess = [this, &states](const ResourceDescriptor*) {
        states.push_back(State());
        return 0;
    };
    fakes.validator->onValidate = [this, &states](const ResourceDescriptor*) {
        states.push_back(State());
        return 0;
    };
    Check();
    EXPECT_THAT(states, ElementsAre("Dowloading NoError 0", "Dowloading NoError 0"));
}

class ResourceItemModeWithoutValidation : public ResourceItemTest,
                                          public testing::WithParamInterface<int> {};

TEST_P(ResourceItemModeWithoutValidation, LeavesADownloadUnvalidated) {
    descriptor.validationMode = GetParam();
    ValidatorAnswers(1);
    EXPECT_THAT(CallsOfCheck(), Not(Contains("Validate a.bin")));
    EXPECT_EQ(State(), "Available NoError 1");
}

INSTANTIATE_TEST_SUITE_P(All, ResourceItemModeWithoutValidation, Values(0, 2));

TEST_F(ResourceItemTest, TellsTheRetrierWhichResourceHasFinished) {
    ISchedulableResource* finished = nullptr;
    fakes.retrier->onFinished = [&finished](ISchedulableResource* resource) {
        finished = resource;
    };
    Check();
    EXPECT_EQ(finished, &item);
}

TEST_F(ResourceItemTest, HasItsFinalStateWhenTheRetrierIsTold) {
    DownloaderAnswers(Status::Cancelled);
    std::string state;
    fakes.retrier->onFinished = [this, &state](ISchedulableResource*) {
        state = State();
    };
    Check();
    EXPECT_EQ(state, "Error Cancelled 0");
}

TEST_F(ResourceItemTest, AFoundFileIsNotReportedToTheRetrier) {
    PutFile();
    EXPECT_THAT(CallsOfCheck(), Not(Contains("DownloadFinished NoError")));
}

TEST_F(ResourceItemTest, TheNextAttemptClearsTheError) {
    DownloaderAnswers(Status::Failed);
    Check();
    fakes.downloader->onExec = [this](const DownloadTask&) {
        EXPECT_EQ(State(), "Dowloading NoError 0");
        return Status::Ok;
    };
    EXPECT_THAT(CallsOfCheck(), Contains("DownloadFinished NoError"));
    EXPECT_EQ(State(), "Available NoError 1");
}

TEST_F(ResourceItemTest, AFailureTakesTheProgressBackToZero) {
    fakes.downloader->onExec = [](const DownloadTask& task) {
        task.progressCallback(3, 4);
        return Status::Failed;
    };
    Check();
    EXPECT_EQ(State(), "Error GeneralError 0");
}

TEST_F(ResourceItemTest, TwoChecksMayDownloadAtOnce) {
    std::atomic<int> started{0};
    Event bothStarted;
    fakes.downloader->onExec = [&started, &bothStarted](const DownloadTask& task) {
        if (++started == 2)
            bothStarted.Set();
        EXPECT_TRUE(bothStarted.Wait());
        task.progressCallback(1, 2);
        return Status::Ok;
    };
    item.Schedule(Priority::Normal);
    item.Schedule(Priority::Normal);
    other = std::thread([this] { fakes.checks->ExecOne(); });
    fakes.checks->ExecOne();
    other.join();
    EXPECT_EQ(State(), "Available NoError 1");
}

/// The downloader's first task makes the file; a second one removes it and fails.
class ResourceItemOvertakenTest : public ResourceItemTest {
protected:
    ResourceItemOvertakenTest() {
        descriptor.localPath = descriptor.downloadPath = folder / "file";
        descriptor.validationMode = 0;
        fakes.downloader->onExec = [this](const DownloadTask&) {
            return ++m_downloads == 1 ? Succeed() : Fail();
        };
    }

    Status Succeed() {
        folder.Write("file", "content");
        return Status::Ok;
    }
    Status Fail() {
        descriptor.localPath.remove();
        return Status::NetworkFailure;
    }

    /// A whole check on another thread.
    void CheckElsewhere() {
        item.Schedule(Priority::Normal);
        std::thread([this] { fakes.checks->ExecOne(); }).join();
    }
    /// A check that finds the file, while another one finds fault with it and downloads in vain.
    void CheckAFileThatAnotherCheckRejects() {
        descriptor.validationMode = 1;
        folder.Write("file", "content");
        m_downloads = 1;
        int validations = 0;
        fakes.validator->onValidate = [this, &validations](const ResourceDescriptor*) {
            if (++validations == 2)
                return 1;
            CheckElsewhere();
            return 0;
        };
        Check();
        EXPECT_EQ(validations, 2);
    }

    /// The validator accepts the first file that it sees, and another check runs meanwhile.
    void AcceptOnceWhileAnotherChecks() {
        descriptor.validationMode = 1;
        fakes.validator->onValidate = [this](const ResourceDescriptor*) {
            if (++m_validations > 1)
                return 1;
            CheckElsewhere();
            return 0;
        };
    }

    std::atomic<int> m_downloads{0};
    std::atomic<int> m_validations{0};
};

TEST_F(ResourceItemOvertakenTest, IsNotAvailableWithoutTheFileThatAnotherDownloadHasRemoved) {
    descriptor.postProcess = 1;
    fakes.postProcessor->onProcess = [this](const ResourceDescriptor*) {
        CheckElsewhere();
        return 0;
    };
    Check();
    EXPECT_EQ(State(), "Error GeneralError 0");
    const Calls calls = fakes.recorder.Take();
    EXPECT_THAT(calls, Contains("DownloadFinished GeneralError").Times(1));
    EXPECT_THAT(calls, Contains("Trace /Download \"a.bin, err:GeneralError\"").Times(1));
    EXPECT_THAT(calls, Not(Contains("DownloadFinished NoError")));
}

TEST_F(ResourceItemOvertakenTest, IsAvailableWithTheFileThatItHasFetchedAfterAnothersFailure) {
    fakes.downloader->onExec = [this](const DownloadTask&) {
        if (++m_downloads == 2)
            return Fail();
        CheckElsewhere();
        return Succeed();
    };
    Check();
    EXPECT_EQ(State(), "Available NoError 1");
}

TEST_F(ResourceItemOvertakenTest, IsAvailableWithAFetchedFileThatIsStillToBeMadeIntoTheLocalOne) {
    descriptor.localPath = folder / "not made yet";
    fakes.downloader->onExec = [this](const DownloadTask&) {
        if (++m_downloads == 2)
            return Status::NetworkFailure;
        CheckElsewhere();
        return Succeed();
    };
    Check();
    EXPECT_EQ(State(), "Available NoError 1");
}

TEST_F(ResourceItemOvertakenTest, IsNotAvailableByAFoundFileWhenOnlyWhatItIsMadeOfIsLeft) {
    descriptor.downloadPath = folder.Write("archive", "content");
    CheckAFileThatAnotherCheckRejects();
    EXPECT_EQ(State(), "Error InternetConnectionLost 0");
}

TEST_F(ResourceItemOvertakenTest, IsNotAvailableByAFoundFileThatADownloadHasRemoved) {
    CheckAFileThatAnotherCheckRejects();
    EXPECT_EQ(State(), "Error InternetConnectionLost 0");
}

TEST_F(ResourceItemOvertakenTest, IsNotAvailableByAFoundFileThatARejectedOneHasReplaced) {
    folder.Write("file", "content");
    AcceptOnceWhileAnotherChecks();
    Check();
    EXPECT_EQ(m_validations, 4);
    EXPECT_EQ(State(), "Error Corrupted 0");
}

TEST_F(ResourceItemOvertakenTest, IsNotAvailableWithAFetchedFileThatARejectedOneHasReplaced) {
    fakes.downloader->onExec = [this](const DownloadTask&) {
        return Succeed();
    };
    AcceptOnceWhileAnotherChecks();
    Check();
    EXPECT_EQ(m_validations, 4);
    EXPECT_EQ(State(), "Error Corrupted 0");
}

TEST_F(ResourceItemOvertakenTest, LooksAtItsFileAgainAsOftenAsItIsOvertaken) {
    folder.Write("file", "content");
    fakes.downloader->onExec = [](const DownloadTask&) {
        return Status::NetworkFailure;
    };
    fakes.validator->onValidate = [this](const ResourceDescriptor*) {
        switch (++m_validations) {
        case 1:
        case 3:
            CheckElsewhere();
            return 0;
        case 5:
            return 0;
        default:
            return 1;
        }
    };
    descriptor.validationMode = 1;
    Check();
    EXPECT_EQ(m_validations, 5);
    EXPECT_EQ(State(), "Available NoError 1");
}

} // namespace
} // namespace Halvex::App
