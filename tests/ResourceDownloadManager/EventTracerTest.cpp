#include "ResourceDownloadManager/EventTracer.h"

#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "support/LogCapture.h"
#include "support/VirtualSlot.h"

#include <gmock/gmock.h>

#include <thread>
#include <type_traits>
#include <vector>

namespace Halvex::App {
namespace {

using Event = IEventTracer::Event;
using testing::ElementsAre;
using testing::IsEmpty;
using Testing::LogCapture;
using Testing::VirtualSlot;

const IRemoteResource::State kHalfDone{IRemoteResource::DownloadStatus::Dowloading,
                                       IRemoteResource::DownloadError::NoError, 0.5};

EventTracer TracerOfAll() {
    return EventTracer({true, {}});
}

EventTracer TracerOf(std::set<Event> events) {
    return EventTracer({false, std::move(events)});
}

/// A bundle of so many descriptors, with the identities "group/0", "group/1" and so on in the
/// order of their addresses.
class Bundle {
public:
    explicit Bundle(std::size_t size) : m_descriptors(size) {
        for (std::size_t i = 0; i < size; ++i) {
            m_descriptors[i].idPrefix = "group";
            m_descriptors[i].idSuffix = std::to_string(i);
            m_bundle.descriptors.insert(&m_descriptors[i]);
        }
    }

    const ResourceDescriptorBundle* Get() const { return &m_bundle; }

private:
    std::vector<ResourceDescriptor> m_descriptors;
    ResourceDescriptorBundle m_bundle;
};

class EventTracerTest : public testing::Test {
protected:
    EventTracerTest() {
        m_descriptor.idPrefix = "fonts";
        m_descriptor.idSuffix = "serif";
    }

    /// What is logged for one record when everything is traced.
    std::vector<std::string> LinesOf(Event event, const IEventTracer::TraceRecord& record) {
        const LogCapture log;
        TracerOfAll().Trace(event, record);
        return log.Infos();
    }

    ResourceDescriptor m_descriptor;
};

TEST_F(EventTracerTest, NamesEveryEvent) {
    const LogCapture log;
    const EventTracer tracer = TracerOfAll();
    for (int event = 0; event <= 10; ++event)
        tracer.Trace(static_cast<Event>(event), {});
    EXPECT_THAT(log.Infos(), ElementsAre("CheckScheduled ", "Check ", "/Check ", "ValidatorCheck ",
                                         "RegisterValidator ", "StatusNotification ",
                                         "/StatusNotification ", "ProgressNotification ",
                                         "/ProgressNotification ", "Download ", "/Download "));
}

TEST_F(EventTracerTest, NumbersTheEvents) {
    const Event inOrder[] = {
        Event::CheckScheduled,
        Event::Check,
        Event::CheckEnd,
        Event::ValidatorCheck,
        Event::RegisterValidator,
        Event::StatusNotification,
        Event::StatusNotificationEnd,
        Event::ProgressNotification,
        Event::ProgressNotificationEnd,
        Event::Download,
        Event::DownloadEnd,
    };
    int value = 0;
    for (const Event event : inOrder)
        EXPECT_EQ(static_cast<int>(event), value++);
    EXPECT_TRUE((std::is_same_v<std::underlying_type_t<Event>, std::int32_t>));
}

TEST_F(EventTracerTest, WritesNameAndBlankForAnEmptyRecord) {
    EXPECT_THAT(LinesOf(static_cast<Event>(9), {}), ElementsAre("Download "));
}

TEST_F(EventTracerTest, WritesTheTextBehindTheBlank) {
    EXPECT_THAT(LinesOf(Event::DownloadEnd, {nullptr, nullptr, nullptr, "a/b.bin, err:NoError"}),
                ElementsAre("/Download a/b.bin, err:NoError"));
}

TEST_F(EventTracerTest, WritesTheDescriptorsIdentity) {
    EXPECT_THAT(LinesOf(Event::Check, {&m_descriptor, nullptr, nullptr, ""}),
                ElementsAre("[fonts/serif] Check "));
}

TEST_F(EventTracerTest, KeepsTheSlashOfAnEmptyIdentity) {
    const ResourceDescriptor unnamed;
    EXPECT_THAT(LinesOf(Event::Check, {&unnamed, nullptr, nullptr, ""}), ElementsAre("[/] Check "));
}

TEST_F(EventTracerTest, MarksABundleWithoutDescriptors) {
    const Bundle bundle(0);
    EXPECT_THAT(LinesOf(Event::Check, {nullptr, bundle.Get(), nullptr, ""}),
                ElementsAre("[INVALID GROUP] Check "));
}

TEST_F(EventTracerTest, CountsNoOthersInABundleOfOne) {
    const Bundle bundle(1);
    EXPECT_THAT(LinesOf(Event::Check, {nullptr, bundle.Get(), nullptr, ""}),
                ElementsAre("[G: group/0, ..(0 more)] Check "));
}

TEST_F(EventTracerTest, NamesTheFirstOfABundleAndCountsTheOthers) {
    const Bundle bundle(3);
    EXPECT_THAT(LinesOf(Event::Check, {nullptr, bundle.Get(), nullptr, ""}),
                ElementsAre("[G: group/0, ..(2 more)] Check "));
}

TEST_F(EventTracerTest, WritesTheState) {
    EXPECT_THAT(LinesOf(Event::Check, {nullptr, nullptr, &kHalfDone, ""}),
                ElementsAre("(Status: Dowloading, err:NoError =50%) Check "));
}

TEST_F(EventTracerTest, WritesDescriptorBundleStateEventAndTextInThisOrder) {
    const Bundle bundle(2);
    EXPECT_THAT(
        LinesOf(Event::StatusNotification, {&m_descriptor, bundle.Get(), &kHalfDone, "text"}),
        ElementsAre("[fonts/serif] [G: group/0, ..(1 more)] "
                    "(Status: Dowloading, err:NoError =50%) StatusNotification text"));
}

TEST_F(EventTracerTest, LeavesOutTheDescriptorThatIsNotThere) {
    const Bundle bundle(2);
    EXPECT_THAT(LinesOf(Event::CheckEnd, {nullptr, bundle.Get(), &kHalfDone, "text"}),
                ElementsAre("[G: group/0, ..(1 more)] (Status: Dowloading, err:NoError =50%) "
                            "/Check text"));
}

TEST_F(EventTracerTest, LeavesOutTheBundleThatIsNotThere) {
    EXPECT_THAT(LinesOf(Event::CheckEnd, {&m_descriptor, nullptr, &kHalfDone, "text"}),
                ElementsAre("[fonts/serif] (Status: Dowloading, err:NoError =50%) /Check text"));
}

TEST_F(EventTracerTest, LeavesOutTheStateThatIsNotThere) {
    const Bundle bundle(2);
    EXPECT_THAT(LinesOf(Event::CheckEnd, {&m_descriptor, bundle.Get(), nullptr, "text"}),
                ElementsAre("[fonts/serif] [G: group/0, ..(1 more)] /Check text"));
}

TEST_F(EventTracerTest, WritesAnUnknownEventWithoutAName) {
    EXPECT_THAT(LinesOf(static_cast<Event>(11), {&m_descriptor, nullptr, nullptr, "text"}),
                ElementsAre("[fonts/serif]  text"));
    EXPECT_THAT(LinesOf(static_cast<Event>(-1), {}), ElementsAre(" "));
}

TEST_F(EventTracerTest, WritesOnlyTheChosenEvents) {
    const LogCapture log;
    const EventTracer tracer = TracerOf({Event::Check, Event::Download});
    for (int event = 0; event <= 11; ++event)
        tracer.Trace(static_cast<Event>(event), {});
    EXPECT_THAT(log.Infos(), ElementsAre("Check ", "Download "));
}

TEST_F(EventTracerTest, WritesAnUnknownEventThatIsChosen) {
    const LogCapture log;
    TracerOf({static_cast<Event>(11)}).Trace(static_cast<Event>(11), {});
    EXPECT_THAT(log.Infos(), ElementsAre(" "));
}

TEST_F(EventTracerTest, WritesEveryEventWhenAllAreWantedWhateverIsChosen) {
    const LogCapture log;
    EventTracer({true, {Event::Check}}).Trace(Event::Download, {});
    EXPECT_THAT(log.Infos(), ElementsAre("Download "));
}

TEST_F(EventTracerTest, WritesNoEventByDefault) {
    EXPECT_FALSE(EventTracer::Params().traceAll);
    const LogCapture log;
    const EventTracer tracer{EventTracer::Params()};
    for (int event = 0; event <= 11; ++event)
        tracer.Trace(static_cast<Event>(event), {});
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(EventTracerTest, WritesFreeTextAsItIsWhateverTheFilter) {
    const LogCapture log;
    TracerOf({}).TraceString(" free text, 100% ");
    TracerOfAll().TraceString("");
    EXPECT_THAT(log.Infos(), ElementsAre(" free text, 100% ", ""));
}

TEST_F(EventTracerTest, AttributesEventsToOnePlaceOfTheLog) {
    const LogCapture log;
    TracerOfAll().Trace(Event::Check, {});
    ASSERT_EQ(log.Lines().size(), 1U);
    EXPECT_EQ(log.Lines()[0].severity, google::GLOG_INFO);
    EXPECT_EQ(log.Lines()[0].file, "EventTracer");
    EXPECT_EQ(log.Lines()[0].line, 92);
}

TEST_F(EventTracerTest, AttributesFreeTextToTheSamePlaceOfTheLog) {
    const LogCapture log;
    TracerOf({}).TraceString("text");
    ASSERT_EQ(log.Lines().size(), 1U);
    EXPECT_EQ(log.Lines()[0].severity, google::GLOG_INFO);
    EXPECT_EQ(log.Lines()[0].file, "EventTracer");
    EXPECT_EQ(log.Lines()[0].line, 92);
}

TEST_F(EventTracerTest, CopiesAndMovesWithItsFilter) {
    const LogCapture log;
    EventTracer tracer = TracerOf({Event::Check});
    const EventTracer copy = tracer;
    const EventTracer moved = std::move(tracer);
    for (const EventTracer* other : {&copy, &moved}) {
        other->Trace(Event::Check, {});
        other->Trace(Event::Download, {});
    }
    EXPECT_THAT(log.Infos(), ElementsAre("Check ", "Check "));
}

TEST_F(EventTracerTest, KeepsTheLinesOfSeveralThreadsWhole) {
    const EventTracer tracer = TracerOfAll();
    const LogCapture log;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int line = 0; line < 10; ++line)
                tracer.Trace(Event::Check, {&m_descriptor, nullptr, nullptr, ""});
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(log.Infos(), std::vector<std::string>(40, "[fonts/serif] Check "));
}

TEST_F(EventTracerTest, KeepsTheOrderOfTheRecordsFields) {
    const IEventTracer::TraceRecord record;
    const auto& [descriptor, bundle, state, text] = record;
    EXPECT_EQ(&descriptor, &record.descriptor);
    EXPECT_EQ(&bundle, &record.bundle);
    EXPECT_EQ(&state, &record.state);
    EXPECT_EQ(&text, &record.text);
}

TEST_F(EventTracerTest, KeepsTheOrderOfTheParametersFields) {
    const EventTracer::Params params;
    const auto& [traceAll, events] = params;
    EXPECT_EQ(&traceAll, &params.traceAll);
    EXPECT_EQ(&events, &params.events);
}

TEST_F(EventTracerTest, KeepsTheOrderOfItsOperations) {
    EXPECT_EQ(VirtualSlot(&IEventTracer::Trace), 1U);
    EXPECT_EQ(VirtualSlot(&IEventTracer::TraceString), 2U);
}

} // namespace
} // namespace Halvex::App
