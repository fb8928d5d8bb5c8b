#include "KeptLog.h"

#include <utility>

#include "Text.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

void KeptLog::write(const Line& line)
{
    const std::lock_guard guard(m_mutex);
    if (line.level > Tlx::LOG_LEVEL_FAILURE)
        return;
    Kept kept{line.operation, escaped(line.text.substr(0, line.text.rfind(" (")))};
    if (m_lines.empty() || m_lines.back() != kept)
        m_lines.push_back(std::move(kept));
    if (m_lines.size() > MAX_LINES)
        m_lines.pop_front();
}

std::vector<KeptLog::Kept> KeptLog::take()
{
    const std::lock_guard guard(m_mutex);
    const std::deque<Kept> lines = std::exchange(m_lines, {});
    return {lines.begin(), lines.end()};
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
