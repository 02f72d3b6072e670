#include "ResourceKit/ResourceListModel.h"

#include "Foundation/Mutex.h"
#include "ResourceDownloadManager/IRemoteResourceEventHandler.h"
#include "ResourceDownloadManager/TaskQueueQt.h"
#include "ResourceKit/SpeedMeter.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QLocale>
#include <QtCore/QObject>
#include <QtCore/QStringList>
#include <QtCore/QTimer>
#include <QtCore/QVector>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <utility>
#include <vector>

namespace Halvex::Kit {

namespace {

using State = App::IRemoteResource::State;
using Status = App::IRemoteResource::DownloadStatus;
using Error = App::IRemoteResource::DownloadError;

constexpr std::chrono::milliseconds kUpdateInterval(100);

/// Fine enough for the speed of a download of many gigabytes, and at most ten thousand
/// notifications for one of any size.
constexpr double kProgressStep = 0.0001;

QString Translate(const char* text) {
    return QCoreApplication::translate("ResourceListModel", text);
}

/// Between 0 and 1.
double ShownProgress(double progress) {
    if (!(progress > 0)) // also when it is not a number
        return 0;
    return progress < 1 ? progress : 1;
}

/// What Qt cannot write is written as the most that it can.
QString SizeText(double bytes) {
    constexpr double kMost = 9.2e18;
    return QLocale().formattedDataSize(static_cast<qint64>(std::min(bytes, kMost)), 1,
                                       QLocale::DataSizeSIFormat);
}

QString TimeText(std::chrono::seconds time) {
    constexpr std::chrono::seconds kFewSeconds(100);
    constexpr std::chrono::minutes kFewMinutes(100);
    if (time < kFewSeconds)
        return Translate("%1 s left").arg(time.count());
    const auto minutes = std::chrono::duration_cast<std::chrono::minutes>(time);
    if (minutes < kFewMinutes)
        return Translate("%1 min left").arg(minutes.count());
    return Translate("%1 h left")
        .arg(std::chrono::duration_cast<std::chrono::hours>(minutes).count());
}

} // namespace

struct HALVEX_HIDDEN ResourceListModel::Impl {
    class Row;

    Impl(ResourceListModel& owner, Clock timeSource) : model(owner), clock(std::move(timeSource)) {
        // Not one that repeats: whoever is told of a change may run an event loop of its own, such
        // as that of a dialog, and a timer does not go off inside its own turn.
        timer.setSingleShot(true);
        QObject::connect(&timer, &QTimer::timeout, &timer, [this] { TakeTurn(); });
    }

    /// A state has come for one of the rows. Any thread.
    void NoteArrival() {
        {
            const MutexLock lock(mutex);
            if (std::exchange(isWakeUpQueued, true))
                return;
        }
        wakeUps.AddTask([this] { WakeUp(); }, App::ITaskQueue::Middle);
    }

    /// While the timer runs, its next turn takes what has come.
    void WakeUp() {
        if (!timer.isActive())
            TakeTurn();
    }

    /// Goes on for as long as something comes, or moves.
    void TakeTurn() {
        timer.start(kUpdateInterval);
        const bool hasArrived = TakeWakeUp();
        Refresh();
        if (!hasArrived && !IsMoving())
            timer.stop();
    }

    bool TakeWakeUp() {
        const MutexLock lock(mutex);
        return std::exchange(isWakeUpQueued, false);
    }

    void Refresh();
    bool IsMoving();

    ResourceListModel& model;
    const Clock clock;
    /// Guards what has arrived for each row, too.
    Mutex mutex;
    /// Whether a wake-up is on its way, or has come while the timer ran.
    bool isWakeUpQueued HALVEX_GUARDED_BY(mutex) = false;
    App::TaskQueueQt wakeUps;
    QTimer timer{&model};
    std::vector<std::unique_ptr<Row>> rows;
};

/// What is shown of one bundle, and the bundle's observer.
class ResourceListModel::Impl::Row : public App::IRemoteResourceEventHandler {
public:
    Row(Impl& impl, App::IRemoteResource& resource, QString name,
        std::optional<std::uint64_t> totalBytes)
        : m_impl(impl), m_resource(resource), m_name(std::move(name)), m_totalBytes(totalBytes),
          m_state(resource.GetState()) {}
    ~Row() override { m_resource.UnregisterEventHandler(this); }

    Row(const Row&) = delete;
    Row& operator=(const Row&) = delete;

    void Observe() {
        App::IRemoteResource::NotificationParams params;
        params.progressStep = kProgressStep;
        m_resource.RegisterEventHandler(this, params);
    }

    /// The bundle may be further than this notification tells.
    void OnStateChanged(State, const App::ResourceDescriptorBundle*) override {
        const State latest = m_resource.GetState();
        {
            const MutexLock lock(m_impl.mutex);
            m_arrived = latest;
        }
        m_impl.NoteArrival();
    }

    std::optional<State> TakeArrived() {
        const MutexLock lock(m_impl.mutex);
        return std::exchange(m_arrived, std::nullopt);
    }

    /// Shows this state now. Whether that, or the time that has passed, makes a difference.
    bool Update(const State& state, SpeedMeter::Time now) {
        const State before = std::exchange(m_state, state);
        // While a file of no bytes is under way: that says nothing of the others.
        if (std::isnan(m_state.progress) && m_state.status == before.status)
            m_state.progress = before.progress;
        const double speedBefore = m_speed.PerSecond();
        const std::optional<std::chrono::seconds> timeBefore = TimeLeft();
        if (!IsDownloading() || Progress() < ShownProgress(before.progress))
            m_speed.Reset();
        if (IsDownloading() && !std::isnan(m_state.progress))
            m_speed.Add(now, Progress());
        return m_state.status != before.status || m_state.error != before.error ||
               Progress() != ShownProgress(before.progress) || m_speed.PerSecond() != speedBefore ||
               TimeLeft() != timeBefore;
    }

    const State& Shown() const { return m_state; }
    bool IsDownloading() const { return m_state.status == Status::Dowloading; }

    QVariant Data(int role) const {
        switch (role) {
        case Qt::DisplayRole:
            return Translate("%1: %2").arg(m_name, Summary());
        case NameRole:
            return m_name;
        case StatusRole:
            return static_cast<int>(m_state.status);
        case StatusTextRole:
            return StatusText(m_state.status);
        case ErrorTextRole:
            return ErrorText(m_state.error);
        case ProgressRole:
            return Progress();
        case BytesDoneRole:
            return ToVariant(BytesDone());
        case BytesTotalRole:
            return ToVariant(m_totalBytes);
        case BytesPerSecondRole:
            return m_totalBytes ? BytesPerSecond() : QVariant();
        case SecondsLeftRole:
            return TimeLeft() ? QVariant(qlonglong{TimeLeft()->count()}) : QVariant();
        case SummaryRole:
            return Summary();
        default:
            return {};
        }
    }

private:
    static QVariant ToVariant(std::optional<std::uint64_t> bytes) {
        return bytes ? QVariant(qulonglong{*bytes}) : QVariant();
    }

    double Progress() const { return ShownProgress(m_state.progress); }

    std::optional<std::uint64_t> BytesDone() const {
        if (!m_totalBytes || Progress() == 1)
            return m_totalBytes;
        return static_cast<std::uint64_t>(Progress() * static_cast<double>(*m_totalBytes));
    }

    /// Requires: the total is known.
    double BytesPerSecond() const {
        return m_speed.PerSecond() * static_cast<double>(*m_totalBytes);
    }

    std::optional<std::chrono::seconds> TimeLeft() const { return m_speed.TimeFor(1 - Progress()); }

    QString Summary() const {
        const QString status = StatusText(m_state.status);
        if (m_state.error != Error::NoError)
            return Translate("%1: %2").arg(status, ErrorText(m_state.error));
        QStringList parts{status};
        if (IsDownloading()) {
            parts += Translate("%1 %").arg(static_cast<int>(Progress() * 100));
            if (m_totalBytes) {
                parts += Translate("%1 of %2")
                             .arg(SizeText(static_cast<double>(*BytesDone())),
                                  SizeText(static_cast<double>(*m_totalBytes)));
                parts += Translate("%1/s").arg(SizeText(BytesPerSecond()));
            }
            if (TimeLeft())
                parts += TimeText(*TimeLeft());
        } else if (m_totalBytes) {
            parts += SizeText(static_cast<double>(*m_totalBytes));
        }
        return parts.join(Translate(", "));
    }

    Impl& m_impl;
    App::IRemoteResource& m_resource;
    const QString m_name;
    const std::optional<std::uint64_t> m_totalBytes;
    std::optional<State> m_arrived HALVEX_GUARDED_BY(m_impl.mutex);
    // Of the model's thread.
    State m_state;
    /// Of the progress. Empty unless the status is Dowloading.
    SpeedMeter m_speed;
};

/// Brings all rows up to date.
void ResourceListModel::Impl::Refresh() {
    static const QVector<int> kChanging{Qt::DisplayRole,    StatusRole,      StatusTextRole,
                                        ErrorTextRole,      ProgressRole,    BytesDoneRole,
                                        BytesPerSecondRole, SecondsLeftRole, SummaryRole};
    // By numbers: whoever is told of a change may add a row.
    for (std::size_t number = 0; number < rows.size(); ++number) {
        Row& row = *rows[number];
        const std::optional<State> arrived = row.TakeArrived();
        if (row.Update(arrived.value_or(row.Shown()), clock())) {
            const QModelIndex index = model.index(static_cast<int>(number));
            Q_EMIT model.dataChanged(index, index, kChanging);
        }
    }
}

/// Whether a row may change without another wake-up.
bool ResourceListModel::Impl::IsMoving() {
    const MutexLock lock(mutex);
    return isWakeUpQueued || std::any_of(rows.begin(), rows.end(),
                                         [](const auto& row) { return row->IsDownloading(); });
}

ResourceListModel::ResourceListModel(QObject* parent, Clock clock)
    : QAbstractListModel(parent), m_impl(std::make_unique<Impl>(*this, std::move(clock))) {}

ResourceListModel::~ResourceListModel() = default;

void ResourceListModel::Add(App::IRemoteResource* resource, const QString& name,
                            std::optional<std::uint64_t> totalBytes) {
    auto row = std::make_unique<Impl::Row>(*m_impl, *resource, name, totalBytes);
    const int position = rowCount();
    beginInsertRows({}, position, position);
    m_impl->rows.push_back(std::move(row));
    endInsertRows();
    m_impl->rows[static_cast<std::size_t>(position)]->Observe();
}

QString ResourceListModel::StatusText(Status status) {
    switch (status) {
    case Status::Waiting:
        return Translate("Waiting");
    case Status::Dowloading:
        return Translate("Downloading");
    case Status::Available:
        return Translate("Available");
    case Status::Error:
        return Translate("Failed");
    }
    return {};
}

QString ResourceListModel::ErrorText(Error error) {
    switch (error) {
    case Error::NoError:
        return {};
    case Error::GeneralError:
        return Translate("cannot be downloaded");
    case Error::Cancelled:
        return Translate("cancelled");
    case Error::Corrupted:
        return Translate("the file is not as it should be");
    case Error::InternetConnectionLost:
        return Translate("no connection");
    }
    return {};
}

int ResourceListModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(m_impl->rows.size());
}

QVariant ResourceListModel::data(const QModelIndex& index, int role) const {
    // Rows never go, so that an index that was valid once still is.
    if (!index.isValid())
        return {};
    return m_impl->rows[static_cast<std::size_t>(index.row())]->Data(role);
}

QHash<int, QByteArray> ResourceListModel::roleNames() const {
    QHash<int, QByteArray> names = QAbstractListModel::roleNames();
    names.insert({{NameRole, "name"},
                  {StatusRole, "status"},
                  {StatusTextRole, "statusText"},
                  {ErrorTextRole, "errorText"},
                  {ProgressRole, "progress"},
                  {BytesDoneRole, "bytesDone"},
                  {BytesTotalRole, "bytesTotal"},
                  {BytesPerSecondRole, "bytesPerSecond"},
                  {SecondsLeftRole, "secondsLeft"},
                  {SummaryRole, "summary"}});
    return names;
}

} // namespace Halvex::Kit
