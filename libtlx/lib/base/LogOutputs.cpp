#include "LogOutputs.h"

namespace Veltrane::Quillmark::Tlx {

LogOutputs::LogOutputs() : m_stderr(std::nullopt), m_toStderr(true) {}

LogOutputs::LogOutputs(const LogSettings& settings)
    : m_stderr(settings.patience), m_toStderr(settings.toStderr)
{
    if (!settings.file.empty())
        m_file.emplace(settings.file, settings.maxBytes, settings.keep, m_stderr);
    if (!settings.errorsFile.empty())
        m_errorsFile.emplace(settings.errorsFile, settings.errorsMaxBytes, settings.keep, m_stderr);
}

bool LogOutputs::write(const LogRecord& record)
{
    const std::string line = m_format.lineOf(record);
    bool taken = writeToFiles(record, line);
    // The last one, because it may wait.
    if (m_toStderr && !m_stderr.write(record.severity, line, m_format))
        taken = false;
    return taken;
}

void LogOutputs::finish()
{
    if (const auto lines = m_stderr.finish(m_format); lines > 0) {
        const LogRecord record = LogErrorStream::reportOf(lines);
        (void)writeToFiles(record, m_format.lineOf(record));
    }
}

bool LogOutputs::writeToFiles(const LogRecord& record, const std::string& line)
{
    bool taken = true;
    if (m_file && !m_file->write(line, m_format))
        taken = false;
    if (m_errorsFile && record.severity <= LogSeverity::Warning &&
        !m_errorsFile->write(line, m_format))
        taken = false;
    return taken;
}

} // namespace Veltrane::Quillmark::Tlx
