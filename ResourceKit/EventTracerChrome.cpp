#include "ResourceKit/EventTracerChrome.h"

#include "Foundation/Mutex.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "ResourceKit/TraceFile.h"

#include <QtCore/QString>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <iterator>
#include <vector>

#include <unistd.h>

namespace Halvex::Kit {

namespace {

using Clock = std::chrono::steady_clock;
using Event = App::IEventTracer::Event;
using App::IRemoteResource;

/// How an event is shown. The phase is the format's: B begins a bar, E ends it, i is a mark.
struct Look {
    const char* name;
    char phase;
};

Look LookOf(Event event) {
    switch (event) {
    case Event::CheckScheduled:
        return {"CheckScheduled", 'i'};
    case Event::Check:
        return {"Check", 'B'};
    case Event::CheckEnd:
        return {"Check", 'E'};
    case Event::ValidatorCheck:
        return {"ValidatorCheck", 'i'};
    case Event::RegisterValidator:
        return {"RegisterValidator", 'i'};
    case Event::StatusNotification:
        return {"StatusNotification", 'B'};
    case Event::StatusNotificationEnd:
        return {"StatusNotification", 'E'};
    case Event::ProgressNotification:
        return {"ProgressNotification", 'B'};
    case Event::ProgressNotificationEnd:
        return {"ProgressNotification", 'E'};
    case Event::Download:
        return {"Download", 'B'};
    case Event::DownloadEnd:
        return {"Download", 'E'};
    }
    return {"?", 'i'};
}

/// The rows of the picture: numbers from 1 on, each taken by one living thread of the process.
class Rows {
public:
    int Take() {
        const MutexLock lock(m_mutex);
        const auto free = std::find(m_taken.begin(), m_taken.end(), false);
        const auto index = free - m_taken.begin();
        if (free == m_taken.end())
            m_taken.push_back(true);
        else
            *free = true;
        return static_cast<int>(index) + 1;
    }

    void GiveBack(int row) {
        const MutexLock lock(m_mutex);
        m_taken[static_cast<std::size_t>(row) - 1] = false;
    }

private:
    Mutex m_mutex;
    std::vector<bool> m_taken HALVEX_GUARDED_BY(m_mutex);
};

Rows& AllRows() {
    // Never destroyed: a thread may end after main has.
    static Rows& rows = *new Rows;
    return rows;
}

/// What is known of a thread for as long as it lives.
struct ThisThread {
    ThisThread() = default;
    ~ThisThread() { AllRows().GiveBack(row); }

    ThisThread(const ThisThread&) = delete;
    ThisThread& operator=(const ThisThread&) = delete;

    const int row = AllRows().Take();
    const std::int64_t number = ::gettid();
};

const ThisThread& CurrentThread() {
    thread_local const ThisThread thread;
    return thread;
}

// JSON

void AppendNumber(std::string& json, std::int64_t number) {
    char digits[24];
    json.append(digits, std::to_chars(std::begin(digits), std::end(digits), number).ptr);
}

void AppendQuoted(std::string& json, const std::string& utf8) {
    constexpr char kDigits[] = "0123456789abcdef";
    json += '"';
    for (const char character : utf8) {
        const auto code = static_cast<unsigned char>(character);
        if (code < ' ') {
            json.append("\\u00").append(1, kDigits[code / 16]).append(1, kDigits[code % 16]);
            continue;
        }
        if (character == '"' || character == '\\')
            json += '\\';
        json += character;
    }
    json += '"';
}

void AppendText(std::string& json, const std::string& text) {
    constexpr unsigned char kFirstBeyondAscii = 0x80;
    if (std::all_of(text.begin(), text.end(),
                    [](char c) { return static_cast<unsigned char>(c) < kFirstBeyondAscii; }))
        AppendQuoted(json, text);
    else // There and back, what is no UTF-8 becomes U+FFFD.
        AppendQuoted(json, QString::fromStdString(text).toStdString());
}

/// A member of an object, and the comma behind it.
void AppendMember(std::string& json, const char* name, const std::string& text) {
    json.append(1, '"').append(name).append("\":");
    AppendText(json, text);
    json += ',';
}

void AppendMember(std::string& json, const char* name, std::int64_t number) {
    json.append(1, '"').append(name).append("\":");
    AppendNumber(json, number);
    json += ',';
}

/// Ends an object, with the comma behind its last member if it has one.
void EndObject(std::string& json) {
    if (json.back() == ',')
        json.back() = '}';
    else
        json += '}';
}

std::string IdOf(const App::ResourceDescriptor& descriptor) {
    return descriptor.idPrefix + '/' + descriptor.idSuffix;
}

std::string IdOf(const App::ResourceDescriptorBundle& bundle) {
    const auto& descriptors = bundle.descriptors;
    if (descriptors.empty())
        return "(empty)";
    return IdOf(**descriptors.begin()) + ", ..(" + std::to_string(descriptors.size() - 1) +
           " more)";
}

void AppendRecord(std::string& json, const App::IEventTracer::TraceRecord& record) {
    if (record.descriptor != nullptr)
        AppendMember(json, "resource", IdOf(*record.descriptor));
    if (record.bundle != nullptr)
        AppendMember(json, "bundle", IdOf(*record.bundle));
    if (record.state != nullptr) {
        AppendMember(json, "status", IRemoteResource::StatusToString(record.state->status));
        AppendMember(json, "error", IRemoteResource::ErrorToString(record.state->error));
        // In percent, as the fraction need not be a number.
        AppendMember(json, "percent", record.state->GetPercentage());
    }
    if (!record.text.empty())
        AppendMember(json, "text", record.text);
}

/// Says something about the process or about a row.
std::string Metadata(const char* what, int row, const std::string& value) {
    std::string json = R"({"ph":"M",)";
    AppendMember(json, "name", what);
    AppendMember(json, "pid", ::getpid());
    AppendMember(json, "tid", row);
    json += R"("args":{)";
    AppendMember(json, "name", value);
    EndObject(json);
    EndObject(json);
    return json;
}

} // namespace

struct HALVEX_HIDDEN EventTracerChrome::Impl {
    explicit Impl(const App::ioPath& path)
        : file(path, Metadata("process_name", 0, ::program_invocation_short_name)) {}

    /// An event up to its arguments, the first of which is the thread.
    std::string Begin(const std::string& name, char phase) {
        // Before the time is taken: a new thread may get the row of one that traced meanwhile.
        const ThisThread& thread = CurrentThread();
        const std::int64_t nanoseconds =
            std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count();
        NameRows(thread.row);
        std::string json;
        json.reserve(kCommonBytes);
        json.append(R"({"ph":")").append(1, phase).append(R"(",)");
        if (phase == 'i')
            json.append(R"("s":"t",)");
        AppendMember(json, "name", name);
        AppendTime(json, nanoseconds);
        AppendMember(json, "pid", process);
        AppendMember(json, "tid", thread.row);
        json += R"("args":{)";
        if (phase == 'E')
            json += R"("end":{)";
        else
            AppendMember(json, "thread", thread.number);
        return json;
    }

    ~Impl() {
        if (lost != 0)
            file.AddLast(MarkOfLost(lost));
    }

    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    std::string Mark(const std::string& name) {
        std::string json = Begin(name, 'i');
        EndObject(json);
        EndObject(json);
        return json;
    }

    void Add(const std::string& json) {
        TellLost();
        if (!file.Add(json))
            ++lost;
    }

    /// As soon as there is room for that.
    void TellLost() {
        if (lost == 0)
            return;
        const std::int64_t count = lost.exchange(0);
        if (count != 0 && !file.Add(MarkOfLost(count)))
            lost += count;
    }

    std::string MarkOfLost(std::int64_t count) {
        return Mark("events missing here: " + std::to_string(count));
    }

    static constexpr std::size_t kCommonBytes = 256;

    /// In microseconds, with three decimals.
    static void AppendTime(std::string& json, std::int64_t nanoseconds) {
        constexpr std::int64_t kPerMicrosecond = 1000;
        json += R"("ts":)";
        AppendNumber(json, nanoseconds / kPerMicrosecond);
        // A leading 1 keeps the zeros, and makes room for the point.
        const std::size_t point = json.size();
        AppendNumber(json, kPerMicrosecond + nanoseconds % kPerMicrosecond);
        json[point] = '.';
        json += ',';
    }

    /// Each row once, whoever comes first.
    void NameRows(int row) {
        for (int named = namedRows; named < row;) {
            if (namedRows.compare_exchange_weak(named, named + 1))
                file.Add(Metadata("thread_name", named + 1, "thread " + std::to_string(named + 1)));
        }
    }

    TraceFile file;
    const Clock::time_point start = Clock::now();
    const std::int64_t process = ::getpid();
    /// Of the rows from 1 on, so many have a name. Written by every thread that traces.
    std::atomic<int> namedRows{0};
    /// Events that were left out since the last mark that says so. Written by every such thread.
    std::atomic<std::int64_t> lost{0};
};

EventTracerChrome::EventTracerChrome(const App::ioPath& path)
    : m_impl(std::make_unique<Impl>(path)) {}

EventTracerChrome::~EventTracerChrome() = default;

void EventTracerChrome::Trace(Event event, const TraceRecord& record) const {
    if (!m_impl->file.IsGood())
        return;
    const Look look = LookOf(event);
    std::string json = m_impl->Begin(look.name, look.phase);
    AppendRecord(json, record);
    if (look.phase == 'E')
        EndObject(json);
    EndObject(json);
    EndObject(json);
    m_impl->Add(json);
}

void EventTracerChrome::TraceString(const std::string& text) const {
    if (m_impl->file.IsGood())
        m_impl->Add(m_impl->Mark(text));
}

bool EventTracerChrome::IsWriting() const {
    return m_impl->file.IsGood();
}

} // namespace Halvex::Kit
