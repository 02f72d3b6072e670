#pragma once

#include "BarLines.h"
#include "IReport.h"
#include "ResourceKit/SpeedMeter.h"

#include <cstdio>
#include <optional>
#include <vector>

namespace Halvex::Fetch {

class Console;

/// A line for each bundle that is drawn again as the bundle gets on, and the summary.
class BarReport : public IReport {
public:
    /// Borrows both, which must outlive this. The stream is the one that the console draws on.
    BarReport(Console& console, std::FILE* stream) : m_console(console), m_stream(stream) {}

    bool ShowsSuccess() const override { return true; }
    void OnFileEnded(const FileResult&) override {}
    void OnProgress(const std::vector<BundleProgress>& bundles) override;
    bool WantsProgress() const override { return true; }
    void OnSummary(const Summary& summary) override;

private:
    /// What is remembered of a bundle from one call to the next.
    struct Course {
        Kit::SpeedMeter bytes;
        Kit::SpeedMeter progress;
        /// The last time at which nothing had arrived yet.
        std::optional<Kit::SpeedMeter::Time> begin;
        /// The mean speed of the whole bundle, once that is done.
        std::optional<double> finalSpeed;
    };

    static BarContent Describe(const BundleProgress& bundle, Course& course);

    Console& m_console;
    std::FILE* const m_stream;
    std::vector<Course> m_courses;
};

} // namespace Halvex::Fetch
