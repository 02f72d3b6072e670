#include "support/LogCapture.h"

namespace Halvex::Testing {

LogCapture::LogCapture() {
    google::AddLogSink(this);
}

LogCapture::~LogCapture() {
    google::RemoveLogSink(this);
}

std::vector<LogCapture::Line> LogCapture::Lines() const {
    const MutexLock lock(m_mutex);
    return m_lines;
}

std::vector<std::string> LogCapture::Texts(google::LogSeverity severity) const {
    const MutexLock lock(m_mutex);
    std::vector<std::string> texts;
    for (const Line& line : m_lines) {
        if (line.severity == severity)
            texts.push_back(line.text);
    }
    return texts;
}

void LogCapture::send(google::LogSeverity severity, const char*, const char* baseFilename, int line,
                      const google::LogMessageTime&, const char* message,
                      std::size_t messageLength) {
    const MutexLock lock(m_mutex);
    m_lines.push_back({severity, std::string(message, messageLength), baseFilename, line});
}

} // namespace Halvex::Testing
