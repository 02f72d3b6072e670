#include "integration/RandomOperationsTrace.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <stdexcept>
#include <utility>

namespace Halvex::Testing {

namespace {

using App::IRemoteResource;
using App::ResourceDescriptor;
using Error = IRemoteResource::DownloadError;
using Event = App::IEventTracer::Event;
using Record = TraceRecorder::Record;
using State = IRemoteResource::State;
using Status = IRemoteResource::DownloadStatus;

thread_local bool t_isApplicationThread = false;
/// What the calling thread is downloading; null: nothing.
thread_local const void* t_ownDownload = nullptr;

std::uint64_t NextIdentity() {
    static std::atomic<std::uint64_t> next{1};
    return next++;
}

const std::string kErrorLabel = ", err:";

/// The path and the outcome of the end of a download.
std::pair<std::string, Error> Parse(const std::string& text) {
    const std::size_t label = text.rfind(kErrorLabel);
    if (label != std::string::npos) {
        for (const Error error : {Error::NoError, Error::GeneralError, Error::Cancelled,
                                  Error::Corrupted, Error::InternetConnectionLost}) {
            if (text.substr(label + kErrorLabel.size()) == IRemoteResource::ErrorToString(error))
                return {text.substr(0, label), error};
        }
    }
    throw std::invalid_argument("not the end of a download: " + text);
}

/// The step that an event begins, for an event that ends one; the event itself otherwise.
Event Begun(Event event) {
    switch (event) {
    case Event::CheckEnd:
        return Event::Check;
    case Event::DownloadEnd:
        return Event::Download;
    case Event::StatusNotificationEnd:
        return Event::StatusNotification;
    case Event::ProgressNotificationEnd:
        return Event::ProgressNotification;
    default:
        return event;
    }
}

/// How many retries of one resource the policy allows: 20 after lost connections, 1 after other
/// errors, both counted since the last success.
class Allowance {
public:
    void Begin() { ++m_underWay; }

    void End(Error error) {
        ++m_together;
        if (error == Error::NoError)
            m_success = true;
        else
            m_errors.push_back(error);
        if (--m_underWay == 0)
            CountTogether();
    }

    std::size_t Retries() const { return m_retries; }
    std::size_t Denied() const { return m_denied; }

private:
    static std::size_t LimitAfter(Error error) {
        return error == Error::InternetConnectionLost ? 20 : 1;
    }

    /// The policy may have counted downloads that were under way at once in any order; then they
    /// are allowed what the most generous order does.
    void CountTogether() {
        if (m_together == 1 && !m_success)
            ++(m_failures < LimitAfter(m_errors[0]) ? m_retries : m_denied);
        else
            m_retries += m_errors.size();
        m_failures = m_success ? 0 : m_failures + m_errors.size();
        m_together = 0;
        m_success = false;
        m_errors.clear();
    }

    std::size_t m_retries = 0;
    /// Failures that surely earned none.
    std::size_t m_denied = 0;
    /// Since the last success.
    std::size_t m_failures = 0;
    std::size_t m_underWay = 0;
    std::size_t m_together = 0;
    bool m_success = false;
    std::vector<Error> m_errors;
};

/// Follows one descriptor.
class Follower {
public:
    Follower(const ResourceDescriptor& descriptor, bool isRetried)
        : m_descriptor(descriptor), m_isRetried(isRetried) {}

    void Schedule(const Record& record) {
        ++m_scheduled;
        if (record.onApplicationThread)
            return;
        ++m_history.retries;
        EXPECT_LE(m_history.retries, m_isRetried ? m_allowance.Retries() : 0U) << Name();
    }

    void BeginCheck() {
        ++m_history.checks;
        EXPECT_LE(m_history.checks, m_scheduled) << Name();
        m_overlap = m_checksUnderWay++ != 0;
        m_outcome = Error::NoError;
        m_downloadsInCheck = 0;
    }

    void BeginDownload() {
        ++m_history.downloads;
        ++m_downloadsInCheck;
        m_allowance.Begin();
    }

    void EndDownload(Error outcome) {
        m_outcome = outcome;
        m_allowance.End(outcome);
        if (outcome == Error::NoError)
            return;
        ++m_history.failures[outcome];
        m_history.unretriedFailures =
            m_isRetried ? m_allowance.Denied() : m_history.unretriedFailures + 1;
    }

    void EndCheck(const State& state) {
        --m_checksUnderWay;
        m_history.state = state;
        m_history.lastCheckOverlapped = m_overlap;
        EXPECT_LE(m_history.downloads, m_history.checks) << Name();
        // Scheduling may make it available at any time, too.
        if (m_overlap || m_descriptor.checkOnSchedule == 1)
            return;
        EXPECT_LE(m_downloadsInCheck, 1U) << Name();
        EXPECT_EQ(state.status, m_outcome == Error::NoError ? Status::Available : Status::Error)
            << Name();
        EXPECT_EQ(state.error, m_outcome) << Name();
        ++m_history.outcomes;
    }

    const History& Result() const { return m_history; }

private:
    const std::string& Name() const { return m_descriptor.relativePath; }

    const ResourceDescriptor& m_descriptor;
    const bool m_isRetried;
    History m_history;
    Allowance m_allowance;
    std::size_t m_scheduled = 0;
    std::size_t m_checksUnderWay = 0;
    std::size_t m_downloadsInCheck = 0;
    /// Whether two of the checks since none was under way have been so at once.
    bool m_overlap = false;
    Error m_outcome = Error::NoError;
};

TraceRecorder::Records Merged(const std::vector<TraceRecorder::Records>& byThread) {
    TraceRecorder::Records all;
    for (const TraceRecorder::Records& records : byThread)
        all.insert(all.end(), records.begin(), records.end());
    std::sort(all.begin(), all.end(),
              [](const Record& left, const Record& right) { return left.number < right.number; });
    return all;
}

std::size_t& CountOf(Event begun, StepsEnded& steps) {
    switch (begun) {
    case Event::Check:
        return steps.checks;
    case Event::Download:
        return steps.downloads;
    case Event::StatusNotification:
        return steps.statusNotifications;
    default:
        return steps.progressNotifications;
    }
}

/// Of one thread.
void ExpectEndsFitBeginnings(const TraceRecorder::Records& records, StepsEnded& ended) {
    std::vector<const Record*> open;
    for (const Record& record : records) {
        const Event begun = Begun(record.event);
        if (record.event == Event::CheckScheduled)
            continue;
        if (begun == record.event) {
            open.push_back(&record);
            continue;
        }
        ASSERT_FALSE(open.empty());
        const Record& begin = *open.back();
        open.pop_back();
        ASSERT_EQ(begin.event, begun);
        ASSERT_EQ(begin.descriptor, record.descriptor);
        ASSERT_EQ(begin.bundle, record.bundle);
        if (begun == Event::Download) {
            ASSERT_EQ(begin.text, Parse(record.text).first);
        }
        ++CountOf(begun, ended);
    }
    EXPECT_TRUE(open.empty());
}

} // namespace

ApplicationThread::ApplicationThread() {
    t_isApplicationThread = true;
}

ApplicationThread::~ApplicationThread() {
    t_isApplicationThread = false;
}

TraceRecorder::TraceRecorder(const std::vector<const ResourceDescriptor*>& descriptors)
    : m_identity(NextIdentity()) {
    for (const ResourceDescriptor* descriptor : descriptors)
        m_downloads[descriptor->relativePath];
}

void TraceRecorder::Trace(Event event, const TraceRecord& record) const {
    if (event == Event::CheckScheduled)
        m_checksScheduled.fetch_add(1, std::memory_order_relaxed);
    if (event == Event::Download) {
        Downloads& downloads = DownloadsOf(record.text);
        downloads.begun.fetch_add(1, std::memory_order_release);
        t_ownDownload = &downloads;
    }
    OfThisThread().push_back(
        {m_next.fetch_add(1, std::memory_order_relaxed), event, record.descriptor, record.bundle,
         record.state != nullptr ? *record.state : State(), record.text, t_isApplicationThread});
    if (event == Event::DownloadEnd) {
        t_ownDownload = nullptr;
        DownloadsOf(Parse(record.text).first).ended.fetch_add(1, std::memory_order_release);
    }
    if (event == Event::CheckEnd)
        m_checksEnded.fetch_add(1, std::memory_order_relaxed);
}

bool TraceRecorder::IsDrained() const {
    // In this order: a check that is scheduled in between makes the answer false, never true.
    const std::uint64_t ended = m_checksEnded;
    return ended == m_checksScheduled;
}

std::vector<TraceRecorder::Records> TraceRecorder::ByThread() const {
    const MutexLock lock(m_mutex);
    return {m_byThread.begin(), m_byThread.end()};
}

TraceRecorder::Records& TraceRecorder::OfThisThread() const {
    thread_local std::pair<std::uint64_t, Records*> t_mine{0, nullptr};
    if (t_mine.first != m_identity) {
        const MutexLock lock(m_mutex);
        t_mine = {m_identity, &m_byThread.emplace_back()};
    }
    return *t_mine.second;
}

TraceRecorder::Downloads& TraceRecorder::DownloadsOf(const std::string& relativePath) const {
    return m_downloads.at(relativePath);
}

TraceRecorder::Quiet::Quiet(const TraceRecorder& recorder, const ResourceDescriptor& descriptor)
    : m_downloads(recorder.DownloadsOf(descriptor.relativePath)), m_begunBefore(m_downloads.begun),
      m_wasQuiet(m_downloads.ended + (t_ownDownload == &m_downloads ? 1 : 0) == m_begunBefore) {}

bool TraceRecorder::Quiet::Lasts() const {
    return m_wasQuiet && m_downloads.begun == m_begunBefore;
}

StepsEnded ExpectEndsFitBeginnings(const std::vector<TraceRecorder::Records>& byThread) {
    StepsEnded ended;
    for (const TraceRecorder::Records& records : byThread)
        ExpectEndsFitBeginnings(records, ended);
    return ended;
}

std::map<const ResourceDescriptor*, History>
FollowDescriptors(const std::vector<const ResourceDescriptor*>& descriptors,
                  const std::vector<const ResourceDescriptor*>& neverRetried,
                  const std::vector<TraceRecorder::Records>& byThread) {
    const std::set<const ResourceDescriptor*> never(neverRetried.begin(), neverRetried.end());
    std::map<std::string, Follower> followers;
    for (const ResourceDescriptor* descriptor : descriptors)
        followers.emplace(descriptor->relativePath,
                          Follower(*descriptor, never.count(descriptor) == 0));
    for (const Record& record : Merged(byThread)) {
        switch (record.event) {
        case Event::CheckScheduled:
            followers.at(record.descriptor->relativePath).Schedule(record);
            break;
        case Event::Check:
            followers.at(record.descriptor->relativePath).BeginCheck();
            break;
        case Event::Download:
            followers.at(record.text).BeginDownload();
            break;
        case Event::DownloadEnd: {
            const auto [path, outcome] = Parse(record.text);
            followers.at(path).EndDownload(outcome);
            break;
        }
        case Event::CheckEnd:
            followers.at(record.descriptor->relativePath).EndCheck(record.state);
            break;
        default:
            break;
        }
    }
    std::map<const ResourceDescriptor*, History> histories;
    for (const ResourceDescriptor* descriptor : descriptors)
        histories[descriptor] = followers.at(descriptor->relativePath).Result();
    return histories;
}

} // namespace Halvex::Testing
