#pragma once
// The whole lines of the log.

#include <string>

#include <spdlog/pattern_formatter.h>

#include "LogLine.h"

namespace Veltrane::Quillmark::Tlx {

/// Puts the time in front of a record. One thread at a time uses it.
class LogFormat
{
  public:
    LogFormat();
    /// The time and the body, without a line break.
    std::string lineOf(const LogRecord& record);

  private:
    spdlog::pattern_formatter m_format;
};

} // namespace Veltrane::Quillmark::Tlx
