#include "FetchProcess.h"
#include "support/NginxServer.h"
#include "support/ScriptedHttpServer.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <numeric>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace Halvex::Testing {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using Clock = std::chrono::steady_clock;

constexpr unsigned short kRows = 24;

/// When a line was written, as far as the one who reads it can tell: a reader that gets no time on
/// a busy machine finds lines all at once that were written one after the other.
struct LineTime {
    /// There was nothing to be read yet.
    Clock::time_point earliest;
    Clock::time_point latest;
};

/// A terminal of a given width that records all that is written to it.
class Terminal {
public:
    explicit Terminal(unsigned short columns) : m_master(::posix_openpt(O_RDWR | O_NOCTTY)) {
        if (m_master < 0 || ::grantpt(m_master) != 0 || ::unlockpt(m_master) != 0)
            throw std::runtime_error("cannot open a terminal");
        const winsize size{kRows, columns, 0, 0};
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

    /// Of each line of the text, once that is complete.
    const std::vector<LineTime>& LineTimes() const { return m_lineTimes; }

private:
    void Read() {
        char buffer[4096];
        ssize_t count = 0;
        do {
            WaitForText();
            count = ::read(m_master, buffer, sizeof(buffer));
            const LineTime time{m_lastEmpty, Clock::now()};
            const std::string_view text(buffer,
                                        static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
            m_text += text;
            m_lineTimes.insert(m_lineTimes.end(),
                               static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')),
                               time);
        } while (count > 0);
    }

    /// Looks again and again, so that it is known to a few milliseconds since when there is text.
    void WaitForText() {
        constexpr int kMilliseconds = 2;
        pollfd master{m_master, POLLIN, 0};
        Clock::time_point before = Clock::now();
        for (int limit = 0; ::poll(&master, 1, limit) == 0; limit = kMilliseconds) {
            m_lastEmpty = before;
            before = Clock::now();
        }
    }

    const int m_master;
    int m_slave = -1;
    std::string m_text;
    std::vector<LineTime> m_lineTimes;
    Clock::time_point m_lastEmpty = Clock::now();
    std::thread m_reader;
};

/// The most lines that were written within any one second without a doubt.
std::size_t MostLinesInASecond(const std::vector<LineTime>& lines) {
    std::size_t most = 0;
    for (auto first = lines.begin(); first != lines.end(); ++first) {
        const auto end = std::find_if(first, lines.end(), [&](const LineTime& line) {
            return line.latest - first->earliest > std::chrono::seconds(1);
        });
        most = std::max(most, static_cast<std::size_t>(end - first));
    }
    return most;
}

/// How many lines each block is said to have when it is drawn again.
std::vector<int> BlockHeights(const std::string& text) {
    const std::regex up("\x1b\\[([0-9]+)A");
    std::vector<int> heights;
    for (std::sregex_iterator it(text.begin(), text.end(), up), end; it != end; ++it)
        heights.push_back(std::stoi((*it)[1]));
    return heights;
}

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
        const auto result = process.Wait();
        status = result.status.value_or(-1);
        std::string text = terminal.Text();
        time = result.time;
        lineTimes = terminal.LineTimes();
        return text;
    }

    /// Three bundles, for some tenths of a second.
    std::string WriteManifest() {
        return WriteManifest({"fonts", "maps", "a name that is rather long"}, 100'000);
    }

    /// Bundles of these names, of one file of that size each.
    std::string WriteManifest(const std::vector<std::string>& names, std::size_t bytes) {
        std::string bundles;
        for (const std::string& name : names) {
            site.Write(name, SomeBytes(bytes));
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
    Clock::duration time{};
    std::vector<LineTime> lineTimes;
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

TEST_F(TerminalTest, DrawsAtMostTenTimesInAnySecond) {
    ScriptedHttpServer slow;
    slow.On("/a", Reply::Ok(SomeBytes(25)).Drip(1, std::chrono::milliseconds(100)));
    const auto lines = VisibleLines(Show(80, {slow.Url("/a")}));
    EXPECT_EQ(status, 0);
    EXPECT_GT(time, std::chrono::seconds(2));
    ASSERT_EQ(lineTimes.size(), lines.size());
    ASSERT_GT(lines.size(), 2U) << "drawn at the beginning and at the end";
    EXPECT_THAT(lines.back(), HasSubstr("downloaded in"));
    // All others are the bundle's only line, each time it was drawn.
    lineTimes.pop_back();
    EXPECT_LE(MostLinesInASecond(lineTimes), 10U);
}

TEST_F(TerminalTest, StaysWithinTheHeightOfTheWindow) {
    std::vector<std::string> names;
    for (int i = 0; i < 200; ++i)
        names.push_back("bundle" + std::to_string(i));
    const std::string text = Show(80, {WriteManifest(names, 10'000)});
    EXPECT_EQ(status, 0);
    const std::vector<int> heights = BlockHeights(text);
    ASSERT_THAT(heights, testing::Not(testing::IsEmpty()));
    EXPECT_THAT(heights, testing::Each(testing::Lt(kRows)));
    // What is erased is what was drawn: the first block, every further one, and the summary.
    EXPECT_EQ(VisibleLines(text).size(),
              static_cast<std::size_t>(std::accumulate(heights.begin(), heights.end(), 0)) +
                  static_cast<std::size_t>(heights.back()) + 1);
}

} // namespace
} // namespace Halvex::Testing
