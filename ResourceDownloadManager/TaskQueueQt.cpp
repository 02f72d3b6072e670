#include "ResourceDownloadManager/TaskQueueQt.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QEvent>
#include <QtCore/QObject>

#include <atomic>
#include <utility>

namespace Halvex::App {

namespace {

QEvent::Type TaskEventType() {
    static const int type = QEvent::registerEventType(-1);
    return static_cast<QEvent::Type>(type);
}

class TaskQueueEvent : public QEvent {
public:
    explicit TaskQueueEvent(ITaskQueue::Task task)
        : QEvent(TaskEventType()), m_task(std::move(task)) {
        m_ready.store(true, std::memory_order_release);
    }
    ~TaskQueueEvent() override { Receive(); }

    void Run() {
        Receive();
        m_task();
    }

private:
    /// Qt's own event queue orders the hand-over, out of the thread sanitizer's sight; this makes
    /// it visible.
    void Receive() const { (void)m_ready.load(std::memory_order_acquire); }

    ITaskQueue::Task m_task;
    std::atomic<bool> m_ready{false};
};

int ToQtPriority(ITaskQueue::Priority priority) {
    switch (priority) {
    case ITaskQueue::Highest:
        return 2;
    case ITaskQueue::Higher:
        return 1;
    case ITaskQueue::Middle:
        return 0;
    case ITaskQueue::Lower:
        return -1;
    case ITaskQueue::Lowest:
        return -2;
    }
    return 0;
}

} // namespace

class HALVEX_HIDDEN TaskQueueQt::Impl : public QObject {
public:
    Impl() : m_registeredType(TaskEventType()) {}

    bool event(QEvent* event) override {
        if (event->type() != m_registeredType)
            return QObject::event(event);
        static_cast<TaskQueueEvent*>(event)->Run();
        return true;
    }

private:
    const int m_registeredType;
};

TaskQueueQt::TaskQueueQt() : m_impl(std::make_unique<Impl>()) {}

TaskQueueQt::~TaskQueueQt() = default;

bool TaskQueueQt::ExecOne() {
    return false;
}

void TaskQueueQt::AddTask(Task task, Priority priority) {
    QCoreApplication::postEvent(m_impl.get(), new TaskQueueEvent(std::move(task)),
                                ToQtPriority(priority));
}

void TaskQueueQt::RegisterEventHandler(ITaskQueueEventHandler*) {}

void TaskQueueQt::UnregisterEventHandler(ITaskQueueEventHandler*) {}

} // namespace Halvex::App
