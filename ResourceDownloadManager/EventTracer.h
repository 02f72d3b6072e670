#pragma once

#include "Foundation/Export.h"
#include "ResourceDownloadManager/IEventTracer.h"

#include <set>
#include <string>

namespace Halvex::App {

/// Writes each step as one line of the log, at INFO:
///
///     [prefix/suffix] [G: prefix/suffix, ..(2 more)] (Status: Available, err:NoError =100%) Check
///
/// with the parts that the record has, the event's name and, behind a blank, its text. A bundle is
/// named by its first descriptor and the number of the others.
///
/// Immutable; safe from any thread.
class HALVEX_EXPORT EventTracer : public IEventTracer {
public:
    struct Params {
        /// Write every event.
        bool traceAll = false;
        /// The events to write when not all are.
        std::set<Event> events;
    };

    explicit EventTracer(Params params);

    void Trace(Event event, const TraceRecord& record) const override;
    /// Writes the text as it is, whatever the filter. glog cuts a line at about 30,000 bytes.
    void TraceString(const std::string& text) const override;

private:
    bool m_traceAll;
    std::set<Event> m_events;
};

} // namespace Halvex::App
