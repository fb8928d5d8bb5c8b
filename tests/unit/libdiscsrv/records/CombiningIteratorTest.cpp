// One iterator over several others.

#include "CombiningIterator.h"

#include <gtest/gtest.h>

#include "support/PlainDiscovery.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

class Named : public QmTest::PlainDiscovery
{
  public:
    explicit Named(const std::string& name) { setSubject(new Subject(name)); }
};

class Names : public DiscoveryIterator
{
  public:
    explicit Names(std::vector<std::string> names)
        : DiscoveryIterator(AT_QMKSERVER, "own", "own"), m_names(std::move(names))
    {
    }
    Discovery* getNext() override
    {
        EXPECT_FALSE(m_ended) << "an exhausted iterator was asked again";
        if (m_next < m_names.size())
            return new Named(m_names[m_next++]);
        m_ended = true;
        return nullptr;
    }

  private:
    const std::vector<std::string> m_names;
    std::size_t m_next = 0;
    bool m_ended = false;
};

using Iterators = std::vector<AutoDereference<DiscoveryIterator>>;

Iterators over(const std::vector<std::vector<std::string>>& names)
{
    Iterators iterators;
    for (const auto& each : names)
        iterators.emplace_back(new Names(each));
    return iterators;
}

AutoDereference<CombiningIterator> combine(Iterators& iterators)
{
    return AutoDereference<CombiningIterator>(
        new CombiningIterator(AT_EXTSRC, "authority", "subject", iterators));
}

std::string next(CombiningIterator& iterator)
{
    const AutoDereference<Discovery> discovery(iterator.getNext());
    return discovery ? discovery->getSubject()->getSubject().utf8() : "null";
}

TEST(CombiningIteratorTest, AnEmptyVectorYieldsNullAtOnce)
{
    Iterators none;
    EXPECT_EQ(next(*combine(none)), "null");
}

TEST(CombiningIteratorTest, IteratorsThatYieldNothingAreSkipped)
{
    Iterators iterators = over({{}, {"a", "b"}, {"c"}});
    const auto combined = combine(iterators);
    EXPECT_EQ(next(*combined), "a");
    EXPECT_EQ(next(*combined), "b");
    EXPECT_EQ(next(*combined), "c");
    EXPECT_EQ(next(*combined), "null");
}

TEST(CombiningIteratorTest, AfterNullEveryFurtherCallIsNull)
{
    Iterators iterators = over({{"a"}, {}});
    const auto combined = combine(iterators);
    EXPECT_EQ(next(*combined), "a");
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(next(*combined), "null");
}

TEST(CombiningIteratorTest, DropsNoDuplicates)
{
    Iterators iterators = over({{"a"}, {"a"}});
    const auto combined = combine(iterators);
    EXPECT_EQ(next(*combined), "a");
    EXPECT_EQ(next(*combined), "a");
}

TEST(CombiningIteratorTest, HoldsItsOwnReferencesAndLeavesTheFiltersAlone)
{
    Iterators iterators = over({{"a"}});
    {
        const auto combined = combine(iterators);
        EXPECT_EQ(iterators[0]->referenceCount(), 2u);
        EXPECT_EQ(combined->getType(), AT_EXTSRC);
        EXPECT_EQ(combined->getAuthority(), "authority");
        EXPECT_EQ(combined->getSubject(), "subject");
        EXPECT_EQ(iterators[0]->getAuthority(), "own");
    }
    EXPECT_EQ(iterators[0]->referenceCount(), 1u);
}

TEST(CombiningIteratorTest, AnEmptyHolderIsAnIteratorOverNothing)
{
    Iterators iterators(1);
    iterators.emplace_back(new Names({"a"}));
    EXPECT_EQ(next(*combine(iterators)), "a");
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
