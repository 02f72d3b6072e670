#pragma once

#include <ResourceDownloadManager/IRemoteResource.h>
#include <ResourceDownloadManager/RemoteResourceEventHandlerCallback.h>
#include <ResourceKit/ResourceListModel.h>

#include <QtWidgets/QWidget>

class Downloads;
class QCheckBox;
class QLabel;
class QProgressBar;
class QPushButton;
class QStackedWidget;

/// The application's window: a page for the time until it can start, then a list of all bundles.
class Window : public QWidget {
public:
    /// The downloads must outlive it.
    explicit Window(Downloads& downloads);

private:
    QWidget* MakeStartPage();
    QWidget* MakeListPage();
    QWidget* MakeControls();

    void ShowStartup(const Halvex::App::IRemoteResource::State& state);
    void UpdateButtons();

    Downloads& m_downloads;
    Halvex::Kit::ResourceListModel m_model;
    // Each belongs to the widget that it lies in.
    QLabel* m_message = nullptr;
    QProgressBar* m_startProgress = nullptr;
    QPushButton* m_useLastCopy = nullptr;
    QCheckBox* m_offline = nullptr;
    QPushButton* m_retry = nullptr;
    QPushButton* m_cancel = nullptr;
    QStackedWidget* m_pages = nullptr;
    /// Ends first: it calls back into all of this.
    Halvex::App::RemoteResourceEventHandlerCallback m_startupObserver;
};
