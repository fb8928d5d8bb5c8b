// The servant that receives one record.

#include "RemoteWriter_i.h"

#include <functional>

#include <gtest/gtest.h>

#include "OpenObjects.h"
#include "ServiceFixture.h"
#include "support/Capture.h"
#include "support/TemporaryDirectory.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {
namespace {

using QmTest::AssertionCapture;
using QmTest::contentOf;
using QmTest::Lines;
using QmTest::LogCapture;

Remote::Discovery incoming(const char* subject, const char* authority)
{
    Remote::Discovery discovery;
    discovery.queryType = DQ_DISCOVERY_DATA;
    discovery.subject = CORBA::string_dup(subject);
    discovery.authority = CORBA::string_dup(authority);
    discovery.authType = AT_QMKSERVER;
    discovery.attributes = {CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, 7, 4000000000u, 1000};
    discovery.sourceHost = CORBA::string_dup("");
    discovery.sourceServiceName = CORBA::string_dup("");
    return discovery;
}

CollectionDataSeq bytes(const std::string& text)
{
    CollectionDataSeq seq;
    seq.length(static_cast<CORBA::ULong>(text.size()));
    for (CORBA::ULong i = 0; i < seq.length(); ++i)
        seq[i] = static_cast<CORBA::Octet>(text[i]);
    return seq;
}

/// Hands a writer out as the service does, and drops the reference of its creation.
RemoteWriter_ptr activate(RemoteWriter_i* writer)
{
    const PortableServer::ServantBase_var creation = writer;
    OpenObjects::Admission admission = openObjects().admit(OpenKind::Writer, *writer);
    EXPECT_TRUE(admission.isAdmitted());
    const CORBA::Object_var reference = admission.activate();
    RemoteWriter_var narrowed = RemoteWriter::_narrow(reference);
    admission.keep();
    return narrowed._retn();
}

/// A payload that records the written bytes, and returns the results that the test sets.
struct RecordingData : CollectionData
{
    bool open(OpenMode, const char*) override { return true; }
    std::size_t readCollection(std::size_t, void*) const override { return 0; }
    bool writeCollection(std::size_t length, const void*) const override
    {
        lengths.push_back(length);
        if (onWrite)
            onWrite();
        return answer;
    }
    mutable std::vector<std::size_t> lengths;
    std::function<void()> onWrite;
    bool answer = true;
};

struct RecordingDiscovery : Tlx::DiscoverySvc::Discovery
{
    explicit RecordingDiscovery(RecordingData* data)
        : Tlx::DiscoverySvc::Discovery(data, DQ_DISCOVERY_DATA)
    {
    }
    DiscoveryResult persist() override { return {DS_SUCCESS, 0}; }
    DiscoveryResult open(OpenMode, const char*) override { return {DS_SUCCESS, 0}; }
};

/// A repository that returns the records of the test.
struct RecordingRepository : DiscoveryRepository
{
    void newDiscovery(AutoDereference<Tlx::DiscoverySvc::Discovery>& out, DiscoveryQuery,
                      const Subject&, const Authority&, const CollectionAttributes&) const override
    {
        data = new RecordingData;
        out.reset(new RecordingDiscovery(data));
    }
    mutable RecordingData* data = nullptr;
};

struct RecordingWriter : RemoteWriter_i
{
    RecordingWriter(const Remote::Discovery& discovery, RecordingRepository& repository)
        : RemoteWriter_i(discovery), m_repository(repository)
    {
    }
    DiscoveryRepository* getDiscoveryRepository() const override { return &m_repository; }

  private:
    RecordingRepository& m_repository;
};

struct RemoteWriterTest : testing::Test
{
    void SetUp() override
    {
        if (!QmTest::mayOpenRecords())
            GTEST_SKIP() << "records are created with permissions 0: needs root";
    }
    QmTest::Service service;
};

TEST_F(RemoteWriterTest, StoresWhatItReceives)
{
    auto* writer = new RemoteWriter_i(incoming("cl5", "srv1"));
    EXPECT_EQ(writer->open().discStatus, DS_SUCCESS);
    const RemoteWriter_var reference = activate(writer);
    EXPECT_TRUE(reference->put(bytes("one ")));
    EXPECT_TRUE(reference->put(bytes("two")));
    EXPECT_EQ(reference->close().discStatus, DS_SUCCESS);
    EXPECT_EQ(contentOf(service.store() / "1 srv1 cl5.dat"), "one two");
}

TEST_F(RemoteWriterTest, TimesArriveAsSeconds)
{
    TlxObjTime::setClock([] { return TlxObjTime(100, 5); });
    auto* writer = new RemoteWriter_i(incoming("cl5", "srv1"));
    EXPECT_EQ(writer->open().discStatus, DS_SUCCESS);
    const RemoteWriter_var reference = activate(writer);
    EXPECT_EQ(reference->close().discStatus, DS_SUCCESS);
    const AutoDereference<Tlx::DiscoverySvc::Discovery> stored(
        getDiscoveryDBDatabase()->getDiscovery("1 srv1 cl5.xml"));
    TlxObjTime::setClock({});
    ASSERT_TRUE(stored);
    const CollectionAttributes& attributes = *stored->getAttributes();
    EXPECT_EQ(attributes.getType(), CT_POINT_IN_TIME);
    EXPECT_EQ(attributes.getStorage(), CS_CENTRALREPOSITORY);
    EXPECT_EQ(attributes.getPriority(), 7u);
    EXPECT_EQ(attributes.getDiscoveryTime(), TlxObjTime(1000, 0));
    EXPECT_EQ(attributes.getExpiresTime().seconds(), 100 + 5000000000);
}

TEST_F(RemoteWriterTest, AnEmptyPutIsAWriteOfNothing)
{
    auto* writer = new RemoteWriter_i(incoming("cl5", "srv1"));
    EXPECT_EQ(writer->open().discStatus, DS_SUCCESS);
    const RemoteWriter_var reference = activate(writer);
    EXPECT_TRUE(reference->put(CollectionDataSeq()));
    EXPECT_EQ(reference->close().discStatus, DS_SUCCESS);
    EXPECT_EQ(contentOf(service.store() / "1 srv1 cl5.dat"), "");
}

TEST_F(RemoteWriterTest, EveryPutIsOneWriteAndAnswersWhatTheBackendDoes)
{
    const AutoDereference<RecordingRepository> repository(new RecordingRepository);
    PortableServer::Servant_var<RecordingWriter> writer(
        new RecordingWriter(incoming("cl5", "srv1"), *repository));
    EXPECT_EQ(writer->open().discStatus, DS_SUCCESS);
    EXPECT_TRUE(writer->put(CollectionDataSeq()));
    EXPECT_TRUE(writer->put(bytes("abc")));
    repository->data->answer = false;
    EXPECT_FALSE(writer->put(CollectionDataSeq()));
    EXPECT_EQ(repository->data->lengths, (std::vector<std::size_t>{0, 3, 0}));
}

TEST_F(RemoteWriterTest, ACallBackToItsOwnWriterIsRefused)
{
    const AutoDereference<RecordingRepository> repository(new RecordingRepository);
    auto* writer = new RecordingWriter(incoming("cl5", "srv1"), *repository);
    EXPECT_EQ(writer->open().discStatus, DS_SUCCESS);
    const RemoteWriter_var reference = activate(writer);
    // As when the master's writer is a reference to this one.
    repository->data->onWrite = [&] {
        if (repository->data->lengths.size() > 1)
            return;
        EXPECT_THROW(reference->put(bytes("again")), CORBA::NO_PERMISSION);
        EXPECT_THROW(reference->close(), CORBA::NO_PERMISSION);
    };
    EXPECT_TRUE(reference->put(bytes("abc")));
    EXPECT_EQ(repository->data->lengths, std::vector<std::size_t>{3});
    EXPECT_EQ(reference->close().discStatus, DS_SUCCESS);
}

TEST_F(RemoteWriterTest, AfterACloseThereIsNoWriter)
{
    auto* writer = new RemoteWriter_i(incoming("cl5", "srv1"));
    EXPECT_EQ(writer->open().discStatus, DS_SUCCESS);
    const RemoteWriter_var reference = activate(writer);
    EXPECT_EQ(reference->close().discStatus, DS_SUCCESS);
    EXPECT_THROW(reference->close(), CORBA::OBJECT_NOT_EXIST);
    EXPECT_THROW(reference->put(bytes("x")), CORBA::OBJECT_NOT_EXIST);
}

TEST_F(RemoteWriterTest, ASecondCloseThatSlipsInDropsNothingTwice)
{
    auto* writer = new RemoteWriter_i(incoming("cl5", "srv1"));
    const PortableServer::ServantBase_var held = writer;
    EXPECT_EQ(writer->open().discStatus, DS_SUCCESS);
    EXPECT_EQ(writer->close().discStatus, DS_SUCCESS);
    EXPECT_EQ(writer->_refcount_value(), 1);
    const AssertionCapture assertions;
    EXPECT_THROW(writer->close(), CORBA::OBJECT_NOT_EXIST);
    EXPECT_THROW(writer->put(bytes("x")), CORBA::OBJECT_NOT_EXIST);
    EXPECT_EQ(writer->_refcount_value(), 1);
    EXPECT_EQ(assertions.texts(), Lines{});
}

TEST_F(RemoteWriterTest, PutAndCloseWithoutARecordAreReported)
{
    auto* writer = new RemoteWriter_i(incoming("cl5", "srv1"));
    const PortableServer::ServantBase_var held = writer;
    AssertionCapture assertions;
    EXPECT_FALSE(writer->put(bytes("x")));
    EXPECT_EQ(writer->close().discStatus, DS_OPEN_FAILED);
    EXPECT_EQ(assertions.texts(), (Lines{"NULL != m_discovery", "NULL != m_discovery"}));
}

TEST_F(RemoteWriterTest, AStopGivesUpWhatWasNeverClosed)
{
    auto* writer = new RemoteWriter_i(incoming("cl5", "srv1"));
    EXPECT_EQ(writer->open().discStatus, DS_SUCCESS);
    const RemoteWriter_var reference = activate(writer);
    EXPECT_TRUE(reference->put(bytes("half of it")));
    EXPECT_TRUE(std::filesystem::exists(service.store() / "0.updating"));
    service.stop();
    EXPECT_FALSE(std::filesystem::exists(service.store() / "0.updating"));
    EXPECT_FALSE(std::filesystem::exists(service.store() / "1 srv1 cl5.xml"));
}

TEST_F(RemoteWriterTest, CloseReturnsTheFailureOfThePersist)
{
    auto* writer = new RemoteWriter_i(incoming("cl5", "srv1"));
    EXPECT_EQ(writer->open().discStatus, DS_SUCCESS);
    const RemoteWriter_var reference = activate(writer);
    // Meanwhile another writer stores the same record with a higher priority.
    Remote::Discovery higher = incoming("cl5", "srv1");
    higher.attributes.priority = 8;
    auto* other = new RemoteWriter_i(higher);
    EXPECT_EQ(other->open().discStatus, DS_SUCCESS);
    const RemoteWriter_var otherReference = activate(other);
    EXPECT_EQ(otherReference->close().discStatus, DS_SUCCESS);
    EXPECT_EQ(reference->close().discStatus, DS_DATA_EXISTS);
    EXPECT_THROW(reference->close(), CORBA::OBJECT_NOT_EXIST);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
