#pragma once

#include "Options.h"

#include <glog/logging.h>

namespace Halvex::Fetch {

class Console;

/// Leads the log, and what Qt has to say, to the console for as long as it lives, and nowhere else:
/// no log file is made. One at a time.
class Log : private google::LogSink {
public:
    /// Borrows the console, which must outlive this. With trace, INFO lines are written at every
    /// level but None.
    Log(Options::LogLevel level, bool trace, Console& console);
    ~Log() override;

private:
    void send(google::LogSeverity severity, const char* fullFilename, const char* baseFilename,
              int line, const google::LogMessageTime& time, const char* message,
              std::size_t messageLength) override;

    Console& m_console;
};

} // namespace Halvex::Fetch
