#include "Log.h"

#include "Console.h"

#include <QtCore/QString>
#include <QtCore/QtGlobal>

namespace Halvex::Fetch {

namespace {

google::LogSeverity LowestSeverity(Options::LogLevel level, bool trace) {
    switch (level) {
    case Options::LogLevel::None:
        return google::NUM_SEVERITIES;
    case Options::LogLevel::Info:
        return google::GLOG_INFO;
    case Options::LogLevel::Warning:
        return trace ? google::GLOG_INFO : google::GLOG_WARNING;
    case Options::LogLevel::Error:
        break;
    }
    return trace ? google::GLOG_INFO : google::GLOG_ERROR;
}

void OnQtMessage(QtMsgType type, const QMessageLogContext&, const QString& message) {
    switch (type) {
    case QtDebugMsg:
    case QtInfoMsg:
        LOG(INFO) << message.toStdString();
        break;
    case QtWarningMsg:
        LOG(WARNING) << message.toStdString();
        break;
    case QtCriticalMsg:
    case QtFatalMsg:
        LOG(ERROR) << message.toStdString();
    }
}

} // namespace

Log::Log(Options::LogLevel level, bool trace, Console& console) : m_console(console) {
    // An empty name keeps the log from making a file.
    for (google::LogSeverity severity = 0; severity < google::NUM_SEVERITIES; ++severity)
        google::SetLogDestination(severity, "");
    FLAGS_logtostderr = false;
    FLAGS_alsologtostderr = false;
    FLAGS_stderrthreshold = google::NUM_SEVERITIES;
    FLAGS_minloglevel = LowestSeverity(level, trace);
    google::InitGoogleLogging("halvex-fetch");
    google::AddLogSink(this);
    qInstallMessageHandler(OnQtMessage);
}

Log::~Log() {
    qInstallMessageHandler(nullptr);
    google::RemoveLogSink(this);
    google::ShutdownGoogleLogging();
}

void Log::send(google::LogSeverity severity, const char*, const char* baseFilename, int line,
               const google::LogMessageTime& time, const char* message, std::size_t messageLength) {
    m_console.WriteError(ToString(severity, baseFilename, line, time, message, messageLength));
}

} // namespace Halvex::Fetch
