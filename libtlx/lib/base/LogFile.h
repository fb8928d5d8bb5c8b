#pragma once
// A file as an output of the log.

#include <cstddef>
#include <memory>
#include <string>

#include <spdlog/sinks/rotating_file_sink.h>

#include "LogErrorStream.h"
#include "LogFormat.h"

namespace Veltrane::Quillmark::Tlx {

/// A file, rotated by size. A failed sink may have lost its stream, so it is destroyed. The next
/// line opens a new sink. So lines are missing only while the disk is full.
class LogFile
{
  public:
    /// Throws with the reason when the file cannot be opened.
    /// @param complaints gets a line when the file takes no more lines. It must outlive this
    /// object.
    LogFile(const std::string& file, std::size_t maxBytes, unsigned keep,
            LogErrorStream& complaints);

    /// Writes a line, without its line break. Returns false if the line is lost. One thread at a
    /// time.
    bool write(const std::string& line, LogFormat& format);

  private:
    void open();
    void put(const std::string& line);

    const std::string m_file;
    const std::size_t m_maxBytes;
    const unsigned m_keep;
    LogErrorStream& m_complaints;
    std::unique_ptr<spdlog::sinks::rotating_file_sink_st> m_sink;
    unsigned long long m_missing = 0;
};

} // namespace Veltrane::Quillmark::Tlx
