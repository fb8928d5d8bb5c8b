#pragma once
// A store in a temporary directory, and its records.

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ServiceFixture.h"
#include "support/Descriptors.h"
#include "support/TemporaryDirectory.h"

namespace QmTest {

/// The files of the record that RecordOf describes by default.
constexpr const char* METADATA = "1 srv1 cl5.xml";
constexpr const char* PAYLOAD = "1 srv1 cl5.dat";

/// The values of a record.
struct RecordOf
{
    std::string subject = "cl5";
    std::string authority = "srv1";
    Disc::AuthorityType type = Disc::AT_QMKSERVER;
    unsigned priority = 5;
    long timeToLive = 0; ///< seconds
    std::string payload = "payload";
};

class Store : public testing::Test
{
  protected:
    void SetUp() override
    {
        if (!mayOpenRecords())
            GTEST_SKIP() << "records are created with permissions 0: needs root";
        Disc::getDiscoveryDBDatabase()->init(dir());
        setNow(1000);
    }
    ~Store() override { Tlx::TlxObjTime::setClock({}); }

    static void setNow(long seconds, int microseconds = 0)
    {
        Tlx::TlxObjTime::setClock([=] { return Tlx::TlxObjTime(seconds, microseconds); });
    }
    std::string dir() const { return m_directory.path().string(); }
    std::filesystem::path path(const std::string& name) const { return m_directory.path() / name; }

    /// A new record with its attributes.
    static Tlx::AutoDereference<Disc::DBDiscovery> make(const RecordOf& of)
    {
        Tlx::AutoDereference<Disc::DBDiscovery> record(dynamic_cast<Disc::DBDiscovery*>(
            Disc::getDiscoveryDBDatabase()->newDiscovery(Disc::DQ_DISCOVERY_DATA)));
        record->setSubject(new Disc::Subject(of.subject));
        record->setAuthority(new Disc::Authority(of.authority, of.type));
        record->setAttributes(new Disc::CollectionAttributes(
            Disc::CT_POINT_IN_TIME, Disc::CS_CENTRALREPOSITORY, Tlx::TlxObjTime::now(),
            Tlx::TlxObjTime(of.timeToLive), of.priority));
        return record;
    }
    static Disc::DiscoveryStatus put(const RecordOf& of)
    {
        const auto record = make(of);
        const Disc::DiscoveryStatus status = record->open(Disc::OM_UPDATE, "").discStatus;
        if (status != Disc::DS_SUCCESS)
            return status;
        EXPECT_TRUE(
            record->getCollectionData()->writeCollection(of.payload.size(), of.payload.data()));
        return record->persist().discStatus;
    }
    static Tlx::AutoDereference<Disc::DBDiscovery> find(const std::string& fileName)
    {
        return Tlx::AutoDereference<Disc::DBDiscovery>(dynamic_cast<Disc::DBDiscovery*>(
            Disc::getDiscoveryDBDatabase()->getDiscovery(fileName.c_str())));
    }
    /// The whole payload, "?" if it cannot be opened.
    static std::string read(Disc::Discovery& record)
    {
        if (!isSuccess(record.open(Disc::OM_READ, "")))
            return "?";
        std::string text;
        char buffer[7];
        std::size_t count;
        while ((count = record.getCollectionData()->readCollection(sizeof buffer, buffer)) > 0 &&
               count <= sizeof buffer)
            text.append(buffer, count);
        return text;
    }
    /// The subjects that an iterator yields, sorted.
    static std::vector<std::string> all(Disc::AuthorityType type = Disc::AT_ANYANDALL,
                                        const std::string& authority = "*",
                                        const std::string& subject = "*")
    {
        const Tlx::AutoDereference<Disc::DiscoveryIterator> iterator(
            Disc::getDiscoveryDBDatabase()->getIterator(Disc::DQ_DISCOVERY_DATA));
        iterator->setAuthority(authority, type);
        iterator->setSubject(subject);
        std::vector<std::string> names;
        while (Disc::Discovery* next = iterator->getNext()) {
            const Tlx::AutoDereference<Disc::Discovery> record(next);
            names.push_back(record->getSubject()->getSubject().utf8());
        }
        std::sort(names.begin(), names.end());
        return names;
    }
    std::vector<std::string> files() const
    {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(m_directory.path()))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

  private:
    TemporaryDirectory m_directory;
};

} // namespace QmTest
