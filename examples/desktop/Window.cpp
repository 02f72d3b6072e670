#include "Window.h"

#include "BundleDelegate.h"
#include "Downloads.h"

#include <QtWidgets/QCheckBox>
#include <QtWidgets/QHBoxLayout>
#include <QtWidgets/QLabel>
#include <QtWidgets/QListView>
#include <QtWidgets/QProgressBar>
#include <QtWidgets/QPushButton>
#include <QtWidgets/QStackedWidget>
#include <QtWidgets/QVBoxLayout>

using namespace Halvex;
using State = App::IRemoteResource::State;
using Status = App::IRemoteResource::DownloadStatus;

namespace {

enum Page : int { StartPage, ListPage };

} // namespace

Window::Window(Downloads& downloads) : m_downloads(downloads) {
    for (const Downloads::Bundle& bundle : m_downloads.Bundles())
        m_model.Add(bundle.resource, bundle.name, bundle.bytes);

    m_pages = new QStackedWidget;
    m_pages->addWidget(MakeStartPage());
    m_pages->addWidget(MakeListPage());
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(m_pages);
    layout->addWidget(MakeControls());
    setWindowTitle(QStringLiteral("Downloads"));
    resize(560, 400);

    connect(&m_model, &QAbstractItemModel::dataChanged, this, &Window::UpdateButtons);
    UpdateButtons();

    // On this thread, because the manager delivers to the Qt event loop.
    m_startupObserver.SetCallback([this](State state) { ShowStartup(state); });
    m_startupObserver.RegisterWithin(m_downloads.Startup());
}

QWidget* Window::MakeStartPage() {
    auto* page = new QWidget;
    auto* title = new QLabel(QStringLiteral("<h2>Starting</h2>"));
    m_message = new QLabel;
    m_message->setObjectName(QStringLiteral("message"));
    m_message->setWordWrap(true);
    m_startProgress = new QProgressBar;
    m_startProgress->setObjectName(QStringLiteral("startProgress"));
    m_useLastCopy = new QPushButton(QStringLiteral("Use the copy of last time"));
    m_useLastCopy->setObjectName(QStringLiteral("useLastCopy"));
    m_useLastCopy->setVisible(m_downloads.HasStartupFiles());
    connect(m_useLastCopy, &QPushButton::clicked, this,
            [this] { m_pages->setCurrentIndex(ListPage); });

    auto* layout = new QVBoxLayout(page);
    layout->addStretch();
    layout->addWidget(title);
    layout->addWidget(m_message);
    layout->addWidget(m_startProgress);
    layout->addWidget(m_useLastCopy, 0, Qt::AlignLeft);
    layout->addStretch();
    layout->setContentsMargins(40, 0, 40, 0);
    return page;
}

QWidget* Window::MakeListPage() {
    auto* list = new QListView;
    list->setObjectName(QStringLiteral("bundles"));
    list->setModel(&m_model);
    list->setItemDelegate(new BundleDelegate(list));
    list->setSelectionMode(QAbstractItemView::NoSelection);
    return list;
}

QWidget* Window::MakeControls() {
    m_offline = new QCheckBox(QStringLiteral("Offline"));
    m_offline->setObjectName(QStringLiteral("offline"));
    m_offline->setChecked(m_downloads.IsOffline());
    connect(m_offline, &QCheckBox::toggled, this, [this](bool isOffline) {
        m_downloads.SetOffline(isOffline);
        // In a folder that cannot be written to it is not.
        m_offline->setChecked(m_downloads.IsOffline());
    });
    m_retry = new QPushButton(QStringLiteral("Retry"));
    m_retry->setObjectName(QStringLiteral("retry"));
    connect(m_retry, &QPushButton::clicked, this, [this] { m_downloads.RetryFailed(); });
    m_cancel = new QPushButton(QStringLiteral("Cancel all"));
    m_cancel->setObjectName(QStringLiteral("cancel"));
    connect(m_cancel, &QPushButton::clicked, this, [this] { m_downloads.CancelAll(); });

    auto* controls = new QWidget;
    auto* layout = new QHBoxLayout(controls);
    layout->addWidget(m_offline);
    layout->addStretch();
    layout->addWidget(m_retry);
    layout->addWidget(m_cancel);
    layout->setContentsMargins(0, 0, 0, 0);
    return controls;
}

void Window::ShowStartup(const State& state) {
    m_startProgress->setValue(state.GetPercentage());
    switch (state.status) {
    case Status::Waiting:
    case Status::Dowloading:
        m_message->setText(QStringLiteral("Getting what is needed to start."));
        break;
    case Status::Available:
        m_pages->setCurrentIndex(ListPage);
        break;
    case Status::Error:
        m_message->setText(QStringLiteral("What is needed to start is missing: %1.")
                               .arg(Kit::ResourceListModel::ErrorText(state.error)));
        break;
    }
}

void Window::UpdateButtons() {
    bool hasFailed = false;
    bool isUnderWay = false;
    for (int row = 0; row < m_model.rowCount(); ++row) {
        const QVariant status = m_model.index(row).data(Kit::ResourceListModel::StatusRole);
        hasFailed |= status == static_cast<int>(Status::Error);
        isUnderWay |= status == static_cast<int>(Status::Waiting) ||
                      status == static_cast<int>(Status::Dowloading);
    }
    m_retry->setEnabled(hasFailed);
    m_cancel->setEnabled(isUnderWay);
}
