#include "ResourceDownloadManager/TaskQueueQt.h"

#include "ResourceDownloadManager/ITaskQueueEventHandler.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QEvent>
#include <QtCore/QEventLoop>
#include <QtCore/QObject>
#include <QtCore/QThread>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace Halvex::App {
namespace {

using Testing::Event;

class MockHandler : public ITaskQueueEventHandler {
public:
    MOCK_METHOD(void, OnQueueEvent, (QueueEvent), (override));
};

/// Says when the event loop has come to an event that was posted to it with a Qt priority.
class Marker : public QObject {
public:
    Marker(std::string& order, std::string name) : m_order(order), m_name(std::move(name)) {}

    void Post(int qtPriority) {
        QCoreApplication::postEvent(this, new QEvent(QEvent::User), qtPriority);
    }

protected:
    bool event(QEvent*) override {
        m_order += m_name + " ";
        return true;
    }

private:
    std::string& m_order;
    const std::string m_name;
};

/// Takes the queue's events away from the event loop, to deliver them to the queue's hidden object
/// by hand: what it throws must not pass through the event loop.
class Delivery : public QObject {
public:
    Delivery() { QCoreApplication::instance()->installEventFilter(this); }

    /// Delivers the next posted event and answers as the object did.
    bool Deliver() {
        QCoreApplication::sendPostedEvents();
        if (m_exception)
            std::rethrow_exception(m_exception);
        return m_answer.value();
    }

    /// The object that the last event went to, and the event's type.
    QObject* Receiver() const { return m_receiver; }
    QEvent::Type Type() const { return m_type; }

    bool eventFilter(QObject* receiver, QEvent* event) override {
        m_receiver = receiver;
        m_type = event->type();
        try {
            m_answer = receiver->event(event);
        } catch (...) {
            m_exception = std::current_exception();
        }
        return true;
    }

private:
    QObject* m_receiver = nullptr;
    QEvent::Type m_type = QEvent::None;
    std::optional<bool> m_answer;
    std::exception_ptr m_exception;
};

class TaskQueueQtTest : public testing::Test {
protected:
    void Add(int priority, const std::string& name) {
        m_queue->AddTask([this, name] { m_order += name + " "; },
                         static_cast<ITaskQueue::Priority>(priority));
    }

    static void RunEventLoop() { QCoreApplication::sendPostedEvents(); }

    /// The names of a task and of two events, one posted before and one after it with the Qt
    /// priority, in the order in which they came out of the event loop.
    std::string OrderAmongEventsOf(int qtPriority, int priority) {
        Marker before(m_order, "before");
        Marker after(m_order, "after");
        before.Post(qtPriority);
        Add(priority, "task");
        after.Post(qtPriority);
        RunEventLoop();
        return m_order;
    }

    std::unique_ptr<TaskQueueQt> m_queue = std::make_unique<TaskQueueQt>();
    std::string m_order;
};

TEST_F(TaskQueueQtTest, RunsATaskInTheEventLoop) {
    Add(ITaskQueue::Middle, "task");
    EXPECT_EQ(m_order, "");
    RunEventLoop();
    EXPECT_EQ(m_order, "task ");
}

TEST_F(TaskQueueQtTest, RunsEachTaskOnce) {
    Add(ITaskQueue::Middle, "task");
    RunEventLoop();
    RunEventLoop();
    EXPECT_EQ(m_order, "task ");
}

TEST_F(TaskQueueQtTest, RunsATaskOfAnotherThreadOnTheThreadThatMadeTheQueue) {
    QEventLoop loop;
    std::thread::id runner;
    std::thread worker([&] {
        m_queue->AddTask(
            [&] {
                runner = std::this_thread::get_id();
                loop.quit();
            },
            ITaskQueue::Middle);
    });
    loop.exec();
    worker.join();
    EXPECT_EQ(runner, std::this_thread::get_id());
}

TEST_F(TaskQueueQtTest, BelongsToTheThreadThatMadeItWhicheverThatIs) {
    Event made;
    Event added;
    std::unique_ptr<TaskQueueQt> queue;
    std::thread::id runner;
    std::thread::id owner;
    std::thread thread([&] {
        owner = std::this_thread::get_id();
        QEventLoop loop;
        queue = std::make_unique<TaskQueueQt>();
        queue->AddTask([&] { made.Set(); }, ITaskQueue::Highest);
        while (runner == std::thread::id())
            loop.processEvents(QEventLoop::WaitForMoreEvents);
        EXPECT_TRUE(added.Wait());
        queue.reset();
    });
    EXPECT_TRUE(made.Wait());
    queue->AddTask([&] { runner = std::this_thread::get_id(); }, ITaskQueue::Middle);
    added.Set();
    thread.join();
    EXPECT_EQ(runner, owner);
}

TEST_F(TaskQueueQtTest, RunsMoreUrgentTasksFirst) {
    Add(ITaskQueue::Lower, "lower");
    Add(ITaskQueue::Highest, "highest");
    Add(ITaskQueue::Middle, "middle");
    Add(ITaskQueue::Lowest, "lowest");
    Add(ITaskQueue::Higher, "higher");
    RunEventLoop();
    EXPECT_EQ(m_order, "highest higher middle lower lowest ");
}

TEST_F(TaskQueueQtTest, RunsTasksOfOnePriorityInTheOrderOfAdding) {
    Add(ITaskQueue::Middle, "first");
    Add(ITaskQueue::Middle, "second");
    Add(ITaskQueue::Highest, "highest");
    RunEventLoop();
    EXPECT_EQ(m_order, "highest first second ");
}

TEST_F(TaskQueueQtTest, PostsHighestAtTwo) {
    EXPECT_EQ(OrderAmongEventsOf(2, ITaskQueue::Highest), "before task after ");
}

TEST_F(TaskQueueQtTest, PostsHigherAtOne) {
    EXPECT_EQ(OrderAmongEventsOf(1, ITaskQueue::Higher), "before task after ");
}

TEST_F(TaskQueueQtTest, PostsMiddleAtZero) {
    EXPECT_EQ(OrderAmongEventsOf(0, ITaskQueue::Middle), "before task after ");
}

TEST_F(TaskQueueQtTest, PostsLowerAtMinusOne) {
    EXPECT_EQ(OrderAmongEventsOf(-1, ITaskQueue::Lower), "before task after ");
}

TEST_F(TaskQueueQtTest, PostsLowestAtMinusTwo) {
    EXPECT_EQ(OrderAmongEventsOf(-2, ITaskQueue::Lowest), "before task after ");
}

TEST_F(TaskQueueQtTest, PostsAnUnknownPriorityAtZero) {
    EXPECT_EQ(OrderAmongEventsOf(0, 9), "before task after ");
}

TEST_F(TaskQueueQtTest, PostsANegativePriorityAtZero) {
    EXPECT_EQ(OrderAmongEventsOf(0, -1), "before task after ");
}

TEST_F(TaskQueueQtTest, RunsAnUnknownPriorityAmongTheMiddleOnes) {
    Add(ITaskQueue::Lower, "lower");
    Add(ITaskQueue::Middle, "middle-1");
    Add(9, "nine");
    Add(ITaskQueue::Middle, "middle-2");
    Add(ITaskQueue::Higher, "higher");
    RunEventLoop();
    EXPECT_EQ(m_order, "higher middle-1 nine middle-2 lower ");
}

TEST_F(TaskQueueQtTest, HasNothingToExecuteEvenWhenTasksWait) {
    EXPECT_FALSE(m_queue->ExecOne());
    Add(ITaskQueue::Middle, "task");
    EXPECT_FALSE(m_queue->ExecOne());
    EXPECT_EQ(m_order, "");
}

TEST_F(TaskQueueQtTest, TellsNoObserver) {
    MockHandler handler;
    EXPECT_CALL(handler, OnQueueEvent).Times(0);
    m_queue->RegisterEventHandler(&handler);
    Add(ITaskQueue::Middle, "task");
    m_queue->ExecOne();
    RunEventLoop();
    m_queue->UnregisterEventHandler(&handler);
}

TEST_F(TaskQueueQtTest, DestroysATaskWhenItHasRun) {
    auto state = std::make_shared<int>(0);
    const std::weak_ptr<int> observed = state;
    m_queue->AddTask([state = std::move(state)] {}, ITaskQueue::Middle);
    EXPECT_FALSE(observed.expired());
    RunEventLoop();
    EXPECT_TRUE(observed.expired());
}

TEST_F(TaskQueueQtTest, DestroysTheTasksItStillHoldsUnrun) {
    auto state = std::make_shared<int>(0);
    const std::weak_ptr<int> observed = state;
    bool ran = false;
    m_queue->AddTask([&ran, state = std::move(state)] { ran = true; }, ITaskQueue::Middle);
    m_queue.reset();
    EXPECT_TRUE(observed.expired());
    RunEventLoop();
    EXPECT_FALSE(ran);
}

TEST_F(TaskQueueQtTest, LetsATaskAddTasks) {
    m_queue->AddTask([this] { Add(ITaskQueue::Middle, "inner"); }, ITaskQueue::Middle);
    RunEventLoop();
    RunEventLoop();
    EXPECT_EQ(m_order, "inner ");
}

TEST_F(TaskQueueQtTest, AnswersThatATaskWasHandled) {
    Delivery delivery;
    Add(ITaskQueue::Middle, "task");
    EXPECT_TRUE(delivery.Deliver());
    EXPECT_EQ(m_order, "task ");
}

TEST_F(TaskQueueQtTest, ThrowsForAnEmptyTaskWhenItsTurnComes) {
    Delivery delivery;
    EXPECT_NO_THROW(m_queue->AddTask({}, ITaskQueue::Middle));
    EXPECT_THROW(delivery.Deliver(), std::bad_function_call);
}

TEST_F(TaskQueueQtTest, PassesOnWhatATaskThrows) {
    Delivery delivery;
    m_queue->AddTask([] { throw std::logic_error("task"); }, ITaskQueue::Middle);
    EXPECT_THROW(delivery.Deliver(), std::logic_error);
}

TEST_F(TaskQueueQtTest, UsesOneEventTypeOfTheApplicationsForAllQueues) {
    Delivery delivery;
    Add(ITaskQueue::Middle, "task");
    delivery.Deliver();
    const QEvent::Type type = delivery.Type();
    TaskQueueQt other;
    other.AddTask([] {}, ITaskQueue::Middle);
    delivery.Deliver();
    EXPECT_EQ(delivery.Type(), type);
    EXPECT_GT(type, QEvent::User);
    EXPECT_LE(type, QEvent::MaxUser);
}

TEST_F(TaskQueueQtTest, LeavesItsEventTypeToItself) {
    Delivery delivery;
    Add(ITaskQueue::Middle, "task");
    delivery.Deliver();
    EXPECT_NE(QEvent::registerEventType(delivery.Type()), delivery.Type());
}

/// The hidden object of a queue that has run a task.
class TaskQueueQtObjectTest : public TaskQueueQtTest {
protected:
    TaskQueueQtObjectTest() {
        Delivery delivery;
        Add(ITaskQueue::Middle, "task");
        delivery.Deliver();
        m_object = delivery.Receiver();
        m_order.clear();
    }

    QObject* m_object = nullptr;
};

// A queued call of a function is an event that QObject itself handles.
TEST_F(TaskQueueQtObjectTest, PassesOtherEventsOn) {
    QMetaObject::invokeMethod(
        m_object, [this] { m_order += "call "; }, Qt::QueuedConnection);
    RunEventLoop();
    EXPECT_EQ(m_order, "call ");
}

TEST_F(TaskQueueQtObjectTest, AnswersForOtherEventsAsAnyObjectDoes) {
    for (const QEvent::Type type : {QEvent::Show, QEvent::User}) {
        QEvent forQueue(type);
        QEvent forAnyObject(type);
        QObject anyObject;
        EXPECT_EQ(m_object->event(&forQueue), anyObject.event(&forAnyObject)) << type;
    }
}

TEST_F(TaskQueueQtObjectTest, BelongsToNoOtherObject) {
    EXPECT_EQ(m_object->parent(), nullptr);
    EXPECT_EQ(m_object->thread(), QThread::currentThread());
}

TEST_F(TaskQueueQtObjectTest, DiesWithTheQueue) {
    bool destroyed = false;
    QObject::connect(m_object, &QObject::destroyed, [&] { destroyed = true; });
    m_queue.reset();
    EXPECT_TRUE(destroyed);
}

} // namespace
} // namespace Halvex::App
