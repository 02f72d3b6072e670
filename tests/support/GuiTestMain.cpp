// Runs tests that show windows, on a display of their own that nobody sees.

#include "support/ChildProcess.h"
#include "support/TemporaryFolder.h"
#include "support/Waiting.h"

#include <glog/logging.h>
#include <gmock/gmock.h>

#include <QtGui/QFont>
#include <QtWidgets/QApplication>

#include <algorithm>
#include <cctype>
#include <stdexcept>
#include <string>

namespace {

using Halvex::Testing::ChildProcess;
using Halvex::Testing::ReadLines;
using Halvex::Testing::TemporaryFolder;
using Halvex::Testing::WaitUntil;

class VirtualDisplay {
public:
    /// The server takes a number that is free, and says which.
    VirtualDisplay() {
        if (!WaitUntil([this] { return !Number().empty(); }))
            throw std::runtime_error("Xvfb does not start");
    }

    std::string Name() const { return ":" + Number(); }

private:
    std::string Number() const {
        for (const std::string& line : ReadLines(m_output)) {
            if (!line.empty() && std::all_of(line.begin(), line.end(), ::isdigit))
                return line;
        }
        return {};
    }

    const TemporaryFolder m_folder;
    const Halvex::ioPath m_output = m_folder / "output";
    const ChildProcess m_server{
        {"/usr/bin/Xvfb", "-displayfd", "1", "-dpi", "96", "-screen", "0", "1024x768x24"},
        m_output};
};

} // namespace

int main(int argc, char** argv) {
    google::InitGoogleLogging(argv[0]);
    FLAGS_logtostderr = true;
    testing::InitGoogleMock(&argc, argv);
    if (testing::GTEST_FLAG(list_tests))
        return RUN_ALL_TESTS();
    const VirtualDisplay display;
    qputenv("DISPLAY", display.Name().c_str());
    // What windows look like does not depend on whose machine this is.
    qputenv("QT_QPA_PLATFORM", "xcb");
    qputenv("QT_SCALE_FACTOR", "1");
    // Not needed here, and both leave memory behind, which the address sanitizer reports.
    qputenv("QT_XCB_GL_INTEGRATION", "none");
    qputenv("DBUS_SESSION_BUS_ADDRESS", "disabled:");
    QApplication::setStyle(QStringLiteral("fusion"));
    QApplication::setDesktopSettingsAware(false);
    const QApplication application(argc, argv);
    QApplication::setFont(QFont(QStringLiteral("DejaVu Sans"), 10));
    return RUN_ALL_TESTS();
}
