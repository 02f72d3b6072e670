#pragma once

#include "Foundation/Mutex.h"

#include <glog/logging.h>

#include <string>
#include <vector>

namespace Halvex::Testing {

/// The log lines that are written while it lives, from all threads. Thread-safe.
class LogCapture : private google::LogSink {
public:
    struct Line {
        google::LogSeverity severity;
        std::string text;
        /// Without its folder.
        std::string file;
        int line;
    };

    LogCapture();
    ~LogCapture() override;

    std::vector<Line> Lines() const;
    /// The texts of one severity, in order.
    std::vector<std::string> Infos() const { return Texts(google::GLOG_INFO); }
    std::vector<std::string> Errors() const { return Texts(google::GLOG_ERROR); }

private:
    void send(google::LogSeverity severity, const char* fullFilename, const char* baseFilename,
              int line, const google::LogMessageTime& time, const char* message,
              std::size_t messageLength) override;
    std::vector<std::string> Texts(google::LogSeverity severity) const;

    mutable Mutex m_mutex;
    std::vector<Line> m_lines HALVEX_GUARDED_BY(m_mutex);
};

} // namespace Halvex::Testing
