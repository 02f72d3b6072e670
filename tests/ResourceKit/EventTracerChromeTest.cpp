#include "ResourceKit/EventTracerChrome.h"

#include "HeldWrites.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "ResourceKit/Testing/ScriptedDownloader.h"
#include "integration/Application.h"
#include "support/ChildProcess.h"
#include "support/FileSizeLimit.h"
#include "support/LogCapture.h"
#include "support/Sanitizers.h"
#include "support/SleepingThreads.h"
#include "support/SmallFileSystem.h"
#include "support/TemporaryFolder.h"
#include "support/ThreadStarts.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

namespace Halvex::Kit {
namespace {

using App::IEventTracer;
using App::IRemoteResource;
using App::ResourceDescriptor;
using Event = IEventTracer::Event;
using testing::ElementsAre;
using Testing::FileSizeLimit;
using testing::HasSubstr;
using Testing::HeldWrites;
using testing::IsEmpty;
using Testing::LimitedThreadStarts;
using Testing::LogCapture;
using Testing::ReadFile;
using Testing::ScriptedDownload;
using Testing::ScriptedDownloader;
using Testing::SmallFileSystem;
using Testing::TemporaryFolder;
using Testing::WaitUntil;

constexpr std::size_t kPageBytes = 4096;

std::string ToText(const QJsonValue& value) {
    return value.toString().toStdString();
}

/// One event of a trace, as one who shows it reads it.
struct Shown {
    std::string phase;
    std::string name;
    double time = 0;
    int row = 0;
    int process = 0;
    QJsonObject arguments;

    std::string Argument(const char* key) const { return ToText(arguments[QLatin1String(key)]); }
    int Number(const char* key) const { return arguments[QLatin1String(key)].toInt(); }
    /// "B Check"
    std::string Step() const { return phase + ' ' + name; }
};

/// A document as the JSON standard has it: strict. Nothing: it is none.
std::optional<std::vector<Shown>> Parse(const std::string& json) {
    QJsonParseError error{};
    const QJsonDocument document =
        QJsonDocument::fromJson(QByteArray(json.data(), static_cast<int>(json.size())), &error);
    if (error.error != QJsonParseError::NoError || !document.isArray())
        return std::nullopt;
    std::vector<Shown> events;
    for (const auto& value : document.array()) {
        const QJsonObject event = value.toObject();
        events.push_back({ToText(event[QLatin1String("ph")]), ToText(event[QLatin1String("name")]),
                          event[QLatin1String("ts")].toDouble(),
                          event[QLatin1String("tid")].toInt(), event[QLatin1String("pid")].toInt(),
                          event[QLatin1String("args")].toObject()});
    }
    return events;
}

class EventTracerChromeTest : public testing::Test {
protected:
    EventTracerChromeTest() {
        m_descriptor.idPrefix = "fonts";
        m_descriptor.idSuffix = "serif";
    }

    EventTracerChrome& Tracer() { return *m_tracer; }

    /// All that is in the file once the tracer is gone.
    std::vector<Shown> All() {
        m_tracer.reset();
        const std::string json = ReadFile(m_path);
        const auto events = Parse(json);
        EXPECT_TRUE(events) << json.substr(0, 10'000);
        return events.value_or(std::vector<Shown>{});
    }

    /// Without what names the process and the rows.
    std::vector<Shown> Events() {
        std::vector<Shown> events = All();
        events.erase(std::remove_if(events.begin(), events.end(),
                                    [](const Shown& event) { return event.phase == "M"; }),
                     events.end());
        return events;
    }

    /// How one record is shown.
    Shown ShownAs(Event event, const IEventTracer::TraceRecord& record) {
        m_tracer = std::make_unique<EventTracerChrome>(m_path);
        m_tracer->Trace(event, record);
        const std::vector<Shown> events = Events();
        EXPECT_EQ(events.size(), 1U);
        return events.empty() ? Shown{} : events[0];
    }

    std::vector<std::string> Steps() {
        std::vector<std::string> steps;
        for (const Shown& event : Events())
            steps.push_back(event.Step());
        return steps;
    }

    static void TraceOnAnotherThread(const IEventTracer& tracer) {
        std::thread([&] { tracer.Trace(Event::CheckScheduled, {}); }).join();
    }

    const TemporaryFolder m_folder;
    const ioPath m_path = m_folder / "trace.json";
    ResourceDescriptor m_descriptor;
    std::unique_ptr<EventTracerChrome> m_tracer = std::make_unique<EventTracerChrome>(m_path);
};

// What is shown

TEST_F(EventTracerChromeTest, IsADocumentThatNamesTheProcessFromTheBeginning) {
    const auto events = Parse(ReadFile(m_path));
    ASSERT_TRUE(events);
    ASSERT_EQ(events->size(), 1U);
    EXPECT_EQ(events->front().Step(), "M process_name");
    EXPECT_EQ(events->front().process, ::getpid());
    EXPECT_EQ(events->front().Argument("name"), ::program_invocation_short_name);
    EXPECT_TRUE(Tracer().IsWriting());
}

TEST_F(EventTracerChromeTest, ShowsWhatEndsAsABarAndAllElseAsAMark) {
    for (int event = -1; event <= 11; ++event)
        Tracer().Trace(static_cast<Event>(event), {});
    EXPECT_THAT(Steps(),
                ElementsAre("i ?", "i CheckScheduled", "B Check", "E Check", "i ValidatorCheck",
                            "i RegisterValidator", "B StatusNotification", "E StatusNotification",
                            "B ProgressNotification", "E ProgressNotification", "B Download",
                            "E Download", "i ?"));
}

TEST_F(EventTracerChromeTest, ShowsFreeTextAsAMark) {
    Tracer().TraceString("the user has \"clicked\"");
    Tracer().TraceString("");
    EXPECT_THAT(Steps(), ElementsAre("i the user has \"clicked\"", "i "));
}

TEST_F(EventTracerChromeTest, TellsWhatTheRecordHas) {
    const IRemoteResource::State state{IRemoteResource::DownloadStatus::Error,
                                       IRemoteResource::DownloadError::InternetConnectionLost, 0.5};
    const ResourceDescriptor other;
    const App::ResourceDescriptorBundle bundle{{&m_descriptor}};
    const Shown shown = ShownAs(Event::Check, {&m_descriptor, &bundle, &state, "some text"});
    EXPECT_EQ(shown.Argument("resource"), "fonts/serif");
    EXPECT_EQ(shown.Argument("bundle"), "fonts/serif, ..(0 more)");
    EXPECT_EQ(shown.Argument("status"), "Error");
    EXPECT_EQ(shown.Argument("error"), "InternetConnectionLost");
    EXPECT_EQ(shown.Number("percent"), 50);
    EXPECT_EQ(shown.Argument("text"), "some text");
    EXPECT_EQ(shown.Number("thread"), Testing::ThisThread());
    EXPECT_EQ(shown.process, ::getpid());
}

TEST_F(EventTracerChromeTest, LeavesOutWhatTheRecordHasNot) {
    EXPECT_EQ(ShownAs(Event::Check, {}).arguments.keys(), QStringList{QLatin1String("thread")});
    EXPECT_EQ(ShownAs(Event::CheckEnd, {}).arguments,
              (QJsonObject{{QLatin1String("end"), QJsonObject{}}}));
}

TEST_F(EventTracerChromeTest, TellsApartWhatIsKnownAtTheEnd) {
    const Shown shown =
        ShownAs(Event::DownloadEnd, {&m_descriptor, nullptr, nullptr, "err:NoError"});
    EXPECT_EQ(shown.arguments,
              (QJsonObject{{QLatin1String("end"),
                            QJsonObject{{QLatin1String("resource"), QLatin1String("fonts/serif")},
                                        {QLatin1String("text"), QLatin1String("err:NoError")}}}}));
}

TEST_F(EventTracerChromeTest, NamesABundleByItsFirstResourceAndTheNumberOfTheOthers) {
    std::vector<ResourceDescriptor> descriptors(3, m_descriptor);
    App::ResourceDescriptorBundle bundle;
    EXPECT_EQ(ShownAs(Event::Check, {nullptr, &bundle, nullptr, {}}).Argument("bundle"), "(empty)");
    for (const ResourceDescriptor& descriptor : descriptors)
        bundle.descriptors.insert(&descriptor);
    EXPECT_EQ(ShownAs(Event::Check, {nullptr, &bundle, nullptr, {}}).Argument("bundle"),
              "fonts/serif, ..(2 more)");
}

TEST_F(EventTracerChromeTest, StaysADocumentWhateverTheTexts) {
    const std::string every = [] {
        std::string text;
        for (char c = 0; c >= 0 && c < 0x7f; ++c)
            text += c;
        return text;
    }();
    EXPECT_EQ(ShownAs(Event::Check, {nullptr, nullptr, nullptr, every}).Argument("text"), every);

    const std::string umlaut = "\xc3\xbc \xe2\x82\xac \xf0\x9f\x98\x80";
    EXPECT_EQ(ShownAs(Event::Check, {nullptr, nullptr, nullptr, umlaut}).Argument("text"), umlaut);

    m_descriptor.idSuffix = "\xff\"\xc3(";
    EXPECT_EQ(ShownAs(Event::Check, {&m_descriptor, nullptr, nullptr, {}}).Argument("resource"),
              "fonts/\xef\xbf\xbd\"\xef\xbf\xbd(");
}

TEST_F(EventTracerChromeTest, StaysADocumentWhenProgressIsNotANumber) {
    for (const double progress :
         {std::nan(""), std::numeric_limits<double>::infinity(), -1e300, 1e300}) {
        const IRemoteResource::State state{IRemoteResource::DownloadStatus::Dowloading,
                                           IRemoteResource::DownloadError::NoError, progress};
        const Shown shown = ShownAs(Event::Check, {nullptr, nullptr, &state, {}});
        EXPECT_EQ(shown.Number("percent"), state.GetPercentage());
    }
}

TEST_F(EventTracerChromeTest, CountsMicroseconds) {
    const auto now = [] {
        return std::chrono::duration<double, std::micro>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
    };
    const double beforeFirst = now();
    Tracer().TraceString("first");
    const double afterFirst = now();
    for (int i = 0; i < 1000; ++i)
        Tracer().TraceString("");
    const double beforeLast = now();
    Tracer().TraceString("last");
    const double afterLast = now();
    const std::vector<Shown> events = Events();
    ASSERT_EQ(events.size(), 1002U);
    const double time = events.back().time - events.front().time;
    // A thousandth for the digits that are cut off.
    EXPECT_GE(time, beforeLast - afterFirst - 0.002);
    EXPECT_LE(time, afterLast - beforeFirst + 0.002);
    EXPECT_TRUE(std::is_sorted(events.begin(), events.end(),
                               [](const Shown& a, const Shown& b) { return a.time < b.time; }));
}

// Rows

TEST_F(EventTracerChromeTest, GivesEachThreadARowOfItsOwnWithAName) {
    constexpr int kThreads = 4;
    Testing::Event mayEnd;
    std::atomic<int> traced{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            Tracer().Trace(Event::Check, {});
            ++traced;
            mayEnd.Wait();
            Tracer().Trace(Event::CheckEnd, {});
        });
    }
    EXPECT_TRUE(WaitUntil([&] { return traced == kThreads; }));
    mayEnd.Set();
    for (std::thread& thread : threads)
        thread.join();

    std::map<int, std::vector<std::string>> rows;
    std::map<int, std::string> names;
    for (const Shown& event : All()) {
        if (event.phase != "M") {
            rows[event.row].push_back(event.Step());
        } else if (event.name == "thread_name") {
            EXPECT_TRUE(names.emplace(event.row, event.Argument("name")).second);
        }
    }
    EXPECT_EQ(rows.size(), std::size_t{kThreads});
    for (const auto& [row, steps] : rows) {
        EXPECT_THAT(steps, ElementsAre("B Check", "E Check"));
        EXPECT_EQ(names[row], "thread " + std::to_string(row));
    }
}

TEST_F(EventTracerChromeTest, GivesTheRowOfAThreadThatHasEndedToTheNextOne) {
    for (int i = 0; i < 20; ++i)
        TraceOnAnotherThread(Tracer());
    std::set<int> rows;
    std::set<int> threads;
    for (const Shown& event : Events()) {
        rows.insert(event.row);
        threads.insert(event.Number("thread"));
    }
    EXPECT_EQ(rows.size(), 1U);
    EXPECT_GT(threads.size(), 1U);
}

TEST_F(EventTracerChromeTest, KeepsTwoTracersOfOneThreadApart) {
    {
        EventTracerChrome other(m_folder / "other.json");
        Tracer().TraceString("ours");
        other.TraceString("theirs");
        Tracer().TraceString("ours");
    }
    EXPECT_THAT(Steps(), ElementsAre("i ours", "i ours"));
    const auto events = Parse(ReadFile(m_folder / "other.json"));
    ASSERT_TRUE(events);
    EXPECT_EQ(events->back().Step(), "i theirs");
}

TEST_F(EventTracerChromeTest, LosesNothingOfManyThreads) {
    constexpr int kThreads = 8;
    constexpr int kSteps = 500;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (int step = 0; step < kSteps; ++step) {
                Tracer().Trace(Event::Check, {&m_descriptor, nullptr, nullptr, {}});
                Tracer().Trace(Event::Download, {nullptr, nullptr, nullptr, "path"});
                Tracer().Trace(Event::DownloadEnd, {nullptr, nullptr, nullptr, "path"});
                Tracer().Trace(Event::CheckEnd, {&m_descriptor, nullptr, nullptr, {}});
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    const std::vector<Shown> events = Events();
    EXPECT_EQ(events.size(), std::size_t{4} * kThreads * kSteps);
    // Each row for itself in the order of its time, and properly nested.
    std::map<int, std::vector<std::string>> open;
    std::map<int, double> times;
    for (const Shown& event : events) {
        EXPECT_GE(event.time, times[event.row]);
        times[event.row] = event.time;
        std::vector<std::string>& steps = open[event.row];
        if (event.phase == "B") {
            steps.push_back(event.name);
        } else {
            ASSERT_FALSE(steps.empty());
            EXPECT_EQ(steps.back(), event.name);
            steps.pop_back();
        }
    }
    for (const auto& [row, steps] : open)
        EXPECT_THAT(steps, IsEmpty()) << row;
}

TEST_F(EventTracerChromeTest, ShowsWhatAManagerDoes) {
    {
        Testing::Application::Params params;
        params.useParallelExecutor = true;
        params.threadCount = 2;
        Testing::Application::Dependencies dependencies;
        dependencies.eventTracer = std::shared_ptr<IEventTracer>(std::move(m_tracer));
        const auto downloader = std::make_shared<ScriptedDownloader>();
        downloader->OnOthers(ScriptedDownload::Complete("content"));
        downloader->On("missing", ScriptedDownload::Fail());
        dependencies.resourceDownloader = downloader;
        Testing::Application application(params, dependencies);
        std::set<const ResourceDescriptor*> files;
        for (int i = 0; i < 20; ++i)
            files.insert(&application.AddFile("http://127.0.0.1/", std::to_string(i)));
        application.Schedule(files);
        application.manager.ProcessCurrentQueue();
        // Each retry comes with new threads.
        application.Schedule({&application.AddFile("http://127.0.0.1/", "missing")});
        application.manager.ProcessCurrentQueue();
    }
    std::map<std::string, int> steps;
    std::set<int> rows;
    for (const Shown& event : Events()) {
        ++steps[event.Step()];
        rows.insert(event.row);
    }
    EXPECT_EQ(steps["i CheckScheduled"], 22);
    EXPECT_EQ(steps["B Check"], 22);
    EXPECT_EQ(steps["E Check"], 22);
    EXPECT_EQ(steps["B Download"], 22);
    EXPECT_EQ(steps["E Download"], 22);
    // The workers', and this thread's.
    EXPECT_LE(rows.size(), 3U);
}

// The file

TEST_F(EventTracerChromeTest, ReplacesAnOlderFile) {
    m_tracer.reset();
    m_folder.Write("trace.json", std::string(100'000, 'x'));
    m_tracer = std::make_unique<EventTracerChrome>(m_path);
    EXPECT_THAT(Steps(), IsEmpty());
}

TEST_F(EventTracerChromeTest, WritesWithoutBeingAskedTo) {
    Tracer().TraceString("first");
    EXPECT_TRUE(WaitUntil([&] {
        const auto events = Parse(ReadFile(m_path));
        return events && events->back().name == "first";
    }));
    Tracer().TraceString("second");
    EXPECT_TRUE(WaitUntil([&] {
        const auto events = Parse(ReadFile(m_path));
        return events && events->back().name == "second";
    }));
}

TEST_F(EventTracerChromeTest, LetsNoEventCrossAPageIfItFitsIntoOne) {
    for (std::size_t size = 0; size < 4000; size += 7)
        Tracer().TraceString(std::string(size, 'x'));
    EXPECT_EQ(Steps().size(), 572U);
    const std::string json = ReadFile(m_path);
    std::size_t crossings = 0;
    for (std::size_t begin = json.find('{'); begin != std::string::npos;) {
        const std::size_t next = json.find("\n{", begin);
        const std::size_t end = json.rfind('}', next);
        crossings += begin / kPageBytes != end / kPageBytes;
        begin = next == std::string::npos ? next : next + 1;
    }
    EXPECT_EQ(crossings, 0U);
}

TEST_F(EventTracerChromeTest, WritesWhatFitsIntoNoPage) {
    const std::string text(10'000, 'x');
    for (int i = 0; i < 10; ++i)
        Tracer().TraceString(text);
    EXPECT_EQ(Steps(), std::vector<std::string>(10, "i " + text));
}

TEST_F(EventTracerChromeTest, SaysWhereSomethingIsMissingThatWasTooMuch) {
    Tracer().TraceString("before");
    Tracer().TraceString(std::string(64 * 1024 * 1024, 'x'));
    Tracer().TraceString("after");
    EXPECT_THAT(Steps(), ElementsAre("i before", "i events missing here: 1", "i after"));
}

TEST_F(EventTracerChromeTest, SaysAtTheEndThatSomethingIsMissingThere) {
    Tracer().TraceString("before");
    Tracer().TraceString(std::string(64 * 1024 * 1024, 'x'));
    EXPECT_THAT(Steps(), ElementsAre("i before", "i events missing here: 1"));
}

TEST_F(EventTracerChromeTest, SaysSoAtTheEndHoweverMuchIsStillToBeWritten) {
    constexpr std::size_t kMostPendingBytes = 64 * 1024 * 1024;
    constexpr int kMore = 200;
    HeldWrites held;
    Tracer().TraceString("before");
    EXPECT_TRUE(held.WaitForOne());
    // Leaves room for some of the events that follow, and then not even for one.
    Tracer().TraceString(std::string(kMostPendingBytes - 2 * kPageBytes, 'x'));
    for (int i = 0; i < kMore; ++i)
        Tracer().TraceString("");
    std::atomic<pid_t> ending{0};
    std::thread end([&] {
        ending = Testing::ThisThread();
        m_tracer.reset();
    });
    EXPECT_TRUE(WaitUntil([&] { return ending != 0 && Testing::AllSleep({ending}); }));
    held.Release();
    end.join();
    const std::string json = ReadFile(m_path);
    const auto events = Parse('[' + json.substr(json.find(",\n", json.rfind("xx")) + 1));
    ASSERT_TRUE(events);
    const auto shown = std::count_if(events->begin(), events->end(),
                                     [](const Shown& event) { return event.Step() == "i "; });
    ASSERT_GT(shown, 0);
    EXPECT_EQ(events->back().name, "events missing here: " + std::to_string(kMore - shown));
}

// After a crash

/// A process that traces, and is killed.
class EventTracerChromeCrashTest : public EventTracerChromeTest {
protected:
    EventTracerChromeCrashTest() { m_tracer.reset(); }

    void Start(int threads, int steps) {
        m_program = std::make_unique<Testing::ChildProcess>(
            std::vector<std::string>{HALVEX_TRACED_PROGRAM, m_path.string(),
                                     std::to_string(threads), std::to_string(steps)},
            m_folder / "output");
    }

    /// Without a chance to write anything more.
    void Kill() { m_program.reset(); }

    std::string Content() const {
        std::ifstream file(m_path.string(), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    std::unique_ptr<Testing::ChildProcess> m_program;
};

TEST_F(EventTracerChromeCrashTest, LeavesAllEventsThatAreATenthOfASecondOld) {
    Start(1, 100);
    EXPECT_TRUE(WaitUntil([&] {
        const auto events = Parse(Content());
        return events && events->size() == 2 + 200;
    }));
    Kill();
    const auto events = Parse(Content());
    ASSERT_TRUE(events);
    ASSERT_EQ(events->size(), 202U);
    EXPECT_EQ((*events)[200].Argument("text"), "99");
    EXPECT_EQ(events->back().Step(), "E Check");
}

TEST_F(EventTracerChromeCrashTest, LeavesWholeEventsWheneverItIs) {
    int whole = 0;
    for (std::uintmax_t round = 0; round < 10; ++round) {
        std::filesystem::remove(m_path.string());
        Start(2, 50'000);
        const std::uintmax_t size = 1 + round * 100'000;
        EXPECT_TRUE(WaitUntil([&] {
            std::error_code error;
            const std::uintmax_t current = std::filesystem::file_size(m_path.string(), error);
            return !error && current >= size;
        }));
        Kill();
        const std::string content = Content();
        auto events = Parse(content);
        whole += events.has_value();
        // Killed within a write, it lacks the closing bracket at most.
        if (!events)
            events = Parse(content + "]");
        ASSERT_TRUE(events) << content.substr(content.size() - 1000);
        std::map<int, int> steps;
        for (const Shown& event : *events) {
            if (event.phase == "B") {
                EXPECT_EQ(event.Argument("text"), std::to_string(steps[event.Number("thread")]++));
            }
        }
    }
    EXPECT_GT(whole, 0);
}

// Failures

TEST_F(EventTracerChromeTest, SaysOnceThatTheFileCannotBeMade) {
    const LogCapture log;
    const std::string path = (m_folder / "missing/trace.json").string();
    {
        const EventTracerChrome tracer(path);
        EXPECT_FALSE(tracer.IsWriting());
        tracer.Trace(Event::Check, {&m_descriptor, nullptr, nullptr, {}});
        tracer.TraceString("text");
    }
    EXPECT_THAT(log.Errors(), ElementsAre("tracing ends, failed to write file=" + path +
                                          ", errno=2 (No such file or directory)"));
    EXPECT_EQ(log.Lines().size(), 1U);
}

TEST_F(EventTracerChromeTest, SaysOnceThatTheFileTakesNothing) {
    const LogCapture log;
    {
        const EventTracerChrome tracer("/dev/full");
        EXPECT_FALSE(tracer.IsWriting());
        tracer.TraceString("text");
    }
    EXPECT_THAT(log.Errors(), ElementsAre("tracing ends, failed to write file=/dev/full, errno=28 "
                                          "(No space left on device)"));
}

TEST_F(EventTracerChromeTest, SaysOnceThatItsThreadCannotBeStarted) {
    const std::string path = (m_folder / "other.json").string();
    const LogCapture log;
    {
        const LimitedThreadStarts limit(0);
        const EventTracerChrome tracer(path);
        EXPECT_FALSE(tracer.IsWriting());
        tracer.TraceString("text");
    }
    EXPECT_THAT(log.Errors(), ElementsAre("tracing ends, failed to write file=" + path +
                                          ", errno=11 (Resource temporarily unavailable)"));
    EXPECT_TRUE(Parse(ReadFile(path)));
}

/// A tracer that has written something before there is no more room.
class EventTracerChromeWithoutRoomTest : public EventTracerChromeTest {
protected:
    void TraceUntilTheEnd() {
        const auto trace = [this] {
            Tracer().TraceString("0123456789");
        };
        for (int i = 0; i < kWritten; ++i)
            trace();
        Tracer().TraceString("last");
        EXPECT_TRUE(WaitUntil([&] {
            const auto events = Parse(ReadFile(m_path));
            return events && events->back().name == "last";
        }));
        EXPECT_TRUE(WaitUntil([&] {
            trace();
            return !Tracer().IsWriting();
        }));
        trace();
    }

    static constexpr int kWritten = 100;
};

TEST_F(EventTracerChromeWithoutRoomTest, KeepsWhatCouldBeWritten) {
    constexpr std::size_t kLimit = 200'000;
    const LogCapture log;
    {
        const FileSizeLimit limit(kLimit);
        TraceUntilTheEnd();
        EXPECT_GE(Events().size(), std::size_t{kWritten});
    }
    EXPECT_LE(ReadFile(m_path).size(), kLimit);
    EXPECT_THAT(log.Errors(), ElementsAre("tracing ends, failed to write file=" + m_path.string() +
                                          ", errno=27 (File too large)"));
}

TEST_F(EventTracerChromeWithoutRoomTest, KeepsWhatHasFoundRoomOnAFullDisk) {
    if (!SmallFileSystem::IsAllowed())
        GTEST_SKIP() << "this process may not mount a file system";
    m_tracer.reset();
    const SmallFileSystem disk(m_folder.Path(), 64 * kPageBytes);
    const LogCapture log;
    m_tracer = std::make_unique<EventTracerChrome>(m_path);
    TraceUntilTheEnd();
    EXPECT_GE(Events().size(), std::size_t{kWritten});
    EXPECT_THAT(log.Errors(), ElementsAre("tracing ends, failed to write file=" + m_path.string() +
                                          ", errno=28 (No space left on device)"));
}

// Cost

TEST_F(EventTracerChromeTest, CostsLittle) {
    if (Testing::kSanitized)
        GTEST_SKIP() << "a sanitizer costs more";
    constexpr int kEvents = 20'000;
    const IRemoteResource::State state;
    // Of all threads: the one that writes is part of the price.
    const auto seconds = [] {
        timespec time{};
        ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
    };
    const double before = seconds();
    for (int i = 0; i < kEvents; ++i)
        Tracer().Trace(Event::Check, {&m_descriptor, nullptr, &state, {}});
    m_tracer.reset();
    const double perEvent = (seconds() - before) / kEvents;
    // Less than a microsecond each, on a machine that may be five times slower.
    EXPECT_LT(perEvent, 5e-6);
    EXPECT_EQ(Events().size(), std::size_t{kEvents});
}

} // namespace
} // namespace Halvex::Kit
