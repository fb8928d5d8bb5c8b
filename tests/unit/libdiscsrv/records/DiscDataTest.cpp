// The record model.

#include "DiscData.h"

#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/Capture.h"
#include "support/PlainDiscovery.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::AssertionCapture;
using QmTest::MemoryData;
using QmTest::PlainDiscovery;
using QmTest::written;

using Texts = std::vector<std::string>;

class PlainIterator : public DiscoveryIterator
{
  public:
    PlainIterator() : DiscoveryIterator(AT_ANYANDALL, "*", "*") {}
    PlainIterator(AuthorityType type, std::string authority, std::string subject)
        : DiscoveryIterator(type, std::move(authority), std::move(subject))
    {
    }
    Discovery* getNext() override { return nullptr; }
};

struct DiscDataTest : testing::Test
{
    ~DiscDataTest() override { TlxObjTime::setClock({}); }
    static void setNow(TlxObjTime now)
    {
        TlxObjTime::setClock([now] { return now; });
    }
    static TlxObjTime expiresAfter(TlxObjTime timeToLive)
    {
        return CollectionAttributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, TlxObjTime(),
                                    timeToLive, 0)
            .getExpiresTime();
    }
};

TEST_F(DiscDataTest, NumbersHaveTheirSizes)
{
    EXPECT_EQ(sizeof(PollingInterval), 8u);
    EXPECT_EQ(sizeof(ExplorerPriority), 4u);
    EXPECT_STREQ(PRIORITY, "Priority");
}

TEST_F(DiscDataTest, OnlySuccessIsSuccess)
{
    EXPECT_TRUE(isSuccess({DS_SUCCESS, 5}));
    for (const DiscoveryStatus status :
         {DS_NONE_FOUND, DS_LOGIC_ERROR, DS_OPEN_FAILED, DS_COM_ERROR, DS_DATA_EXISTS})
        EXPECT_FALSE(isSuccess({status, 0})) << status;
}

TEST_F(DiscDataTest, SubjectsThatDifferInCaseAreEqual)
{
    EXPECT_TRUE(Subject("HostA") == Subject("hosta"));
    EXPECT_FALSE(Subject("HostA") > Subject("hosta"));
    EXPECT_FALSE(Subject("hosta") > Subject("HostA"));
    EXPECT_TRUE(Subject("b") > Subject("A"));
    EXPECT_FALSE(Subject("A") > Subject("b"));
    EXPECT_FALSE(Subject("HostA") == Subject("HostAB"));
}

TEST_F(DiscDataTest, AuthoritiesOfOtherTypesAreNotEqual)
{
    EXPECT_FALSE(Authority("x", AT_QMKSERVER) == Authority("X", AT_QMKCLIENT));
    EXPECT_TRUE(Authority("x", AT_QMKSERVER) == Authority("X", AT_QMKSERVER));
    EXPECT_FALSE(Authority("x", AT_QMKSERVER) == Authority("y", AT_QMKSERVER));
}

TEST_F(DiscDataTest, AnAuthorityOfGreaterTypeIsGreaterAlthoughItsNameIsLess)
{
    EXPECT_TRUE(Authority("a", AT_REMOTEPULL) > Authority("b", AT_QMKSERVER));
    EXPECT_TRUE(Authority("b", AT_QMKSERVER) > Authority("a", AT_REMOTEPULL));
    EXPECT_FALSE(Authority("a", AT_QMKSERVER) > Authority("b", AT_QMKSERVER));
    EXPECT_FALSE(Authority("a", AT_QMKSERVER) > Authority("A", AT_QMKSERVER));
    EXPECT_TRUE(Authority("a", AT_QMKCLIENT) > Authority("A", AT_QMKSERVER));
    EXPECT_FALSE(Authority("a", AT_QMKSERVER) > Authority("a", AT_QMKCLIENT));
}

TEST_F(DiscDataTest, ANameHasADisplayFormAndAFileNameForm)
{
    const Subject subject("a b/c%41");
    EXPECT_EQ(subject.getSubject().utf8(), "a%20b/cA");
    EXPECT_EQ(subject.getSubjectFileName().utf8(), "a%20b%2FcA");
    const Authority authority("s\xc3\xa9", AT_EXTSRC);
    EXPECT_EQ(authority.getName().utf8(), "s\xc3\xa9");
    EXPECT_EQ(authority.getNameFileName().utf8(), "s%C3%A9");
}

TEST_F(DiscDataTest, BothFormsOfANameStandForTheSameName)
{
    for (const std::string& name :
         {std::string("a b/c"), std::string("100%"), std::string("%2541"), std::string("..\xff"),
          std::string("\0x", 2), std::string("<\"&'>"), std::string("cl*?")}) {
        const Subject subject(name);
        for (const TlxString& form : {subject.getSubject(), subject.getSubjectFileName()}) {
            const Subject again(form.utf8());
            EXPECT_TRUE(again == subject);
            EXPECT_EQ(again.getSubject(), subject.getSubject());
            EXPECT_EQ(again.getSubjectFileName(), subject.getSubjectFileName());
        }
        const Authority authority(name, AT_EXTSRC);
        for (const TlxString& form : {authority.getName(), authority.getNameFileName()}) {
            const Authority again(form.utf8(), AT_EXTSRC);
            EXPECT_TRUE(again == authority);
            EXPECT_EQ(again.getNameFileName(), authority.getNameFileName());
        }
    }
}

TEST_F(DiscDataTest, NamesComeFromUrisToo)
{
    const Subject subject(Uri("host 7"));
    EXPECT_EQ(subject.getSubject().utf8(), "host%207");
    EXPECT_EQ(subject.getSubjectFileName().utf8(), "host%207");
    const Authority ofUri(Uri("qm://srv 1/path"), AT_QMKSERVER);
    EXPECT_EQ(ofUri.getName().utf8(), "srv%201");
    EXPECT_EQ(ofUri.getType(), AT_QMKSERVER);
    const Authority ofAuthority(UriAuthority("srv:1"), AT_REMOTEPULL);
    EXPECT_EQ(ofAuthority.getName().utf8(), "srv:1");
    EXPECT_EQ(ofAuthority.getNameFileName().utf8(), "srv%3A1");
    EXPECT_EQ(ofAuthority.getType(), AT_REMOTEPULL);
}

TEST_F(DiscDataTest, EmptyNamesAreReported)
{
    const AssertionCapture assertions;
    const Subject subject("");
    const Authority authority("", AT_EXTSRC);
    EXPECT_EQ(assertions.texts(), (Texts{"m_subject.size()", "name.size()", "m_name.size()"}));
    EXPECT_TRUE(subject.getSubjectFileName().empty());
    EXPECT_TRUE(authority.getNameFileName().empty());
}

TEST_F(DiscDataTest, EmptyNamesOfUrisAreReported)
{
    const AssertionCapture assertions;
    const Subject subject{Uri()};
    const Authority ofUri(Uri("no authority"), AT_EXTSRC);
    const Authority ofAuthority(UriAuthority(), AT_EXTSRC);
    EXPECT_EQ(assertions.texts(), (Texts{"m_subject.size()", "m_name.size()", "m_name.size()"}));
}

TEST_F(DiscDataTest, AStatusMessageIsSharedWithWhoGaveIt)
{
    const AutoDereference<StatusMsg> message(new StatusMsg(3, "late"));
    {
        const Subject subject("a", message.get());
        const Subject ofUri(Uri("a"), message.get());
        const Authority authority("a", AT_EXTSRC, message.get());
        EXPECT_EQ(subject.getStatusMsg(), message.get());
        EXPECT_EQ(ofUri.getStatusMsg(), message.get());
        EXPECT_EQ(authority.getStatusMsg(), message.get());
        EXPECT_EQ(message->referenceCount(), 4);
    }
    EXPECT_EQ(message->referenceCount(), 1);
    EXPECT_EQ(Subject("a").getStatusMsg(), nullptr);
}

TEST_F(DiscDataTest, ARecordLivesAQuarterLongerThanItsTimeToLive)
{
    setNow(TlxObjTime(1000, 500));
    EXPECT_EQ(expiresAfter(TlxObjTime(100)), TlxObjTime(1125, 500));
    EXPECT_EQ(expiresAfter(TlxObjTime(1)), TlxObjTime(1001, 250500));
    // Fractions of a microsecond are cut off.
    EXPECT_EQ(expiresAfter(TlxObjTime(0, 3)), TlxObjTime(1000, 503));
    EXPECT_EQ(expiresAfter(TlxObjTime(3, 3)), TlxObjTime(1003, 750503));
    setNow(TlxObjTime(1000, 999999));
    EXPECT_EQ(expiresAfter(TlxObjTime(7, 999999)), TlxObjTime(1010, 999997));
}

TEST_F(DiscDataTest, ATimeToLiveOfZeroNeverExpiresAndAHugeOneSaturates)
{
    EXPECT_TRUE(expiresAfter(TlxObjTime()).isZero());
    EXPECT_EQ(expiresAfter(TlxObjTime::max()), TlxObjTime::max());
    EXPECT_EQ(expiresAfter(TlxObjTime::fromUnsignedSeconds(~std::uint64_t{0})), TlxObjTime::max());
}

TEST_F(DiscDataTest, AttributesKeepWhatTheyAreGiven)
{
    CollectionAttributes attributes(CT_REAL_TIME, CS_CENTRALREPOSITORY, TlxObjTime(5, 6),
                                    TlxObjTime(7, 8), 0xFFFFFFFF);
    EXPECT_EQ(attributes.getType(), CT_REAL_TIME);
    EXPECT_EQ(attributes.getStorage(), CS_CENTRALREPOSITORY);
    EXPECT_EQ(attributes.getDiscoveryTime(), TlxObjTime(5, 6));
    EXPECT_EQ(attributes.getTimeToLive(), TlxObjTime(7, 8));
    EXPECT_EQ(attributes.getPriority(), 0xFFFFFFFF);
    EXPECT_TRUE(attributes.getSignature().empty());
}

// Objects with identity are not copied by accident.
static_assert(!std::is_copy_constructible_v<PlainDiscovery>);
static_assert(!std::is_copy_assignable_v<PlainDiscovery>);
static_assert(!std::is_copy_constructible_v<QmTest::MemoryData>);
static_assert(!std::is_copy_constructible_v<PlainIterator>);

/// Logs the order in which the parts of a record are destroyed.
template <class Part>
struct Watched : Part
{
    template <class... Arguments>
    Watched(Texts& log, std::string name, Arguments... arguments)
        : Part(arguments...), m_log(log), m_name(std::move(name))
    {
    }
    ~Watched() override { m_log.push_back(m_name); }

  private:
    Texts& m_log;
    std::string m_name;
};

TEST_F(DiscDataTest, ARecordOwnsItsParts)
{
    Texts gone;
    AutoDereference<PlainDiscovery> record(
        new PlainDiscovery(new Watched<MemoryData>(gone, "data 1")));
    EXPECT_EQ(record->getAuthority(), nullptr);
    EXPECT_EQ(record->getSubject(), nullptr);
    EXPECT_EQ(record->getAttributes(), nullptr);
    EXPECT_EQ(record->getQuery(), DQ_DISCOVERY_DATA);
    const auto fill = [&](const std::string& round) {
        record->setAuthority(new Watched<Authority>(gone, "authority " + round, "a", AT_EXTSRC));
        record->setSubject(new Watched<Subject>(gone, "subject " + round, "s"));
        record->setAttributes(new Watched<CollectionAttributes>(gone, "attributes " + round,
                                                                CT_REAL_TIME, CS_LOCALONLY,
                                                                TlxObjTime(), TlxObjTime(), 1u));
    };
    fill("1");
    record->setCollectionData(new Watched<MemoryData>(gone, "data 2"));
    EXPECT_EQ(gone, Texts{"data 1"});
    gone.clear();
    fill("2");
    EXPECT_EQ(gone, (Texts{"authority 1", "subject 1", "attributes 1"}));
    gone.clear();
    // A reference that is held stays valid.
    record->setSubject(record->getSubject());
    EXPECT_EQ(gone, Texts{});
    record.reset();
    EXPECT_EQ(gone, (Texts{"data 2", "attributes 2", "subject 2", "authority 2"}));
}

TEST_F(DiscDataTest, ARecordMayBeEmptiedAgain)
{
    const AutoDereference<PlainDiscovery> record(new PlainDiscovery(nullptr));
    EXPECT_EQ(record->getCollectionData(), nullptr);
    record->setSubject(new Subject("s"));
    record->setSubject(nullptr);
    EXPECT_EQ(record->getSubject(), nullptr);
}

TEST_F(DiscDataTest, AnIteratorTakesItsNamesAsTheyAre)
{
    const PlainIterator iterator(AT_EXTSRC, "a b%", "");
    EXPECT_EQ(iterator.getType(), AT_EXTSRC);
    EXPECT_EQ(iterator.getAuthority(), "a b%");
    EXPECT_EQ(iterator.getSubject(), "");
}

TEST_F(DiscDataTest, AnIteratorIsNotNarrowedByEmptyNamesAndWildcards)
{
    const AssertionCapture assertions;
    PlainIterator iterator;
    iterator.setSubject("cl 5");
    iterator.setSubject("*");
    iterator.setSubject("*x");
    iterator.setSubject("");
    EXPECT_EQ(iterator.getSubject(), "cl%205");
    iterator.setAuthority("cl*", AT_QMKCLIENT);
    EXPECT_EQ(iterator.getType(), AT_QMKCLIENT);
    iterator.setAuthority("*x", AT_EXTSRC);
    EXPECT_EQ(iterator.getType(), AT_EXTSRC);
    iterator.setAuthority("", AT_QMKSERVER);
    EXPECT_EQ(iterator.getAuthority(), "cl*");
    EXPECT_EQ(iterator.getType(), AT_QMKSERVER);
    EXPECT_EQ(assertions.texts(), Texts{});
}

TEST_F(DiscDataTest, AnIteratorTakesUrisWithoutExceptions)
{
    PlainIterator iterator;
    iterator.setSubject(Uri("cl 5"));
    EXPECT_EQ(iterator.getSubject(), "cl%205");
    iterator.setSubject(Uri("*"));
    EXPECT_EQ(iterator.getSubject(), "*");
    iterator.setAuthority(Uri("qm://srv 1/x"), AT_QMKSERVER);
    EXPECT_EQ(iterator.getAuthority(), "srv%201");
    EXPECT_EQ(iterator.getType(), AT_QMKSERVER);
    iterator.setAuthority(UriAuthority("srv/2"), AT_EXTSRC);
    EXPECT_EQ(iterator.getAuthority(), "srv%2F2");
    EXPECT_EQ(iterator.getType(), AT_EXTSRC);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
