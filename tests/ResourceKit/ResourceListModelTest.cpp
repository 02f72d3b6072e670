#include "ResourceKit/ResourceListModel.h"

#include "ResourceDownloadManager/ActiveState.h"
#include "ResourceDownloadManager/EventTracerStub.h"
#include "ResourceDownloadManager/IRemoteResourceEventHandler.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "ResourceDownloadManager/TaskQueue.h"
#include "ResourceDownloadManager/TaskQueueImmediate.h"
#include "ResourceDownloadManager/TaskQueueQt.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QLocale>
#include <QtCore/QThread>
#include <QtCore/QTimer>
#include <QtCore/QTranslator>
#include <QtTest/QAbstractItemModelTester>

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace Halvex::Kit {
namespace {

using App::ActiveState;
using App::IRemoteResource;
using Error = IRemoteResource::DownloadError;
using State = IRemoteResource::State;
using Status = IRemoteResource::DownloadStatus;
using Role = ResourceListModel;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Testing::WaitUntil;

/// A bundle of one file whose state the test sets, with the library's own way of telling observers.
class FakeResource : public IRemoteResource {
public:
    explicit FakeResource(std::shared_ptr<App::ITaskQueue> notificationQueue)
        : m_notificationQueue(std::move(notificationQueue)) {}

    void SetProgress(std::uint64_t done, std::uint64_t total = 100) {
        m_state.SetProgress(done, total);
    }
    void SetAvailable() { m_state.SetAvailable(); }
    void SetError(Error error) { m_state.SetError(error); }
    /// How many observers there are.
    int ObserverCount() const { return m_observers; }

    void Schedule(SchedulePriority) override {}
    State GetState() override { return m_state.GetState(); }
    const App::ResourceDescriptorBundle* GetDescriptor() override { return &m_bundle; }
    void RegisterEventHandler(App::IRemoteResourceEventHandler* handler,
                              const NotificationParams& params) override {
        ++m_observers;
        m_state.AddHandler(
            handler, [this, handler](State state) { handler->OnStateChanged(state, &m_bundle); },
            params);
        m_state.CheckAllNotifications();
    }
    void UnregisterEventHandler(App::IRemoteResourceEventHandler* handler) override {
        --m_observers;
        m_state.RemoveHandler(handler);
    }

private:
    const App::ResourceDescriptorBundle m_bundle;
    const std::shared_ptr<App::ITaskQueue> m_notificationQueue;
    const App::EventTracerStub m_tracer;
    ActiveState m_state{nullptr, &m_bundle, *m_notificationQueue, m_tracer};
    std::atomic<int> m_observers{0};
};

/// Runs the newest task first.
class LastFirstQueue : public App::ITaskQueue {
public:
    bool ExecOne() override {
        if (m_tasks.empty())
            return false;
        const Task task = std::move(m_tasks.back());
        m_tasks.pop_back();
        task();
        return true;
    }
    void AddTask(Task task, Priority) override { m_tasks.push_back(std::move(task)); }
    void RegisterEventHandler(App::ITaskQueueEventHandler*) override {}
    void UnregisterEventHandler(App::ITaskQueueEventHandler*) override {}

private:
    std::vector<Task> m_tasks;
};

/// Shows every text in capital letters.
class CapitalTranslator : public QTranslator {
public:
    CapitalTranslator() { QCoreApplication::installTranslator(this); }
    ~CapitalTranslator() override { QCoreApplication::removeTranslator(this); }

    bool isEmpty() const override { return false; }
    QString translate(const char* context, const char* text, const char*, int) const override {
        return QLatin1String(context) == QLatin1String("ResourceListModel")
                   ? QString::fromUtf8(text).toUpper()
                   : QString();
    }
};

class ResourceListModelTest : public testing::Test {
protected:
    ResourceListModelTest() {
        QLocale::setDefault(QLocale::c());
        // Directly, so that it is called on the thread that emits.
        QObject::connect(
            &*m_model, &QAbstractItemModel::dataChanged, &*m_model,
            [this](const QModelIndex& first, const QModelIndex& last) {
                EXPECT_EQ(QThread::currentThread(), m_thread);
                EXPECT_EQ(first, last);
                ++m_changes[first.row()];
            },
            Qt::DirectConnection);
    }
    ~ResourceListModelTest() override { QLocale::setDefault(QLocale::system()); }

    /// A resource that outlives the model.
    FakeResource& Make(std::shared_ptr<App::ITaskQueue> notificationQueue =
                           std::make_shared<App::TaskQueueImmediate>()) {
        return m_resources.emplace_back(std::move(notificationQueue));
    }

    void Add(FakeResource& resource, std::optional<std::uint64_t> totalBytes = {}) {
        m_model->Add(&resource, QStringLiteral("maps"), totalBytes);
    }

    QVariant Data(int role, int row = 0) const { return m_model->data(m_model->index(row), role); }
    std::string Text(int role, int row = 0) const {
        return Data(role, row).toString().toStdString();
    }
    double Progress(int row = 0) const { return Data(Role::ProgressRole, row).toDouble(); }
    Status ShownStatus(int row = 0) const {
        return static_cast<Status>(Data(Role::StatusRole, row).toInt());
    }

    /// Lets the event loop run until the condition holds.
    template <typename Condition>
    static bool Shows(Condition condition) {
        return WaitUntil([&] {
            QCoreApplication::processEvents();
            return condition();
        });
    }
    bool ShowsProgress(double progress) {
        return Shows([&] { return Progress() == progress; });
    }
    bool ShowsStatus(Status status, int row = 0) {
        return Shows([&] { return ShownStatus(row) == status; });
    }

    /// Lets time go by on the clock of the model, and its timer come round.
    void Pass(milliseconds time) {
        const int seen = m_reads;
        m_now += time;
        ASSERT_TRUE(Shows([&] { return m_reads > seen; }));
    }
    /// A transfer that has reached this percentage after so much more time.
    void Reach(FakeResource& resource, unsigned percentage, milliseconds time) {
        m_now += time;
        resource.SetProgress(percentage);
        ASSERT_TRUE(ShowsProgress(percentage / 100.0));
    }

    std::deque<FakeResource> m_resources;
    QThread* const m_thread = QThread::currentThread();
    std::map<int, int> m_changes;
    std::chrono::steady_clock::time_point m_now{};
    /// How often the model has looked at the clock.
    int m_reads = 0;
    std::optional<ResourceListModel> m_model{std::in_place, nullptr, [this] {
                                                 ++m_reads;
                                                 return m_now;
                                             }};
    QAbstractItemModelTester m_tester{&*m_model,
                                      QAbstractItemModelTester::FailureReportingMode::Fatal};
};

TEST_F(ResourceListModelTest, BeginsEmpty) {
    EXPECT_EQ(m_model->rowCount(), 0);
}

TEST_F(ResourceListModelTest, AddsRowsAtTheEndInTheirPresentStates) {
    FakeResource& waiting = Make();
    FakeResource& failed = Make();
    failed.SetError(Error::Corrupted);
    m_model->Add(&waiting, QStringLiteral("fonts"), 10);
    m_model->Add(&failed, QStringLiteral("maps"));
    ASSERT_EQ(m_model->rowCount(), 2);
    EXPECT_EQ(Text(Role::NameRole, 0), "fonts");
    EXPECT_EQ(Text(Role::NameRole, 1), "maps");
    EXPECT_EQ(ShownStatus(0), Status::Waiting);
    EXPECT_EQ(ShownStatus(1), Status::Error);
}

TEST_F(ResourceListModelTest, IsAListWithoutBranches) {
    FakeResource& resource = Make();
    Add(resource);
    EXPECT_EQ(m_model->rowCount(m_model->index(0)), 0);
    EXPECT_FALSE(m_model->data(m_model->index(1), Qt::DisplayRole).isValid());
    EXPECT_FALSE(m_model->data({}, Qt::DisplayRole).isValid());
    EXPECT_FALSE(Data(Qt::DecorationRole).isValid());
}

TEST_F(ResourceListModelTest, FollowsADownload) {
    FakeResource& resource = Make();
    Add(resource, 1000);
    resource.SetProgress(25);
    ASSERT_TRUE(ShowsProgress(0.25));
    EXPECT_EQ(ShownStatus(), Status::Dowloading);
    EXPECT_EQ(Data(Role::BytesDoneRole), QVariant(qulonglong{250}));
    EXPECT_EQ(Data(Role::BytesTotalRole), QVariant(qulonglong{1000}));
    resource.SetProgress(75);
    ASSERT_TRUE(ShowsProgress(0.75));
    resource.SetAvailable();
    ASSERT_TRUE(ShowsStatus(Status::Available));
    EXPECT_EQ(Progress(), 1);
    EXPECT_EQ(Data(Role::BytesDoneRole), QVariant(qulonglong{1000}));
}

TEST_F(ResourceListModelTest, ChangesNothingBeforeTheEventLoopRuns) {
    FakeResource& resource = Make();
    Add(resource);
    resource.SetProgress(50);
    EXPECT_EQ(ShownStatus(), Status::Waiting);
    EXPECT_EQ(m_changes[0], 0);
}

TEST_F(ResourceListModelTest, ChangesOnlyTheRowThatHasChanged) {
    FakeResource& first = Make();
    FakeResource& second = Make();
    Add(first);
    Add(second);
    second.SetAvailable();
    ASSERT_TRUE(ShowsStatus(Status::Available, 1));
    EXPECT_EQ(m_changes, (std::map<int, int>{{1, 1}}));
    EXPECT_EQ(ShownStatus(0), Status::Waiting);
}

TEST_F(ResourceListModelTest, SaysWhatHasGoneWrong) {
    FakeResource& resource = Make();
    Add(resource);
    EXPECT_EQ(Text(Role::ErrorTextRole), "");
    resource.SetError(Error::InternetConnectionLost);
    ASSERT_TRUE(ShowsStatus(Status::Error));
    EXPECT_EQ(Text(Role::ErrorTextRole), "no connection");
    EXPECT_EQ(Text(Role::StatusTextRole), "Failed");
    EXPECT_EQ(Text(Role::SummaryRole), "Failed: no connection");
    EXPECT_EQ(Text(Qt::DisplayRole), "maps: Failed: no connection");
    resource.SetProgress(0);
    ASSERT_TRUE(ShowsStatus(Status::Dowloading));
    EXPECT_EQ(Text(Role::ErrorTextRole), "");
    // As one update, when an attempt fails soon after the one before.
    resource.SetError(Error::Cancelled);
    resource.SetProgress(0);
    resource.SetError(Error::GeneralError);
    EXPECT_TRUE(Shows([&] { return Text(Role::ErrorTextRole) == "cannot be downloaded"; }));
}

TEST_F(ResourceListModelTest, NamesEveryStatusAndError) {
    const auto statusText = [](Status status) {
        return ResourceListModel::StatusText(status).toStdString();
    };
    EXPECT_EQ(statusText(Status::Waiting), "Waiting");
    EXPECT_EQ(statusText(Status::Dowloading), "Downloading");
    EXPECT_EQ(statusText(Status::Available), "Available");
    EXPECT_EQ(statusText(Status::Error), "Failed");
    EXPECT_EQ(statusText(static_cast<Status>(9)), "");
    const auto errorText = [](Error error) {
        return ResourceListModel::ErrorText(error).toStdString();
    };
    EXPECT_EQ(errorText(Error::NoError), "");
    EXPECT_EQ(errorText(Error::GeneralError), "cannot be downloaded");
    EXPECT_EQ(errorText(Error::Cancelled), "cancelled");
    EXPECT_EQ(errorText(Error::Corrupted), "the file is not as it should be");
    EXPECT_EQ(errorText(Error::InternetConnectionLost), "no connection");
    EXPECT_EQ(errorText(static_cast<Error>(9)), "");
}

TEST_F(ResourceListModelTest, KeepsTheProgressBetween0And1) {
    FakeResource& resource = Make();
    Add(resource, 1000);
    resource.SetProgress(0, 0); // not a number
    ASSERT_TRUE(ShowsStatus(Status::Dowloading));
    EXPECT_EQ(Progress(), 0);
    EXPECT_EQ(Data(Role::BytesDoneRole), QVariant(qulonglong{0}));
    resource.SetProgress(150);
    ASSERT_TRUE(ShowsProgress(1));
    EXPECT_EQ(Data(Role::BytesDoneRole), QVariant(qulonglong{1000}));
}

TEST_F(ResourceListModelTest, KeepsProgressAndSpeedWhileTheProgressIsNotANumber) {
    FakeResource& resource = Make();
    Add(resource, 1000);
    Reach(resource, 30, seconds(1));
    Reach(resource, 60, seconds(1));
    m_changes.clear();
    m_now += milliseconds(500);
    resource.SetProgress(0, 0);
    ASSERT_TRUE(Shows([&] { return m_changes[0] > 0; }));
    EXPECT_EQ(Progress(), 0.6);
    EXPECT_NEAR(Data(Role::BytesPerSecondRole).toDouble(), 200, 1);
}

TEST_F(ResourceListModelTest, MeasuresNoSpeedFromAProgressThatIsNotANumber) {
    FakeResource& resource = Make();
    Add(resource, 1000);
    resource.SetProgress(0, 0);
    ASSERT_TRUE(ShowsStatus(Status::Dowloading));
    Reach(resource, 60, seconds(1));
    EXPECT_EQ(Data(Role::BytesPerSecondRole), QVariant(0.0));
    Reach(resource, 70, seconds(1));
    EXPECT_NEAR(Data(Role::BytesPerSecondRole).toDouble(), 100, 1);
}

TEST_F(ResourceListModelTest, BeginsAt0WhenAnAvailableOneIsDownloadedAgain) {
    FakeResource& resource = Make();
    Add(resource, 1000);
    resource.SetAvailable();
    ASSERT_TRUE(ShowsStatus(Status::Available));
    resource.SetProgress(0, 0);
    ASSERT_TRUE(ShowsStatus(Status::Dowloading));
    EXPECT_EQ(Progress(), 0);
}

TEST_F(ResourceListModelTest, CountsTheBytesOfTheLargestTotal) {
    constexpr auto kLargest = std::numeric_limits<std::uint64_t>::max();
    FakeResource& resource = Make();
    Add(resource, kLargest);
    resource.SetProgress((1ULL << 53) - 1, 1ULL << 53);
    ASSERT_TRUE(ShowsStatus(Status::Dowloading));
    EXPECT_EQ(Data(Role::BytesDoneRole).toULongLong(), kLargest - 2047);
    resource.SetAvailable();
    ASSERT_TRUE(ShowsStatus(Status::Available));
    EXPECT_EQ(Data(Role::BytesDoneRole).toULongLong(), kLargest);
    EXPECT_EQ(Text(Role::SummaryRole), "Available, 9.2 EB");
}

TEST_F(ResourceListModelTest, KnowsNoBytesWithoutATotal) {
    FakeResource& resource = Make();
    Add(resource);
    Reach(resource, 10, seconds(0));
    Reach(resource, 20, seconds(1));
    EXPECT_FALSE(Data(Role::BytesDoneRole).isValid());
    EXPECT_FALSE(Data(Role::BytesTotalRole).isValid());
    EXPECT_FALSE(Data(Role::BytesPerSecondRole).isValid());
    EXPECT_EQ(Data(Role::SecondsLeftRole), QVariant(qlonglong{8}));
    EXPECT_EQ(Text(Role::SummaryRole), "Downloading, 20 %, 8 s left");
}

TEST_F(ResourceListModelTest, MeasuresTheSpeedAndForeseesTheEnd) {
    FakeResource& resource = Make();
    Add(resource, 1'000'000);
    EXPECT_EQ(Data(Role::BytesPerSecondRole), QVariant(0.0));
    EXPECT_FALSE(Data(Role::SecondsLeftRole).isValid());
    EXPECT_EQ(Text(Qt::DisplayRole), "maps: Waiting, 1.0 MB");
    Reach(resource, 10, seconds(5));
    EXPECT_EQ(Data(Role::BytesPerSecondRole), QVariant(0.0));
    EXPECT_FALSE(Data(Role::SecondsLeftRole).isValid());
    EXPECT_EQ(Text(Role::SummaryRole), "Downloading, 10 %, 100.0 kB of 1.0 MB, 0 bytes/s");
    Reach(resource, 15, milliseconds(500));
    EXPECT_NEAR(Data(Role::BytesPerSecondRole).toDouble(), 100'000, 1);
    EXPECT_EQ(Data(Role::SecondsLeftRole), QVariant(qlonglong{9}));
    EXPECT_EQ(Text(Role::SummaryRole),
              "Downloading, 15 %, 150.0 kB of 1.0 MB, 100.0 kB/s, 9 s left");
}

TEST_F(ResourceListModelTest, TakesTheMeanOfTheLastSeconds) {
    FakeResource& resource = Make();
    Add(resource, 100);
    Reach(resource, 10, seconds(0));
    Reach(resource, 50, seconds(1));
    Reach(resource, 51, seconds(1));
    EXPECT_NEAR(Data(Role::BytesPerSecondRole).toDouble(), 20.5, 0.01);
    Reach(resource, 52, seconds(1));
    Reach(resource, 53, seconds(1));
    EXPECT_NEAR(Data(Role::BytesPerSecondRole).toDouble(), 1, 0.01);
}

TEST_F(ResourceListModelTest, NoticesAStallWithoutBeingTold) {
    FakeResource& resource = Make();
    Add(resource, 100);
    Reach(resource, 10, seconds(0));
    Reach(resource, 50, seconds(1));
    Pass(seconds(1));
    EXPECT_NEAR(Data(Role::BytesPerSecondRole).toDouble(), 20, 0.01);
    EXPECT_EQ(Data(Role::SecondsLeftRole), QVariant(qlonglong{3}));
    const int changes = m_changes[0];
    Pass(seconds(3));
    EXPECT_EQ(Data(Role::BytesPerSecondRole), QVariant(0.0));
    EXPECT_FALSE(Data(Role::SecondsLeftRole).isValid());
    EXPECT_EQ(m_changes[0], changes + 1);
    Pass(seconds(3));
    EXPECT_EQ(m_changes[0], changes + 1);
}

TEST_F(ResourceListModelTest, HasNoSpeedWhenNothingIsFetched) {
    FakeResource& resource = Make();
    Add(resource, 100);
    for (const bool isGood : {true, false}) {
        Reach(resource, 10, seconds(0));
        Reach(resource, 50, seconds(1));
        EXPECT_GT(Data(Role::BytesPerSecondRole).toDouble(), 0);
        if (isGood)
            resource.SetAvailable();
        else
            resource.SetError(Error::GeneralError);
        ASSERT_TRUE(ShowsStatus(isGood ? Status::Available : Status::Error));
        EXPECT_EQ(Data(Role::BytesPerSecondRole), QVariant(0.0));
        EXPECT_FALSE(Data(Role::SecondsLeftRole).isValid());
    }
}

TEST_F(ResourceListModelTest, MeasuresAnewWhenADownloadBeginsAgain) {
    FakeResource& resource = Make();
    Add(resource, 100);
    Reach(resource, 10, seconds(0));
    Reach(resource, 90, seconds(1));
    // Both at once, as when an attempt fails and the next one begins between two updates.
    resource.SetError(Error::InternetConnectionLost);
    Reach(resource, 1, milliseconds(100));
    EXPECT_EQ(Data(Role::BytesPerSecondRole), QVariant(0.0));
    Reach(resource, 2, milliseconds(100));
    EXPECT_NEAR(Data(Role::BytesPerSecondRole).toDouble(), 10, 0.01);
}

TEST_F(ResourceListModelTest, WritesLongTimesInLongUnits) {
    struct Row {
        milliseconds forOnePercent;
        std::string text;
    };
    for (const Row& row : {Row{seconds(1), "Downloading, 2 %, 98 s left"},
                           Row{seconds(2), "Downloading, 2 %, 3 min left"},
                           Row{seconds(100), "Downloading, 2 %, 2 h left"}}) {
        FakeResource& resource = Make();
        ResourceListModel model(nullptr, [this] { return m_now; });
        model.Add(&resource, QStringLiteral("maps"));
        const auto summary = [&] {
            return model.data(model.index(0), Role::SummaryRole).toString().toStdString();
        };
        resource.SetProgress(1);
        ASSERT_TRUE(Shows([&] { return summary() == "Downloading, 1 %"; }));
        m_now += row.forOnePercent;
        resource.SetProgress(2);
        EXPECT_TRUE(Shows([&] { return summary() == row.text; })) << summary();
    }
}

TEST_F(ResourceListModelTest, HearsOfATenthOfAThousandth) {
    FakeResource& resource = Make();
    Add(resource);
    resource.SetProgress(10'000, 1'000'000);
    ASSERT_TRUE(ShowsProgress(0.01));
    resource.SetProgress(10'101, 1'000'000);
    EXPECT_TRUE(ShowsProgress(0.010101));
}

/// Reports without a pause until the model has changed ten times.
class ResourceListModelFlood : public ResourceListModelTest {
protected:
    void ExpectAtMostTenTimesASecond(const std::function<void(FakeResource&)>& report) {
        FakeResource& resource = Make();
        Add(resource);
        const auto begin = std::chrono::steady_clock::now();
        std::atomic<bool> isEnough{false};
        std::thread worker([&] {
            while (!isEnough)
                report(resource);
        });
        EXPECT_TRUE(Shows([&] { return m_changes[0] >= 10; }));
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begin;
        isEnough = true;
        worker.join();
        // Qt's timers may come 5 % early.
        EXPECT_LE(m_changes[0], elapsed.count() / 0.095 + 2);
    }
};

TEST_F(ResourceListModelFlood, OfDownloadsChangesARowAtMostTenTimesASecond) {
    std::uint64_t done = 0;
    ExpectAtMostTenTimesASecond([&](FakeResource& resource) {
        resource.SetProgress(++done % 10'000, 10'000);
        if (done % 10'000 == 0)
            resource.SetError(Error::GeneralError);
    });
}

// Nothing moves there but what arrives.
TEST_F(ResourceListModelFlood, OfEndsChangesARowAtMostTenTimesASecond) {
    ExpectAtMostTenTimesASecond([](FakeResource& resource) {
        resource.SetError(Error::GeneralError);
        resource.SetAvailable();
    });
}

// So that what arrives a moment later does not change the row at once.
TEST_F(ResourceListModelTest, TakesAnotherTurnAfterAnArrival) {
    FakeResource& resource = Make();
    const auto* timer = m_model->findChild<QTimer*>();
    Add(resource);
    ASSERT_TRUE(Shows([&] { return m_reads > 0 && !timer->isActive(); }));
    int readsAtChange = 0;
    QObject::connect(&*m_model, &QAbstractItemModel::dataChanged, &*m_model,
                     [&] { readsAtChange = m_reads; });
    resource.SetAvailable();
    ASSERT_TRUE(ShowsStatus(Status::Available));
    EXPECT_TRUE(Shows([&] { return m_reads > readsAtChange; }));
}

TEST_F(ResourceListModelTest, RestsWhenNothingMoves) {
    FakeResource& resource = Make();
    const auto* timer = m_model->findChild<QTimer*>();
    ASSERT_NE(timer, nullptr);
    Add(resource);
    ASSERT_TRUE(Shows([&] { return m_reads > 0 && !timer->isActive(); }));
    resource.SetProgress(1);
    ASSERT_TRUE(ShowsStatus(Status::Dowloading));
    EXPECT_TRUE(timer->isActive());
    resource.SetAvailable();
    ASSERT_TRUE(ShowsStatus(Status::Available));
    EXPECT_TRUE(Shows([&] { return !timer->isActive(); }));
    resource.SetProgress(1);
    EXPECT_TRUE(ShowsStatus(Status::Dowloading));
}

TEST_F(ResourceListModelTest, ShowsTheLatestStateWhateverIsDeliveredLast) {
    const auto queue = std::make_shared<LastFirstQueue>();
    FakeResource& resource = Make(queue);
    Add(resource);
    resource.SetProgress(50);
    resource.SetAvailable();
    while (queue->ExecOne()) {
    }
    ASSERT_TRUE(Shows([&] { return ShownStatus() != Status::Waiting; }));
    EXPECT_EQ(ShownStatus(), Status::Available);
}

TEST_F(ResourceListModelTest, LetsARowBeAddedWhenItTellsOfAChange) {
    FakeResource& first = Make();
    FakeResource& second = Make();
    Add(first);
    QObject::connect(&*m_model, &QAbstractItemModel::dataChanged, &*m_model, [&] {
        if (m_model->rowCount() == 1)
            Add(second);
    });
    first.SetAvailable();
    ASSERT_TRUE(Shows([&] { return m_model->rowCount() == 2; }));
    second.SetAvailable();
    EXPECT_TRUE(ShowsStatus(Status::Available, 1));
}

// As a dialog does that says what has gone wrong.
TEST_F(ResourceListModelTest, FollowsTheOthersWhileSomebodyRunsAnEventLoopInAChange) {
    FakeResource& first = Make();
    FakeResource& second = Make();
    Add(first);
    Add(second);
    first.SetProgress(10);
    ASSERT_TRUE(ShowsProgress(0.1));
    bool isInside = false;
    bool hasFollowed = false;
    QObject::connect(&*m_model, &QAbstractItemModel::dataChanged, &*m_model,
                     [&](const QModelIndex& index) {
                         if (index.row() != 0 || std::exchange(isInside, true))
                             return;
                         second.SetProgress(50);
                         hasFollowed = Shows([&] { return Progress(1) == 0.5; });
                         second.SetAvailable();
                     });
    // While the timer runs, so that it is its turn that tells of it.
    first.SetAvailable();
    ASSERT_TRUE(Shows([&] { return isInside; }));
    EXPECT_TRUE(hasFollowed);
    EXPECT_TRUE(ShowsStatus(Status::Available, 1));
}

TEST_F(ResourceListModelTest, NamesItsRolesForQml) {
    const QHash<int, QByteArray> names = m_model->roleNames();
    const std::map<int, QByteArray> expected{{Role::NameRole, "name"},
                                             {Role::StatusRole, "status"},
                                             {Role::StatusTextRole, "statusText"},
                                             {Role::ErrorTextRole, "errorText"},
                                             {Role::ProgressRole, "progress"},
                                             {Role::BytesDoneRole, "bytesDone"},
                                             {Role::BytesTotalRole, "bytesTotal"},
                                             {Role::BytesPerSecondRole, "bytesPerSecond"},
                                             {Role::SecondsLeftRole, "secondsLeft"},
                                             {Role::SummaryRole, "summary"},
                                             {Qt::DisplayRole, "display"}};
    for (const auto& [role, name] : expected)
        EXPECT_EQ(names.value(role), name);
}

TEST_F(ResourceListModelTest, SpeaksTheLanguageOfTheApplication) {
    FakeResource& resource = Make();
    Add(resource);
    const CapitalTranslator translator;
    EXPECT_EQ(Text(Role::StatusTextRole), "WAITING");
    EXPECT_EQ(ResourceListModel::ErrorText(Error::Cancelled), QStringLiteral("CANCELLED"));
}

TEST_F(ResourceListModelTest, UnregistersFromEverythingAtItsEnd) {
    FakeResource& first = Make();
    FakeResource& second = Make();
    Add(first);
    Add(second);
    EXPECT_EQ(first.ObserverCount(), 1);
    m_model.reset();
    EXPECT_EQ(first.ObserverCount(), 0);
    EXPECT_EQ(second.ObserverCount(), 0);
}

// Each on its way at another stage: in the notification queue, and on the way to the model's
// thread.
TEST_F(ResourceListModelTest, IsNotTouchedAfterItsEnd) {
    const auto queue = std::make_shared<App::TaskQueue>();
    FakeResource& queued = Make(queue);
    FakeResource& delivered = Make();
    Add(queued);
    Add(delivered);
    queued.SetProgress(50);
    delivered.SetProgress(50);
    m_model.reset();
    const int reads = m_reads;
    while (queue->ExecOne()) {
    }
    QCoreApplication::processEvents();
    EXPECT_EQ(m_reads, reads);
    EXPECT_TRUE(m_changes.empty());
}

/// A notification queue and whoever runs it.
struct Delivery {
    std::string name;
    std::shared_ptr<App::ITaskQueue> (*makeQueue)();
};

class ResourceListModelDeliveryTest : public ResourceListModelTest,
                                      public testing::WithParamInterface<Delivery> {
protected:
    ~ResourceListModelDeliveryTest() override {
        m_isOver = true;
        m_runner.join();
    }

    const std::shared_ptr<App::ITaskQueue> m_queue = GetParam().makeQueue();
    std::atomic<bool> m_isOver{false};
    /// Runs the tasks of a queue that has to be asked to.
    std::thread m_runner{[this] {
        while (!m_isOver) {
            if (!m_queue->ExecOne())
                std::this_thread::yield();
        }
    }};
};

INSTANTIATE_TEST_SUITE_P(
    , ResourceListModelDeliveryTest,
    testing::Values(Delivery{"AtOnce",
                             []() -> std::shared_ptr<App::ITaskQueue> {
                                 return std::make_shared<App::TaskQueueImmediate>();
                             }},
                    Delivery{"OnAnotherThread",
                             []() -> std::shared_ptr<App::ITaskQueue> {
                                 return std::make_shared<App::TaskQueue>();
                             }},
                    Delivery{"OnTheEventLoop",
                             []() -> std::shared_ptr<App::ITaskQueue> {
                                 return std::make_shared<App::TaskQueueQt>();
                             }}),
    [](const auto& delivery) { return delivery.param.name; });

TEST_P(ResourceListModelDeliveryTest, FollowsManyBundlesOnItsOwnThread) {
    constexpr int kBundles = 4;
    std::vector<std::thread> workers;
    for (int number = 0; number < kBundles; ++number) {
        FakeResource& resource = Make(m_queue);
        Add(resource, 1000);
        workers.emplace_back([&resource] {
            for (std::uint64_t done = 0; done <= 1000; ++done)
                resource.SetProgress(done, 1000);
            resource.SetAvailable();
        });
    }
    for (int number = 0; number < kBundles; ++number)
        EXPECT_TRUE(ShowsStatus(Status::Available, number));
    for (std::thread& worker : workers)
        worker.join();
}

TEST_P(ResourceListModelDeliveryTest, EndsAtAnyMoment) {
    constexpr int kModels = 50;
    FakeResource& resource = Make(m_queue);
    std::atomic<bool> isOver{false};
    std::thread worker([&] {
        for (std::uint64_t done = 0; !isOver; done = (done + 1) % 1000)
            resource.SetProgress(done, 1000);
    });
    for (int number = 0; number < kModels; ++number) {
        ResourceListModel model;
        model.Add(&resource, QStringLiteral("maps"));
        const auto status = [&model] {
            return model.data(model.index(0), Role::StatusRole);
        };
        EXPECT_TRUE(Shows([&] { return status() == static_cast<int>(Status::Dowloading); }));
    }
    isOver = true;
    worker.join();
    EXPECT_EQ(resource.ObserverCount(), 0);
}

} // namespace
} // namespace Halvex::Kit
