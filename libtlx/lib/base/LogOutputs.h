#pragma once
// The outputs of the log: standard error and the two files.

#include <optional>

#include <tlx/Log.h>

#include "LogErrorStream.h"
#include "LogFile.h"
#include "LogFormat.h"
#include "LogWriter.h"

namespace Veltrane::Quillmark::Tlx {

/// All outputs of the settings. One thread at a time uses it.
class LogOutputs : public LogDestination
{
  public:
    /// Standard error alone. A line waits until it is written.
    LogOutputs();
    /// Throws with the reason when a file cannot be opened.
    explicit LogOutputs(const LogSettings& settings);

    /// Returns false if an output lost the line.
    bool write(const LogRecord& record) override;
    /// Nobody may read standard error any more. So the files get the number of the lines that it
    /// lost last.
    void finish() override;

  private:
    bool writeToFiles(const LogRecord& record, const std::string& line);

    LogFormat m_format;
    LogErrorStream m_stderr;
    const bool m_toStderr;
    std::optional<LogFile> m_file;
    std::optional<LogFile> m_errorsFile;
};

} // namespace Veltrane::Quillmark::Tlx
