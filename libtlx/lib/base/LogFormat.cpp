#include "LogFormat.h"

#include <fmt/format.h>

namespace Veltrane::Quillmark::Tlx {

LogFormat::LogFormat() : m_format("%Y-%m-%dT%H:%M:%S.%e%z %v", spdlog::pattern_time_type::local, "")
{
}

std::string LogFormat::lineOf(const LogRecord& record)
{
    const spdlog::details::log_msg message(record.time, spdlog::source_loc(), {},
                                           spdlog::level::info, record.body);
    spdlog::memory_buf_t buffer;
    m_format.format(message, buffer);
    return fmt::to_string(buffer);
}

} // namespace Veltrane::Quillmark::Tlx
