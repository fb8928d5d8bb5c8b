// The servants that page through records and through payloads.

#include <algorithm>
#include <chrono>
#include <cstring>
#include <limits>

#include <string_view>

#include <gtest/gtest.h>

#include <tlx/OrbKeys.h>

#include "CollectionDataIterator_i.h"
#include "DiscoveryIterator_i.h"
#include "PageBounds.h"

#include "ServiceFixture.h"
#include "support/Capture.h"
#include "support/PlainDiscovery.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {
namespace {

using QmTest::AssertionCapture;
using QmTest::Lines;
using QmTest::LogCapture;
using QmTest::MemoryData;

/// A record with a payload of a size. A negative size makes every read fail.
class Record : public QmTest::PlainDiscovery
{
  public:
    explicit Record(int size)
        : PlainDiscovery(size < 0
                             ? new MemoryData("", SIZE_MAX, MemoryData::ET_MINUS_ONE)
                             : new MemoryData(std::string(static_cast<std::size_t>(size), 'x')))
    {
    }
    explicit Record(const std::string& subject) : Record(0)
    {
        setSubject(new Subject(subject));
        setAuthority(new Authority("srv é", AT_QMKSERVER));
    }
    MemoryData& data() { return dynamic_cast<MemoryData&>(*getCollectionData()); }
};

class Records : public Tlx::DiscoverySvc::DiscoveryIterator
{
  public:
    explicit Records(int count, std::size_t nameLength = 3)
        : DiscoveryIterator(AT_ANYANDALL, "*", "*"), m_count(count), m_name(nameLength, 'n')
    {
    }
    Tlx::DiscoverySvc::Discovery* getNext() override
    {
        return m_next < m_count ? new Record(m_name + std::to_string(m_next++)) : nullptr;
    }

  private:
    const int m_count;
    const std::string m_name;
    int m_next = 0;
};

std::vector<std::size_t> pages(DiscoveryIterator_i& servant, std::size_t count)
{
    std::vector<std::size_t> sizes;
    while (sizes.size() < count) {
        const DiscoverySeq_var page = servant.getNextPage();
        sizes.push_back(page->length());
    }
    return sizes;
}

std::vector<std::size_t> pages(CollectionDataIterator_i& servant, std::size_t count)
{
    std::vector<std::size_t> sizes;
    while (sizes.size() < count) {
        const CollectionDataSeq_var page = servant.getNextPage();
        sizes.push_back(page->length());
    }
    return sizes;
}

using Sizes = std::vector<std::size_t>;

struct IteratorServantsTest : testing::Test
{
    static PortableServer::Servant_var<DiscoveryIterator_i> over(Records* records)
    {
        const AutoDereference<Tlx::DiscoverySvc::DiscoveryIterator> held(records);
        return new DiscoveryIterator_i(held.get());
    }
    PortableServer::Servant_var<CollectionDataIterator_i> over(int size)
    {
        record.reset(new Record(size));
        return new CollectionDataIterator_i(AutoDereference<Tlx::DiscoverySvc::Discovery>(record));
    }

    QmTest::Service service;
    AutoDereference<Record> record;
};

TEST_F(IteratorServantsTest, TwentyRecordsArePagesOfNineNineAndTwo)
{
    const auto servant = over(new Records(20));
    EXPECT_EQ(servant->pageSize(), 8);
    EXPECT_EQ(pages(*servant.in(), 5), (Sizes{9, 9, 2, 0, 0}));
}

TEST_F(IteratorServantsTest, PageSizeZeroIsOneRecordAPage)
{
    const auto servant = over(new Records(2));
    servant->pageSize(0);
    EXPECT_EQ(pages(*servant.in(), 3), (Sizes{1, 1, 0}));
}

TEST_F(IteratorServantsTest, ANegativePageSizeIsAnEmptyPage)
{
    const auto servant = over(new Records(2));
    servant->pageSize(-1);
    EXPECT_EQ(servant->pageSize(), -1);
    EXPECT_EQ(pages(*servant.in(), 1), (Sizes{0}));
    servant->pageSize(std::numeric_limits<CORBA::Long>::min());
    EXPECT_EQ(pages(*servant.in(), 1), (Sizes{0}));
}

TEST_F(IteratorServantsTest, TheLargestPageSizeIsAllThereIs)
{
    const auto servant = over(new Records(1000));
    servant->pageSize(std::numeric_limits<CORBA::Long>::max());
    EXPECT_EQ(pages(*servant.in(), 2), (Sizes{1000, 0}));
}

TEST_F(IteratorServantsTest, APageThatGrowsLargeIsShorterThanAskedFor)
{
    const auto servant = over(new Records(100, 100000));
    servant->pageSize(1000);
    std::size_t sum = 0;
    for (std::size_t size : pages(*servant.in(), 20)) {
        EXPECT_LE(size, 11u); // of 100,000 bytes each, in a page of about 1 MiB
        sum += size;
    }
    EXPECT_EQ(sum, 100u);
}

/// What a page of one record needs beside its subject: the estimate for the constant part, the
/// authority, the host and the service.
constexpr std::size_t BESIDE = 128 + std::string_view("srv%20é").size() +
                               std::string_view("here").size() +
                               std::string_view("DiscoveryService").size();

TEST_F(IteratorServantsTest, ARecordThatFillsAPageAndOneThatFitsIntoNone)
{
    // Records adds a digit to each name.
    const auto fits = over(new Records(2, MAX_PAGE_BYTES - BESIDE - 1));
    fits->pageSize(1000);
    EXPECT_EQ(pages(*fits.in(), 3), (Sizes{1, 1, 0}));
    const auto servant = over(new Records(3, MAX_PAGE_BYTES - BESIDE));
    LogCapture log;
    EXPECT_EQ(pages(*servant.in(), 1), (Sizes{0}));
    EXPECT_EQ(log.texts(1),
              Lines(3, "A record of 1048577 bytes fits into no page and is left out, its subject "
                       "begins with \"" +
                           std::string(64, 'n') + "\""));
}

TEST_F(IteratorServantsTest, ARecordThatIsLeftOutHidesNoOther)
{
    class Mixed : public Tlx::DiscoverySvc::DiscoveryIterator
    {
      public:
        Mixed() : DiscoveryIterator(AT_ANYANDALL, "*", "*") {}
        Tlx::DiscoverySvc::Discovery* getNext() override
        {
            const int number = m_next++;
            if (number >= 20)
                return nullptr;
            return new Record(number % 2 == 0 ? std::string(2 << 20, 'x') : std::string("small"));
        }

      private:
        int m_next = 0;
    };
    const AutoDereference<Tlx::DiscoverySvc::DiscoveryIterator> mixed(new Mixed);
    PortableServer::Servant_var<DiscoveryIterator_i> servant(new DiscoveryIterator_i(mixed.get()));
    EXPECT_EQ(pages(*servant.in(), 3), (Sizes{9, 1, 0}));
}

struct SmallMessagesTest : IteratorServantsTest
{
    SmallMessagesTest()
    {
        HostConfig::instance().declare(ORB_KEYS);
        HostConfig::instance().readText("SERVER = localhost\nCLIENT_NAME = here\n"
                                        "MAX_MESSAGE_BYTES = 65536\n",
                                        "qm.conf");
    }
    static constexpr std::size_t LARGEST = 65536 - PAGE_HEADER_BYTES;
};

TEST_F(SmallMessagesTest, ThePageFitsIntoTheSmallestMessage)
{
    EXPECT_EQ(largestPage(), LARGEST);
    const auto bytes = over(100000);
    bytes->pageSize(std::numeric_limits<CORBA::Long>::max());
    EXPECT_EQ(pages(*bytes.in(), 3), (Sizes{LARGEST, 100000 - LARGEST, 0}));
    const auto fits = over(new Records(1, LARGEST - BESIDE - 1));
    EXPECT_EQ(pages(*fits.in(), 2), (Sizes{1, 0}));
    const auto tooLong = over(new Records(1, LARGEST - BESIDE));
    EXPECT_EQ(pages(*tooLong.in(), 1), (Sizes{0}));
}

TEST_F(SmallMessagesTest, EveryRecordComesInSomePage)
{
    const auto servant = over(new Records(1000, 1000));
    servant->pageSize(std::numeric_limits<CORBA::Long>::max());
    std::size_t sum = 0;
    for (const std::size_t size : pages(*servant.in(), 30)) {
        EXPECT_LE(size * 1000, LARGEST);
        sum += size;
    }
    EXPECT_EQ(sum, 1000u);
}

TEST_F(IteratorServantsTest, APageHasNamesTypeAndSource)
{
    const auto servant = over(new Records(1));
    DiscoverySeq_var page = servant->getNextPage();
    ASSERT_EQ(page->length(), 1u);
    const Remote::Discovery& row = page[0];
    EXPECT_STREQ(row.subject, "nnn0");
    const Authority authority("srv é", AT_QMKSERVER);
    EXPECT_EQ(std::string(row.authority), authority.getName().utf8());
    EXPECT_EQ(row.authType, AT_QMKSERVER);
    EXPECT_STREQ(row.sourceHost, "here");
    EXPECT_STREQ(row.sourceServiceName, "DiscoveryService");
    // Members that a page leaves unset are zeros on the wire.
    EXPECT_EQ(row.queryType, DQ_UNDEFINED);
    EXPECT_EQ(row.attributes.colType, CT_CONFIGURATION);
    EXPECT_EQ(row.attributes.colStorage, CS_LOCALONLY);
    EXPECT_EQ(row.attributes.priority, 0);
    EXPECT_EQ(row.attributes.timeToLive, 0u);
    EXPECT_EQ(row.attributes.discoveryTime, 0u);
}

TEST_F(IteratorServantsTest, TwentyBytesArePagesOfEightEightAndFour)
{
    const auto servant = over(20);
    ASSERT_TRUE(servant->open(""));
    EXPECT_EQ(servant->pageSize(), 8);
    EXPECT_EQ(pages(*servant.in(), 4), (Sizes{8, 8, 4, 0}));
}

TEST_F(IteratorServantsTest, ABytePageNeverAsksForMoreThanItMayHold)
{
    const auto servant = over(100);
    servant->pageSize(std::numeric_limits<CORBA::Long>::max());
    EXPECT_EQ(pages(*servant.in(), 2), (Sizes{100, 0}));
    EXPECT_EQ(record->data().largestRead, MAX_PAGE_BYTES);
}

TEST_F(IteratorServantsTest, ABytePageOfZeroOrLessIsEmpty)
{
    const auto servant = over(100);
    for (const CORBA::Long size : {0, -1, std::numeric_limits<CORBA::Long>::min()}) {
        servant->pageSize(size);
        EXPECT_EQ(servant->pageSize(), size);
        EXPECT_EQ(pages(*servant.in(), 1), (Sizes{0}));
    }
    EXPECT_EQ(record->data().largestRead, 0u);
}

TEST_F(IteratorServantsTest, AReadThatFailsIsAnEmptyPageAndALine)
{
    const auto servant = over(-1);
    LogCapture log;
    EXPECT_EQ(pages(*servant.in(), 1), (Sizes{0}));
    EXPECT_EQ(log.texts(1), Lines{"Failed to read from CollectionData"});
    EXPECT_EQ(log.lines()[0].operation, "CollectionDataIterator_i::getNextPage");
    EXPECT_EQ(log.lines()[0].source, "DiscoveryService_i");
}

TEST_F(IteratorServantsTest, OpeningHandsTheFilterOn)
{
    const auto servant = over(1);
    std::string opened;
    record->data().onOpen = [&](OpenMode mode, const char* filter) {
        opened = mode == OM_READ ? filter : "?";
    };
    EXPECT_TRUE(servant->open("some filter"));
    EXPECT_EQ(opened, "some filter");
}

TEST_F(IteratorServantsTest, APayloadThatCannotBeOpened)
{
    const auto servant = over(1);
    record->data().opens = false;
    LogCapture log;
    EXPECT_FALSE(servant->open(""));
    EXPECT_EQ(log.texts(1), Lines{"Failed to open collection"});
}

TEST_F(IteratorServantsTest, ReleaseWithoutActivationStillDropsItsData)
{
    AssertionCapture assertions;
    const auto records = over(new Records(20));
    const auto bytes = over(20);
    LogCapture log;
    records->release();
    EXPECT_EQ(log.texts(4), Lines{"releasing discovery iterator"});
    EXPECT_EQ(log.texts(1), Lines{"Nothing to be evicted, Object ID is not valid"});
    log.clear();
    EXPECT_EQ(record->referenceCount(), 2u);
    bytes->release();
    EXPECT_EQ(log.texts(4), Lines{"Releasing collection data iterator"});
    EXPECT_EQ(log.texts(1), Lines{"Nothing to be evicted, Object ID is not valid"});
    EXPECT_EQ(record->referenceCount(), 1u);
    EXPECT_EQ(assertions.texts(), Lines{});
}

TEST_F(IteratorServantsTest, ReadingAfterReleaseIsReported)
{
    const auto records = over(new Records(20));
    const auto bytes = over(20);
    records->release();
    bytes->release();
    AssertionCapture assertions;
    EXPECT_EQ(pages(*records.in(), 1), (Sizes{0}));
    EXPECT_EQ(assertions.texts(), Lines{"NULL != m_discoveryIterator"});
    EXPECT_EQ(pages(*bytes.in(), 1), (Sizes{0}));
}

TEST_F(IteratorServantsTest, ReleaseDeactivatesSoThatALaterCallFails)
{
    PortableServer::Servant_var<DiscoveryIterator_i> servant = over(new Records(1));
    const PortableServer::POA_ptr poa = getDiscoveryRepository()->getPOA();
    servant->m_objectId = poa->activate_object(servant.in());
    const DiscoveryIterator_var reference = servant->_this();
    add2Evictor(servant->m_objectId.in(), poa, *service.orb, ITERATOR_TIMEOUT_SECONDS);
    EXPECT_EQ(service.orb->getEvictor().watched(), 1u);
    reference->release();
    EXPECT_EQ(service.orb->getEvictor().watched(), 0u);
    EXPECT_THROW(reference->pageSize(), CORBA::SystemException);
    EXPECT_THROW(reference->release(), CORBA::SystemException);
}

TEST_F(IteratorServantsTest, AnIteratorThatIsNeverReleasedIsEvicted)
{
    PortableServer::Servant_var<DiscoveryIterator_i> servant = over(new Records(1));
    const PortableServer::POA_ptr poa = getDiscoveryRepository()->getPOA();
    servant->m_objectId = poa->activate_object(servant.in());
    const DiscoveryIterator_var reference = servant->_this();
    servant = nullptr;
    const PortableServer::ObjectId_var id = poa->reference_to_id(reference);
    add2Evictor(id.in(), poa, *service.orb, 0);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (service.orb->getEvictor().watched() > 0 && std::chrono::steady_clock::now() < end)
        std::this_thread::yield();
    EXPECT_THROW(
        {
            while (std::chrono::steady_clock::now() < end)
                reference->pageSize();
        },
        CORBA::SystemException);
}

TEST_F(IteratorServantsTest, IteratorsMayBeIdleForFiveMinutes)
{
    EXPECT_EQ(ITERATOR_TIMEOUT_SECONDS, 300);
}

TEST_F(IteratorServantsTest, AnEvictorThatRefusesIsLoggedAndThrownOn)
{
    PortableServer::Servant_var<DiscoveryIterator_i> servant = over(new Records(1));
    const PortableServer::POA_ptr poa = getDiscoveryRepository()->getPOA();
    servant->m_objectId = poa->activate_object(servant.in());
    service.orb->getEvictor().shutdown();
    LogCapture log;
    EXPECT_THROW(add2Evictor(servant->m_objectId.in(), poa, *service.orb, 300),
                 CORBA::BAD_INV_ORDER);
    EXPECT_EQ(log.texts(1), Lines{"Caught CORBA exception while add2Evictor, BAD_INV_ORDER (minor "
                                  "0x00000000, COMPLETED_NO)"});
    EXPECT_EQ(log.lines()[0].operation, "add2Evictor");
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
