#include "BarReport.h"

#include "Console.h"
#include "LineReports.h"

namespace Halvex::Fetch {

void BarReport::OnProgress(const std::vector<BundleProgress>& bundles) {
    m_courses.resize(bundles.size());
    std::vector<BarContent> contents;
    for (std::size_t i = 0; i < bundles.size(); ++i)
        contents.push_back(Describe(bundles[i], m_courses[i]));
    // The last column stays free, and the last row is where the cursor stands.
    m_console.DrawBlock(BarLines(contents, m_console.Columns() - 1, m_console.Rows() - 1));
}

void BarReport::OnSummary(const Summary& summary) {
    m_console.KeepBlock();
    const std::string line = SummaryText(summary) + '\n';
    std::fwrite(line.data(), 1, line.size(), m_stream);
    std::fflush(m_stream);
}

BarContent BarReport::Describe(const BundleProgress& bundle, Course& course) {
    const Kit::SpeedMeter::Time now = std::chrono::steady_clock::now();
    const auto bytes = static_cast<double>(bundle.bytesReceived);
    course.bytes.Add(now, bytes);
    course.progress.Add(now, bundle.state.progress);
    if (!course.begin || bundle.bytesReceived == 0)
        course.begin = now;

    BarContent content;
    content.name = bundle.name;
    content.filesDone = bundle.filesDone;
    content.files = bundle.files;
    content.percent = bundle.state.GetPercentage();
    if (content.IsDone() && !course.finalSpeed) {
        const std::chrono::duration<double> elapsed = now - *course.begin;
        course.finalSpeed = elapsed.count() > 0 ? bytes / elapsed.count() : 0;
    }
    content.bytesPerSecond = course.finalSpeed.value_or(course.bytes.PerSecond());
    content.timeLeft = bundle.bytesLeft
                           ? course.bytes.TimeFor(static_cast<double>(*bundle.bytesLeft))
                           : course.progress.TimeFor(1 - bundle.state.progress);
    return content;
}

} // namespace Halvex::Fetch
