#include "ResourceDownloadManager/EventTracer.h"

#include "ResourceDownloadManager/ResourceDescriptor.h"

#include <glog/logging.h>

#include <utility>

namespace Halvex::App {

namespace {

const char* EventName(IEventTracer::Event event) {
    using Event = IEventTracer::Event;
    switch (event) {
    case Event::CheckScheduled:
        return "CheckScheduled";
    case Event::Check:
        return "Check";
    case Event::CheckEnd:
        return "/Check";
    case Event::ValidatorCheck:
        return "ValidatorCheck";
    case Event::RegisterValidator:
        return "RegisterValidator";
    case Event::StatusNotification:
        return "StatusNotification";
    case Event::StatusNotificationEnd:
        return "/StatusNotification";
    case Event::ProgressNotification:
        return "ProgressNotification";
    case Event::ProgressNotificationEnd:
        return "/ProgressNotification";
    case Event::Download:
        return "Download";
    case Event::DownloadEnd:
        return "/Download";
    }
    return "";
}

std::string Identity(const ResourceDescriptor& descriptor) {
    return descriptor.idPrefix + "/" + descriptor.idSuffix;
}

std::string DescriptorPart(const ResourceDescriptor* descriptor) {
    return descriptor == nullptr ? "" : "[" + Identity(*descriptor) + "] ";
}

std::string BundlePart(const ResourceDescriptorBundle* bundle) {
    if (bundle == nullptr)
        return "";
    const auto& descriptors = bundle->descriptors;
    if (descriptors.empty())
        return "[INVALID GROUP] ";
    return "[G: " + Identity(**descriptors.begin()) + ", ..(" +
           std::to_string(descriptors.size() - 1) + " more)] ";
}

std::string StatePart(const IRemoteResource::State* state) {
    return state == nullptr ? "" : "(" + state->ToDebugString() + ") ";
}

/// One place of the log for all lines, whatever this file looks like: filters rely on it.
void WriteLine(const std::string& line) {
    google::LogMessage("EventTracer", 92, google::GLOG_INFO).stream() << line;
}

} // namespace

EventTracer::EventTracer(Params params)
    : m_traceAll(params.traceAll), m_events(std::move(params.events)) {}

void EventTracer::Trace(Event event, const TraceRecord& record) const {
    if (!m_traceAll && m_events.count(event) == 0)
        return;
    WriteLine(DescriptorPart(record.descriptor) + BundlePart(record.bundle) +
              StatePart(record.state) + EventName(event) + " " + record.text);
}

void EventTracer::TraceString(const std::string& text) const {
    WriteLine(text);
}

} // namespace Halvex::App
