#pragma once

#include "Foundation/Export.h"
#include "Foundation/ioPath.h"
#include "ResourceDownloadManager/IEventTracer.h"

#include <memory>
#include <string>

namespace Halvex::Kit {

/// Writes what the schedulers do into a file that Perfetto (ui.perfetto.dev) and chrome://tracing
/// show as a picture: the steps that take time as bars, the others as marks, one row per thread.
///
///     dependencies.eventTracer = std::make_shared<Kit::EventTracerChrome>("trace.json");
///
/// The file is a JSON array of trace events in UTF-8. Their arguments are those of the record: the
/// resource and the bundle by their ids, as EventTracer names them, the state and the text; what is
/// known at the end of a step stands under "end". "thread" is the system's number of the thread, as
/// in log lines. A row belongs to a thread until that ends, and then to the next one that traces
/// something: as many rows as there are threads at once, although the executor starts new ones all
/// the time. A byte that is no UTF-8 is shown as U+FFFD.
///
/// Tracing puts an event into memory; a thread of its own writes what has come together, after a
/// tenth of a second or 64 KiB. After each write the file is a valid document. A process that
/// crashes or is killed thus leaves everything but the last tenth of a second. If that happens
/// within a write, which takes some microseconds, the document still ends with a whole event
/// (unless that is longer than 4 KiB), and only the closing bracket may be missing, which those who
/// read the format do not require.
///
/// When the file cannot be made, the disk is full or no thread can be started, that is logged once
/// at ERROR and nothing more is traced; what was written before stays. When the disk falls so far
/// behind that 64 MiB wait to be written, events are left out until it has caught up, and a mark
/// says how many. A step whose end is left out stays open in its row; where its beginning is, its
/// end closes the one around it.
///
/// Thread-safe. An event costs less than a microsecond on average; threads that trace at the same
/// moment wait for each other, and it costs them more.
class HALVEX_EXPORT EventTracerChrome : public App::IEventTracer {
public:
    /// Replaces a file that is there.
    explicit EventTracerChrome(const App::ioPath& path);
    /// Writes what has been traced by then.
    ~EventTracerChrome() override;

    EventTracerChrome(const EventTracerChrome&) = delete;
    EventTracerChrome& operator=(const EventTracerChrome&) = delete;

    void Trace(Event event, const TraceRecord& record) const override;
    /// A mark named by the text.
    void TraceString(const std::string& text) const override;

    /// False: the file could not be made, or not be written to the end.
    bool IsWriting() const;

private:
    struct Impl;
    const std::unique_ptr<Impl> m_impl;
};

} // namespace Halvex::Kit
