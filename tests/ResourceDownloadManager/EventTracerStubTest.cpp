#include "ResourceDownloadManager/EventTracerStub.h"

#include "support/LogCapture.h"

#include <gmock/gmock.h>

#include <memory>

namespace Halvex::App {
namespace {

TEST(EventTracerStub, DiscardsEveryEvent) {
    const std::shared_ptr<const IEventTracer> tracer = std::make_shared<EventTracerStub>();
    const Testing::LogCapture log;
    for (int event = 0; event <= 11; ++event)
        tracer->Trace(static_cast<IEventTracer::Event>(event), {nullptr, nullptr, nullptr, "text"});
    EXPECT_TRUE(log.Lines().empty());
}

TEST(EventTracerStub, DiscardsFreeText) {
    const std::shared_ptr<const IEventTracer> tracer = std::make_shared<EventTracerStub>();
    const Testing::LogCapture log;
    tracer->TraceString("text");
    EXPECT_TRUE(log.Lines().empty());
}

} // namespace
} // namespace Halvex::App
