#pragma once

#include "ResourceDownloadManager/IEventTracer.h"

namespace Halvex::App {

/// Discards everything.
class EventTracerStub : public IEventTracer {
public:
    EventTracerStub() = default;
    EventTracerStub(const EventTracerStub&) = delete;
    EventTracerStub& operator=(const EventTracerStub&) = delete;

    void Trace(Event, const TraceRecord&) const override {}
    void TraceString(const std::string&) const override {}
};

} // namespace Halvex::App
