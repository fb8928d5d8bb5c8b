#include "ResolvedHosts.h"

namespace Veltrane::Quillmark::Tlx {

void ResolvedHosts::note(const std::string& host, const std::string& address)
{
    const auto numeric = NumericAddress::parse(address);
    if (!numeric || host.empty())
        return;
    const Pair pair(*numeric, host);
    const std::lock_guard guard(m_mutex);
    const auto [place, isNew] = m_pairs.try_emplace(pair, ++m_notes);
    if (!isNew) {
        m_byAge.erase(place->second);
        place->second = m_notes;
    }
    m_byAge.emplace(m_notes, pair);
    if (m_pairs.size() > m_most) {
        m_pairs.erase(m_byAge.begin()->second);
        m_byAge.erase(m_byAge.begin());
    }
}

std::vector<std::string> ResolvedHosts::of(const std::string& address) const
{
    const auto numeric = NumericAddress::parse(address);
    if (!numeric)
        return {};
    std::vector<std::string> hosts;
    const std::lock_guard guard(m_mutex);
    for (auto each = m_pairs.lower_bound(Pair(*numeric, ""));
         each != m_pairs.end() && each->first.first == *numeric; ++each)
        hosts.push_back(each->first.second);
    return hosts;
}

} // namespace Veltrane::Quillmark::Tlx
