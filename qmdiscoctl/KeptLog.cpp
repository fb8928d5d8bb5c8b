#include "KeptLog.h"

#include <utility>

#include "Text.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

void KeptLog::write(const Line& line)
{
    const std::lock_guard guard(m_mutex);
    if (line.level <= Tlx::LOG_LEVEL_FAILURE && m_lines.size() < MAX_LINES)
        m_lines.push_back(std::string(line.operation) + ": " + escaped(line.text));
}

std::vector<std::string> KeptLog::take()
{
    const std::lock_guard guard(m_mutex);
    return std::exchange(m_lines, {});
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
