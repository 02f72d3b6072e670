#pragma once

#include "Foundation/Export.h"
#include "ResourceDownloadManager/IRemoteResource.h"

#include <QtCore/QAbstractListModel>
#include <QtCore/QByteArray>
#include <QtCore/QHash>
#include <QtCore/QString>
#include <QtCore/QVariant>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

namespace Halvex::Kit {

/// A list of bundles for Qt's views and for QML: one row for each, which follows the bundle's
/// state.
///
/// Lives in the thread that constructed it: all calls and all signals are made there, whatever
/// thread the notification queue runs on. That thread needs a Qt event loop; without one the rows
/// stay as they were added. A row changes at most ten times per second, however many notifications
/// arrive, and the last of them always counts.
///
///     ResourceListModel model;
///     model.Add(manager.GetMainScheduler()->Register(&mapsBundle), "Maps", 9'216'000);
///     listView.setModel(&model);
///
/// Of a bundle in which one file has failed the library tells no more until the status is another
/// one: progress and error text are then those of that moment, although other files may go on.
///
/// The resources must outlive the model. Its destructor waits for a notification that is being
/// delivered on another thread; no other one touches it afterwards.
///
/// Texts are English ones that go through QCoreApplication::translate, in the context
/// "ResourceListModel"; numbers in them are written as the default QLocale has it.
class HALVEX_EXPORT ResourceListModel : public QAbstractListModel {
public:
    /// What data gives for a row. Names in quotes are those for QML. An invalid QVariant stands for
    /// what is not known.
    enum Role : std::int32_t {
        /// "name": QString, as given to Add.
        NameRole = Qt::UserRole + 1,
        /// "status": int, the value of an IRemoteResource::DownloadStatus.
        StatusRole,
        /// "statusText": QString, see StatusText.
        StatusTextRole,
        /// "errorText": QString, see ErrorText. Empty while there is no error.
        ErrorTextRole,
        /// "progress": double, 0 to 1, the mean of the bundle's files. A progress that is not a
        /// number counts as the one before, and as 0 where the status is new; one above 1 as 1.
        ProgressRole,
        /// "bytesDone": qulonglong, the progress times bytesTotal: exact for a bundle of one file,
        /// an estimate for files of different sizes. Unknown without a total.
        BytesDoneRole,
        /// "bytesTotal": qulonglong, as given to Add, or unknown.
        BytesTotalRole,
        /// "bytesPerSecond": double, the mean over the last three seconds, with the bytes estimated
        /// as in bytesDone; files that are found on disk count as fetched at that moment. 0 unless
        /// the status is Dowloading. Unknown without a total.
        BytesPerSecondRole,
        /// "secondsLeft": qlonglong, until the progress is 1 if it goes on as in the last three
        /// seconds. Unknown unless the status is Dowloading, and while nothing moves. Needs no
        /// total.
        SecondsLeftRole,
        /// "summary": QString, one line of all this but the name: "Downloading, 42 %, 4.2 MB of
        /// 10.0 MB, 1.2 MB/s, 5 s left" or "Failed: no connection".
        SummaryRole,
    };

    /// Tells the time by which speeds are measured.
    using Clock = std::function<std::chrono::steady_clock::time_point()>;

    /// Empty. Another clock than the default one is for tests.
    explicit ResourceListModel(QObject* parent = nullptr,
                               Clock clock = std::chrono::steady_clock::now);
    ~ResourceListModel() override;

    /// Adds a row at the end, in the resource's present state. The resource must not be null. The
    /// total is the size of all its files in bytes, where it is known. Waits as
    /// IRemoteResource::RegisterEventHandler does.
    void Add(App::IRemoteResource* resource, const QString& name,
             std::optional<std::uint64_t> totalBytes = {});

    /// "Waiting", "Downloading", "Available" or "Failed". Any thread.
    static QString StatusText(App::IRemoteResource::DownloadStatus status);
    /// What has gone wrong, for people: "no connection". Empty for NoError. Any thread.
    static QString ErrorText(App::IRemoteResource::DownloadError error);

    int rowCount(const QModelIndex& parent = {}) const override;
    /// Of the roles above, and Qt::DisplayRole: the name and the summary, "Maps: Waiting".
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    QHash<int, QByteArray> roleNames() const override;

private:
    struct Impl;
    const std::unique_ptr<Impl> m_impl;
};

} // namespace Halvex::Kit
