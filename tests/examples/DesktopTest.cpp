// What the window of examples/desktop shows, in front of a local server. Where the variable
// HALVEX_SCREENSHOTS names a folder, pictures of it are left there; script/screenshots does that.

#include "Arguments.h"
#include "CancellableDownloader.h"
#include "Downloads.h"
#include "Window.h"

#include "support/FakeScriptedDownloader.h"
#include "support/ScriptedHttpServer.h"
#include "support/TemporaryFolder.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>

#include <QtGui/QColor>
#include <QtGui/QImage>
#include <QtTest/QTest>
#include <QtWidgets/QApplication>
#include <QtWidgets/QCheckBox>
#include <QtWidgets/QLabel>
#include <QtWidgets/QListView>
#include <QtWidgets/QProgressBar>
#include <QtWidgets/QPushButton>

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace Halvex {
namespace {

using App::IRemoteResource;
using Kit::ResourceListModel;
using Testing::Event;
using Testing::ReadFile;
using Testing::Reply;
using Testing::ScriptedHttpServer;
using Testing::TemporaryFolder;
using Testing::WaitUntil;

constexpr char kSettings[] = "/settings.json";
constexpr char kFonts[] = "/fonts.bin";
constexpr char kMaps[] = "/maps.bin";
constexpr std::uint64_t kFontBytes = 400'000;
constexpr std::uint64_t kMapBytes = 2'000'000;
enum Row : int { kStartupRow, kFontsRow, kMapsRow };

/// The window in front of a server that has three files, each a bundle, the first of which is
/// needed to start.
class Desktop : public testing::Test {
protected:
    Desktop() {
        m_server.On(kSettings, Reply::Ok("new settings"));
        m_server.On(kFonts, Reply::Generated(kFontBytes));
        m_server.On(kMaps, Reply::Generated(kMapBytes));
    }

    void Open() {
        m_downloads.emplace(Arguments{QString::fromStdString(m_server.Url("/")),
                                      QString::fromStdString(m_folder.Path()),
                                      *ParseBundle(QStringLiteral("Start-up=settings.json:12")),
                                      {*ParseBundle(QStringLiteral("Fonts=fonts.bin:400000")),
                                       *ParseBundle(QStringLiteral("Maps=maps.bin:2000000"))}});
        m_failureCounter.emplace();
        m_failureCounter->SetCallback(
            [this](IRemoteResource::State state, const App::ResourceDescriptorBundle* bundle) {
                EXPECT_EQ(std::this_thread::get_id(), m_thread);
                if (state.status == IRemoteResource::DownloadStatus::Error)
                    m_failures[bundle].push_back(state.error);
            });
        for (const Downloads::Bundle& bundle : m_downloads->Bundles())
            m_failureCounter->RegisterWithin(bundle.resource);
        m_window.emplace(*m_downloads);
        m_window->show();
        m_downloads->Start();
    }

    void Close() {
        m_window.reset();
        m_failureCounter.reset();
        m_downloads.reset();
    }

    template <typename Widget>
    Widget& Find(const char* name) const {
        return *m_window->findChild<Widget*>(QLatin1String(name));
    }
    QPushButton& Retry() const { return Find<QPushButton>("retry"); }
    QPushButton& CancelAll() const { return Find<QPushButton>("cancel"); }
    QPushButton& UseLastCopy() const { return Find<QPushButton>("useLastCopy"); }
    QCheckBox& Offline() const { return Find<QCheckBox>("offline"); }
    QListView& List() const { return Find<QListView>("bundles"); }
    std::string Message() const { return Find<QLabel>("message").text().toStdString(); }

    /// Lets the window live until the condition holds.
    template <typename Condition>
    static bool Shows(Condition condition) {
        return WaitUntil([&] {
            QCoreApplication::processEvents();
            return condition();
        });
    }
    bool ShowsMessage(const std::string& message) const {
        return Shows([&] { return Find<QLabel>("message").isVisible() && Message() == message; });
    }
    bool ShowsList() const {
        return Shows([&] { return List().isVisible(); });
    }
    bool ShowsRow(int row, const std::string& summary) const {
        return Shows([&] { return Summary(row) == summary; });
    }
    /// When the library has tried once more by itself, with the same end, and will not again.
    bool FailsTwice(int row, IRemoteResource::DownloadError error) {
        const auto* bundle =
            m_downloads->Bundles()[static_cast<std::size_t>(row)].resource->GetDescriptor();
        return Shows([&] { return m_failures[bundle].size() == 2; }) &&
               m_failures[bundle] == std::vector{error, error};
    }
    bool ShowsAllAvailable() const {
        return ShowsRow(kStartupRow, "Available, 12 bytes") &&
               ShowsRow(kFontsRow, "Available, 400.0 kB") &&
               ShowsRow(kMapsRow, "Available, 2.0 MB");
    }

    /// Waits until a button can be clicked, and does so.
    static void Click(QAbstractButton& button) {
        ASSERT_TRUE(Shows([&] { return button.isVisible() && button.isEnabled(); }));
        Press(button);
    }
    /// The mouse goes where a person would click.
    static void Press(QAbstractButton& button) {
        const bool isBox = qobject_cast<QCheckBox*>(&button) != nullptr;
        const QPoint inside = isBox ? QPoint(5, button.height() / 2) : button.rect().center();
        QTest::mouseClick(&button, Qt::LeftButton, {}, inside);
    }

    QModelIndex Index(int row) const { return List().model()->index(row, 0); }
    std::string Summary(int row) const {
        return Index(row).data(ResourceListModel::SummaryRole).toString().toStdString();
    }
    double Progress(int row) const {
        return Index(row).data(ResourceListModel::ProgressRole).toDouble();
    }
    bool ShowsProgress(int row, double progress) const {
        return Shows([&] { return Progress(row) == progress; });
    }

    QImage Picture(int row) const {
        return List().viewport()->grab(List().visualRect(Index(row))).toImage();
    }
    /// How many pixels of a row have the colour of a bar, as opposed to that of text, ground and
    /// frame, which are grey or red.
    int BarPixels(int row) const {
        constexpr int kClearly = 40;
        const QImage picture = Picture(row);
        int count = 0;
        for (int y = 0; y < picture.height(); ++y) {
            for (int x = 0; x < picture.width(); ++x) {
                const QColor color = picture.pixelColor(x, y);
                count += color.blue() - color.red() > kClearly ? 1 : 0;
            }
        }
        return count;
    }
    /// Pixels of red text.
    int RedPixels(int row) const {
        constexpr int kClearly = 60;
        const QImage picture = Picture(row);
        int count = 0;
        for (int y = 0; y < picture.height(); ++y) {
            for (int x = 0; x < picture.width(); ++x) {
                const QColor color = picture.pixelColor(x, y);
                count += color.red() - color.blue() > kClearly ? 1 : 0;
            }
        }
        return count;
    }

    /// A picture of the window for the documentation, when one is asked for.
    void TakePicture(const char* name) {
        const QString folder = qEnvironmentVariable("HALVEX_SCREENSHOTS");
        if (folder.isEmpty())
            return;
        const QString path = folder + QLatin1Char('/') + QLatin1String(name);
        EXPECT_TRUE(m_window->grab().save(path, "PNG")) << path.toStdString();
    }

    TemporaryFolder m_folder;
    Event m_release;
    ScriptedHttpServer m_server;
    std::optional<Downloads> m_downloads;
    std::map<const App::ResourceDescriptorBundle*, std::vector<IRemoteResource::DownloadError>>
        m_failures;
    std::optional<App::RemoteResourceEventHandlerCallback> m_failureCounter;
    /// The window's, where all notifications are to arrive.
    const std::thread::id m_thread = std::this_thread::get_id();
    std::optional<Window> m_window;
};

TEST_F(Desktop, WaitsForWhatIsNeededToStart) {
    m_server.On(kSettings, Reply::Ok("new settings").StallAt(6, m_release));
    Open();
    EXPECT_TRUE(ShowsMessage("Getting what is needed to start."));
    EXPECT_TRUE(Shows([&] { return Find<QProgressBar>("startProgress").value() == 50; }));
    EXPECT_FALSE(List().isVisible());
    EXPECT_FALSE(UseLastCopy().isVisible());
    EXPECT_FALSE(Retry().isEnabled());
    TakePicture("desktop-starting.png");
    m_release.Set();
    EXPECT_TRUE(ShowsList());
    EXPECT_FALSE(Find<QLabel>("message").isVisible());
    EXPECT_EQ(ReadFile(m_folder / "settings.json"), "new settings");
}

TEST_F(Desktop, SaysWhyItCannotStartAndTriesAgain) {
    m_server.On(kSettings, Reply::Status(404));
    Open();
    EXPECT_TRUE(ShowsMessage("What is needed to start is missing: cannot be downloaded."));
    EXPECT_FALSE(UseLastCopy().isVisible());
    ASSERT_TRUE(FailsTwice(kStartupRow, IRemoteResource::DownloadError::GeneralError));
    EXPECT_FALSE(List().isVisible());
    m_server.On(kSettings, Reply::Ok("new settings"));
    Click(Retry());
    EXPECT_TRUE(ShowsList());
}

TEST_F(Desktop, StartsWithTheCopyOfLastTimeWithoutAConnection) {
    m_folder.Write("settings.json", "old settings");
    m_folder.Write("offline", "");
    Open();
    EXPECT_TRUE(Offline().isChecked());
    EXPECT_TRUE(ShowsMessage("What is needed to start is missing: no connection."));
    Click(UseLastCopy());
    EXPECT_TRUE(ShowsList());
    EXPECT_EQ(ReadFile(m_folder / "settings.json"), "old settings");
}

TEST_F(Desktop, ReplacesTheCopyOfLastTime) {
    m_folder.Write("settings.json", "old settings");
    m_server.On(kSettings, Reply::Ok("new settings").StallAt(6, m_release));
    Open();
    EXPECT_TRUE(Shows([&] { return Find<QProgressBar>("startProgress").value() == 50; }));
    EXPECT_TRUE(UseLastCopy().isVisible());
    EXPECT_EQ(ReadFile(m_folder / "settings.json"), "old settings");
    m_release.Set();
    EXPECT_TRUE(ShowsList());
    EXPECT_EQ(ReadFile(m_folder / "settings.json"), "new settings");
}

TEST_F(Desktop, PaintsBarsThatGrow) {
    m_server.On(kFonts, Reply::Generated(kFontBytes).StallAt(kFontBytes / 4, m_release));
    m_server.On(kMaps, Reply::Generated(kMapBytes).StallAt(kMapBytes * 3 / 4, m_release));
    Open();
    ASSERT_TRUE(ShowsList());
    ASSERT_TRUE(ShowsProgress(kFontsRow, 0.25));
    ASSERT_TRUE(ShowsProgress(kMapsRow, 0.75));
    EXPECT_THAT(Summary(kMapsRow), testing::StartsWith("Downloading, 75 %, 1.5 MB of 2.0 MB, "));
    const int quarter = BarPixels(kFontsRow);
    const int threeQuarters = BarPixels(kMapsRow);
    EXPECT_GT(quarter, 0);
    EXPECT_NEAR(threeQuarters, 3 * quarter, quarter / 5);
    m_release.Set();
    ASSERT_TRUE(ShowsAllAvailable());
    EXPECT_NEAR(BarPixels(kFontsRow), 4 * quarter, quarter / 5);
    EXPECT_TRUE(Shows([&] { return !CancelAll().isEnabled() && !Retry().isEnabled(); }));
    EXPECT_EQ(ReadFile(m_folder / "maps.bin").size(), kMapBytes);
}

TEST_F(Desktop, ShowsDownloadsUnderWay) {
    using std::chrono::milliseconds;
    m_server.On(kFonts, Reply::Generated(kFontBytes).Drip(4'000, milliseconds(40)));
    m_server.On(kMaps, Reply::Generated(kMapBytes).Drip(12'000, milliseconds(40)));
    Open();
    ASSERT_TRUE(ShowsList());
    ASSERT_TRUE(Shows([&] { return Progress(kMapsRow) > 0.25; }));
    EXPECT_THAT(Summary(kMapsRow),
                testing::ContainsRegex("^Downloading, .* %, .* of 2.0 MB, .*/s, .* left$"));
    EXPECT_TRUE(CancelAll().isEnabled());
    EXPECT_FALSE(Retry().isEnabled());
    TakePicture("desktop-downloading.png");
}

TEST_F(Desktop, ShowsAnErrorAndTriesAgain) {
    m_server.On(kMaps, Reply::Status(404));
    Open();
    ASSERT_TRUE(FailsTwice(kMapsRow, IRemoteResource::DownloadError::GeneralError));
    ASSERT_TRUE(ShowsRow(kMapsRow, "Failed: cannot be downloaded"));
    ASSERT_TRUE(ShowsRow(kFontsRow, "Available, 400.0 kB"));
    ASSERT_TRUE(Shows([&] { return Retry().isEnabled() && !CancelAll().isEnabled(); }));
    EXPECT_GT(RedPixels(kMapsRow), 0);
    EXPECT_EQ(RedPixels(kFontsRow), 0);
    TakePicture("desktop-error.png");
    m_server.On(kMaps, Reply::Generated(kMapBytes));
    Click(Retry());
    EXPECT_TRUE(ShowsAllAvailable());
    EXPECT_FALSE(Retry().isEnabled());
    EXPECT_EQ(m_server.RequestCount(kFonts), 1U);
}

TEST_F(Desktop, CancelsAllAndTriesAgain) {
    m_server.On(kFonts, {Reply::Generated(kFontBytes).StallAt(1000), Reply::Generated(kFontBytes)});
    m_server.On(kMaps, {Reply::Generated(kMapBytes).StallAt(1000), Reply::Generated(kMapBytes)});
    Open();
    ASSERT_TRUE(m_server.WaitForRequests(kFonts));
    ASSERT_TRUE(m_server.WaitForRequests(kMaps));
    ASSERT_TRUE(ShowsRow(kStartupRow, "Available, 12 bytes"));
    Click(CancelAll());
    ASSERT_TRUE(FailsTwice(kFontsRow, IRemoteResource::DownloadError::Cancelled));
    ASSERT_TRUE(FailsTwice(kMapsRow, IRemoteResource::DownloadError::Cancelled));
    EXPECT_TRUE(ShowsRow(kFontsRow, "Failed: cancelled"));
    EXPECT_TRUE(ShowsRow(kMapsRow, "Failed: cancelled"));
    EXPECT_TRUE(Shows([&] { return !CancelAll().isEnabled(); }));
    // The library's own second attempt did not get as far as the server.
    EXPECT_EQ(m_server.RequestCount(kFonts), 1U);
    EXPECT_EQ(m_server.RequestCount(kMaps), 1U);
    Click(Retry());
    EXPECT_TRUE(ShowsAllAvailable());
}

TEST_F(Desktop, DoesNotSayThatItIsOfflineWhenItCannotBe) {
    Open();
    ASSERT_TRUE(ShowsAllAvailable());
    std::filesystem::remove_all(m_folder.Path());
    Click(Offline());
    EXPECT_FALSE(Offline().isChecked());
}

TEST_F(Desktop, BehavesAsIfThereWereNoConnection) {
    m_server.On(kMaps, {Reply::Generated(kMapBytes).StallAt(1000), Reply::Generated(kMapBytes)});
    Open();
    ASSERT_TRUE(m_server.WaitForRequests(kMaps));
    ASSERT_TRUE(ShowsRow(kStartupRow, "Available, 12 bytes"));
    ASSERT_TRUE(ShowsRow(kFontsRow, "Available, 400.0 kB"));
    Click(Offline());
    EXPECT_TRUE(ShowsRow(kMapsRow, "Failed: no connection"));
    Click(Offline());
    EXPECT_FALSE(m_downloads->IsOffline());
    // Unless the library was quicker.
    if (Retry().isEnabled())
        Press(Retry());
    EXPECT_TRUE(ShowsAllAvailable());
}

TEST_F(Desktop, ClosesInTheMiddleOfIt) {
    m_server.On(kSettings, Reply::Ok("new settings").StallAt(6));
    m_server.On(kMaps, Reply::Generated(kMapBytes).StallAt(1000));
    Open();
    ASSERT_TRUE(m_server.WaitForRequests(kMaps));
    ASSERT_TRUE(m_server.WaitForRequests(kSettings));
    ASSERT_TRUE(ShowsRow(kFontsRow, "Available, 400.0 kB"));
    Close();
    EXPECT_EQ(m_folder.List(), "fonts.bin");
}

class CancellableDownloaderTest : public testing::Test {
protected:
    using Status = App::IResourceDownloader::Status;

    Status Download(bool isStoppedByManager = false) const {
        App::IResourceDownloader::Task task;
        task.descriptor = &m_descriptor;
        task.cancellationQuery = [isStoppedByManager] {
            return isStoppedByManager;
        };
        return m_downloader.Exec(std::move(task));
    }

    const App::ResourceDescriptor m_descriptor{};
    const std::shared_ptr<Testing::FakeScriptedDownloader> m_inner =
        std::make_shared<Testing::FakeScriptedDownloader>();
    CancellableDownloader m_downloader{m_inner};
};

TEST_F(CancellableDownloaderTest, DownloadsUntilItIsToldToCancelAll) {
    EXPECT_EQ(Download(), Status::Ok);
    m_downloader.CancelAll();
    EXPECT_EQ(Download(), Status::Cancelled);
    EXPECT_EQ(m_inner->DownloadCount(), 1U);
    m_downloader.Resume();
    EXPECT_EQ(Download(), Status::Ok);
}

TEST_F(CancellableDownloaderTest, StopsADownloadForThePersonAndForTheManager) {
    m_inner->SetScript([this](const App::IResourceDownloader::Task& task) {
        const bool isStoppedByManager = task.cancellationQuery();
        m_downloader.CancelAll();
        EXPECT_TRUE(task.cancellationQuery());
        m_downloader.Resume();
        return isStoppedByManager ? Status::Cancelled : Status::Ok;
    });
    EXPECT_EQ(Download(false), Status::Ok);
    EXPECT_EQ(Download(true), Status::Cancelled);
}

TEST_F(CancellableDownloaderTest, PassesTheEndOn) {
    m_downloader.Abort();
    EXPECT_EQ(m_inner->AbortCount(), 1U);
}

TEST(DesktopArguments, AreBundlesOfFiles) {
    const auto bundle = ParseBundle(QStringLiteral("Fonts and more=a.bin,b.bin:300"));
    ASSERT_TRUE(bundle.has_value());
    EXPECT_EQ(bundle->name, QStringLiteral("Fonts and more"));
    EXPECT_EQ(bundle->files, (QStringList{QStringLiteral("a.bin"), QStringLiteral("b.bin")}));
    EXPECT_EQ(bundle->bytes, 300U);
    EXPECT_EQ(ParseBundle(QStringLiteral("Fonts=a.bin"))->bytes, std::nullopt);
}

TEST(DesktopArguments, AreRefusedWhenTheySayAnythingElse) {
    for (const char* text : {"", "a.bin", "=a.bin", "Fonts=", "Fonts=a.bin,", "Fonts=,a.bin",
                             "Fonts=a.bin:", "Fonts=a.bin:x", "Fonts=a.bin:-1", "Fonts=../a.bin",
                             "Fonts=a.bin:1234567890123456789"})
        EXPECT_FALSE(ParseBundle(QLatin1String(text)).has_value()) << text;
}

} // namespace
} // namespace Halvex
