#include "NameList.h"

#include <algorithm>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

void NameList::add(std::string_view name)
{
    m_places.push_back({m_bytes.size(), name.size()});
    m_bytes.append(name);
    m_bytes.push_back('\0');
}

void NameList::sort()
{
    m_bytes.shrink_to_fit();
    m_places.shrink_to_fit();
    std::sort(m_places.begin(), m_places.end(), [this](Place a, Place b) { return at(a) < at(b); });
}

std::string_view NameList::operator[](std::size_t index) const
{
    return at(m_places[index]);
}

std::size_t NameList::lowerBound(std::string_view name) const
{
    const auto place = std::partition_point(m_places.begin(), m_places.end(),
                                            [&](Place each) { return at(each) < name; });
    return static_cast<std::size_t>(place - m_places.begin());
}

std::size_t NameList::upperBound(std::string_view name) const
{
    const auto place = std::partition_point(m_places.begin(), m_places.end(),
                                            [&](Place each) { return at(each) <= name; });
    return static_cast<std::size_t>(place - m_places.begin());
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
