#include "PullShare.h"

#include <utility>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

PullShare::Pull::Pull(PullShare& share, std::string host) : m_host(std::move(host))
{
    const std::lock_guard guard(share.m_mutex);
    const auto found = share.m_running.find(m_host);
    const std::size_t own = found == share.m_running.end() ? 0 : found->second;
    if (own >= share.m_places - share.m_all)
        return;
    ++share.m_running[m_host];
    ++share.m_all;
    m_share = &share;
}

PullShare::Pull::~Pull()
{
    if (!m_share)
        return;
    const std::lock_guard guard(m_share->m_mutex);
    const auto found = m_share->m_running.find(m_host);
    if (--found->second == 0)
        m_share->m_running.erase(found);
    --m_share->m_all;
}

std::size_t PullShare::runningFrom(const std::string& host) const
{
    const std::lock_guard guard(m_mutex);
    const auto found = m_running.find(host);
    return found == m_running.end() ? 0 : found->second;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
