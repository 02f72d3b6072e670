#pragma once

#include "IReport.h"

#include <cstdio>

namespace Halvex::Fetch {

class Console;

/// The summary as a person reads it.
std::string SummaryText(const Summary& summary);

/// A report that does not show progress.
class LineReport : public IReport {
public:
    void OnProgress(const std::vector<BundleProgress>&) override {}
    bool WantsProgress() const override { return false; }
};

/// Lines of JSON on standard output: one for each file, and the summary.
class JsonReport : public LineReport {
public:
    bool ShowsSuccess() const override { return true; }
    void OnFileEnded(const FileResult& result) override;
    void OnSummary(const Summary& summary) override;
};

/// A line for each file that has ended, and the summary.
class PlainReport : public LineReport {
public:
    /// Borrows the stream to write to; it counts the files of so many.
    PlainReport(std::FILE* stream, std::size_t files) : m_stream(stream), m_files(files) {}

    bool ShowsSuccess() const override { return true; }
    void OnFileEnded(const FileResult& result) override;
    void OnSummary(const Summary& summary) override;

private:
    void Write(const std::string& line);

    std::FILE* const m_stream;
    const std::size_t m_files;
    std::size_t m_ended = 0;
};

/// Names on standard error each file that was given up.
class FailureReport : public LineReport {
public:
    /// Borrows the console, which must outlive this.
    explicit FailureReport(Console& console) : m_console(console) {}

    bool ShowsSuccess() const override { return false; }
    void OnFileEnded(const FileResult& result) override;
    void OnSummary(const Summary&) override {}

private:
    Console& m_console;
};

} // namespace Halvex::Fetch
