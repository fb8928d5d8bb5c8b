#include "KeptLog.h"

#include <utility>

#include "Text.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

void KeptLog::write(const Line& line)
{
    const std::lock_guard guard(m_mutex);
    if (line.level > Tlx::LOG_LEVEL_FAILURE || m_lines.size() == MAX_LINES)
        return;
    Kept kept{line.operation, escaped(line.text.substr(0, line.text.rfind(" (")))};
    if (m_lines.empty() || m_lines.back() != kept)
        m_lines.push_back(std::move(kept));
}

std::vector<KeptLog::Kept> KeptLog::take()
{
    const std::lock_guard guard(m_mutex);
    return std::exchange(m_lines, {});
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
