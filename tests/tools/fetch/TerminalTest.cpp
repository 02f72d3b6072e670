#include "FetchProcess.h"
#include "support/NginxServer.h"
#include "support/ScriptedHttpServer.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace Halvex::Testing {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

/// A terminal of a given width that records all that is written to it.
class Terminal {
public:
    explicit Terminal(unsigned short columns) : m_master(::posix_openpt(O_RDWR | O_NOCTTY)) {
        if (m_master < 0 || ::grantpt(m_master) != 0 || ::unlockpt(m_master) != 0)
            throw std::runtime_error("cannot open a terminal");
        const winsize size{24, columns, 0, 0};
        ::ioctl(m_master, TIOCSWINSZ, &size);
        m_slave = ::open(::ptsname(m_master), O_RDWR | O_NOCTTY | O_CLOEXEC);
        m_reader = std::thread([this] { Read(); });
    }
    ~Terminal() {
        if (m_reader.joinable())
            m_reader.join();
        ::close(m_master);
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    /// The end for the program, which must be closed by everybody before the text is complete.
    int Slave() const { return m_slave; }

    std::string Text() {
        m_reader.join();
        return m_text;
    }

private:
    void Read() {
        char buffer[4096];
        ssize_t count = 0;
        while ((count = ::read(m_master, buffer, sizeof(buffer))) > 0)
            m_text.append(buffer, static_cast<std::size_t>(count));
    }

    const int m_master;
    int m_slave = -1;
    std::string m_text;
    std::thread m_reader;
};

std::vector<std::string> VisibleLines(const std::string& text) {
    std::istringstream stream(std::regex_replace(text, std::regex("\x1b\\[[0-9]*[A-Z]|\r"), ""));
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

class TerminalTest : public testing::Test {
protected:
    /// All that appears on a terminal of so many columns.
    std::string Show(unsigned short columns, const std::vector<std::string>& arguments) {
        Terminal terminal(columns);
        FetchProcess::Setup setup;
        setup.arguments = {"-o", output.Path()};
        setup.arguments.insert(setup.arguments.end(), arguments.begin(), arguments.end());
        setup.terminal = terminal.Slave();
        FetchProcess process(setup);
        status = process.Wait().status.value_or(-1);
        return terminal.Text();
    }

    /// Three bundles of one file each, for some tenths of a second.
    std::string WriteManifest() {
        std::string bundles;
        for (const char* name : {"fonts", "maps", "a name that is rather long"}) {
            site.Write(name, SomeBytes(100'000));
            bundles += std::string(bundles.empty() ? "" : ",") + "{\"name\": \"" + name +
                       "\", \"files\": [{\"path\": \"" + name + "\"}]}";
        }
        return output
            .Write("m.json",
                   "{\"baseUrl\": \"" + server.Url("/") + "\", \"bundles\": [" + bundles + "]}")
            .string();
    }

    TemporaryFolder site;
    TemporaryFolder output;
    NginxServer server{ioPath(site.Path()), "limit_rate 200k;"};
    int status = -1;
};

TEST_F(TerminalTest, ShowsALineForEachBundleAndASummary) {
    const auto lines = VisibleLines(Show(80, {WriteManifest()}));
    EXPECT_EQ(status, 0);
    ASSERT_GE(lines.size(), 4U);
    const auto last = lines.end();
    EXPECT_THAT(last[-4], MatchesRegex("fonts  +1/1 \\[#+\\] 100% .*/s    done"));
    EXPECT_THAT(last[-3], MatchesRegex("maps  +1/1 \\[#+\\] 100% .*/s    done"));
    EXPECT_THAT(last[-2], MatchesRegex("a name that is rather long +1/1 .*100% .*/s    done"));
    EXPECT_THAT(last[-1], MatchesRegex("3 files available; 293 KiB downloaded in .* s"));
}

TEST_F(TerminalTest, DrawsTheLinesAgainInPlace) {
    const std::string text = Show(80, {WriteManifest()});
    EXPECT_THAT(text, HasSubstr("\x1b[3A\r\x1b[J"));
}

TEST_F(TerminalTest, StaysWithinFortyColumns) {
    for (const std::string& line : VisibleLines(Show(40, {WriteManifest()}))) {
        if (line.find("downloaded in") == std::string::npos) {
            EXPECT_LT(line.size(), 40U) << line;
        }
    }
    EXPECT_EQ(status, 0);
}

TEST_F(TerminalTest, SurvivesATinyWindow) {
    const auto lines = VisibleLines(Show(1, {WriteManifest()}));
    EXPECT_EQ(status, 0);
    EXPECT_THAT(lines.back(), HasSubstr("3 files available"));
}

TEST_F(TerminalTest, KeepsErrorsAboveTheBars) {
    site.Write("a", SomeBytes(100'000));
    const auto lines = VisibleLines(Show(80, {server.Url("/missing"), server.Url("/a")}));
    EXPECT_EQ(status, 1);
    const auto error = std::find_if(lines.begin(), lines.end(), [](const std::string& line) {
        return line.find(" failed with error=") != std::string::npos;
    });
    ASSERT_NE(error, lines.end());
    EXPECT_THAT(*error, testing::StartsWith("E")) << "a line of its own";
    EXPECT_THAT(lines.back(), HasSubstr("1 file available, 1 failed"));
}

TEST_F(TerminalTest, TakesTheBarsAwayBeforeAnError) {
    ScriptedHttpServer slow;
    slow.On("/missing", Reply::Status(404, "0123456789").Drip(1, std::chrono::milliseconds(50)));
    EXPECT_THAT(Show(80, {slow.Url("/missing")}), HasSubstr("\x1b[1A\r\x1b[JE"));
}

TEST_F(TerminalTest, ShowsLinesWhenPlainIsAskedFor) {
    site.Write("a", "content");
    const std::string text = Show(80, {"--progress", "plain", server.Url("/a")});
    EXPECT_THAT(VisibleLines(text).front(), "1/1 a available");
    EXPECT_THAT(text, testing::Not(HasSubstr("\x1b[")));
}

} // namespace
} // namespace Halvex::Testing
