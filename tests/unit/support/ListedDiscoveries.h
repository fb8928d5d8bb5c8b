#pragma once
// An iterator over discoveries that a test puts into it.

#include <cstddef>
#include <string>
#include <vector>

#include "support/PlainDiscovery.h"

namespace QmTest {

class ListedDiscoveries : public Disc::DiscoveryIterator
{
  public:
    ListedDiscoveries() : DiscoveryIterator(Disc::AT_ANYANDALL, "", "") {}
    Disc::Discovery* getNext() override
    {
        if (m_next == m_records.size())
            return nullptr;
        return Tlx::AutoDereference<Disc::Discovery>(m_records[m_next++]).release();
    }
    /// Takes ownership of the data.
    void add(Disc::CollectionData* data, const std::string& authority = "host1",
             const std::string& subject = "subject1")
    {
        Tlx::AutoDereference<Disc::Discovery> record(new PlainDiscovery(data));
        record->setAuthority(new Disc::Authority(authority, Disc::AT_QMKCLIENT));
        record->setSubject(new Disc::Subject(subject));
        m_records.push_back(record);
    }
    void add(const Tlx::AutoDereference<Disc::Discovery>& record) { m_records.push_back(record); }

  private:
    std::vector<Tlx::AutoDereference<Disc::Discovery>> m_records;
    std::size_t m_next = 0;
};

} // namespace QmTest
