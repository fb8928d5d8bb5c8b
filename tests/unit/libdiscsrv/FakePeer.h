#pragma once
// The service of another host, in a process of its own. The subject of a request selects the
// answer:
//
//     queryDiscoveries    "records-N"    N records
//                         "nil"          a nil iterator
//                         "throw"        NO_MEMORY
//                         "throw-page"   the second page fails
//                         "nameless"     a record without a subject
//                         "endless"      a list without end
//                         "vanish"       the peer ends on the second page
//                         any other      one record of that subject
//     getCollectionData   "bytes-N"      N bytes in pages of 8
//                         "page-N"       one page of N bytes
//                         "tail-N-M"     N bytes in pages of 8 and one page of M bytes
//                         "none"         DS_NONE_FOUND
//                         "nil"          success and a nil iterator
//                         "throw"        NO_MEMORY
//                         "throw-page"   the second page fails
//                         "log"          the requests that the peer got
//     putCollection       "refuse"       DS_DATA_EXISTS
//                         "throw"        NO_MEMORY
//                         "bad-put"      put returns false from the second call on
//                         "throw-put"    put fails
//                         "throw-close"  close fails
//     registerExplorer    "throw"        NO_MEMORY
//                         "hold"         returns after a call of restartLocalPushTimer

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include <tlx/Orb.h>

#include "DiscoveryService_i.h"
#include "support/PeerProcess.h"

namespace QmTest {

namespace Tlx = Veltrane::Quillmark::Tlx;
namespace Disc = Veltrane::Quillmark::Tlx::DiscoverySvc;
namespace Remote = Veltrane::Quillmark::Tlx::DiscoverySvc::Remote;
namespace Skeleton = POA_Veltrane::Quillmark::Tlx::DiscoverySvc::Remote;

namespace FakePeerDetail {

inline std::mutex g_mutex; // guards the variables below
inline std::string g_log;
inline bool g_released = false;
inline std::condition_variable g_release;

inline void note(const std::string& text)
{
    const std::lock_guard guard(g_mutex);
    g_log += text;
}

inline std::string noted()
{
    const std::lock_guard guard(g_mutex);
    return g_log;
}

/// N of "PREFIX-N", -1 for any other text.
inline long countOf(const std::string& name, const std::string& prefix)
{
    return name.rfind(prefix + "-", 0) == 0 ? std::atol(name.c_str() + prefix.size() + 1) : -1;
}

class Records : public Skeleton::DiscoveryIterator
{
  public:
    explicit Records(std::string subject) : m_subject(std::move(subject)) {}
    Remote::DiscoverySeq* getNextPage() override
    {
        note("page;");
        auto page = std::make_unique<Remote::DiscoverySeq>();
        ++m_pages;
        if (m_subject == "throw-page" && m_pages == 2)
            throw CORBA::NO_MEMORY();
        if (m_subject == "vanish" && m_pages == 2)
            ::_exit(0);
        const long wanted = countOf(m_subject, "records");
        const long left = (wanted < 0 ? 1 : wanted) - m_sent;
        const long now =
            m_subject == "endless" || m_subject == "throw-page" || m_subject == "vanish" ? 9
            : left > 9                                                                   ? 9
                                                                                         : left;
        page->length(static_cast<CORBA::ULong>(now));
        for (CORBA::ULong i = 0; i < page->length(); ++i, ++m_sent) {
            Remote::Discovery& record = (*page)[i];
            const std::string name =
                wanted < 0 ? m_subject : "s" + std::to_string(static_cast<long>(m_sent));
            record.queryType = Disc::DQ_UNDEFINED;
            record.subject = m_subject == "nameless" ? "" : name.c_str();
            record.authority = "a";
            record.authType = Disc::AT_EXTSRC;
            record.attributes = {Disc::CT_CONFIGURATION, Disc::CS_LOCALONLY, 0, 0, 0};
            record.sourceHost = "peer";
            record.sourceServiceName = "DiscoveryService";
        }
        return page.release();
    }
    CORBA::Long pageSize() override { return 8; }
    void pageSize(CORBA::Long) override { note("pageSize;"); }
    void release() override { note("release;"); }

  private:
    const std::string m_subject;
    long m_sent = 0;
    int m_pages = 0;
};

class Data : public Skeleton::CollectionDataIterator
{
  public:
    Data(std::string bytes, std::size_t page, bool fails, std::size_t tail = 0)
        : m_bytes(std::move(bytes)), m_page(page), m_fails(fails), m_tail(tail)
    {
    }
    Remote::CollectionDataSeq* getNextPage() override
    {
        if (m_fails && m_sent > 0)
            throw CORBA::NO_MEMORY();
        const std::size_t head =
            m_bytes.size() - m_tail - std::min(m_sent, m_bytes.size() - m_tail);
        const std::string now = m_bytes.substr(m_sent, head > 0     ? std::min(head, m_page)
                                                       : m_tail > 0 ? m_tail
                                                                    : m_page);
        m_sent += now.size();
        auto page = std::make_unique<Remote::CollectionDataSeq>();
        page->length(static_cast<CORBA::ULong>(now.size()));
        for (CORBA::ULong i = 0; i < page->length(); ++i)
            (*page)[i] = static_cast<CORBA::Octet>(now[i]);
        return page.release();
    }
    CORBA::Long pageSize() override { return 8; }
    void pageSize(CORBA::Long) override { note("pageSize;"); }
    void release() override { note("release;"); }

  private:
    const std::string m_bytes;
    const std::size_t m_page;
    const bool m_fails;
    const std::size_t m_tail; ///< the size of the last page in bytes
    std::size_t m_sent = 0;
};

class Writer : public Skeleton::RemoteWriter
{
  public:
    explicit Writer(std::string subject) : m_subject(std::move(subject)) {}
    CORBA::Boolean put(const Remote::CollectionDataSeq& data) override
    {
        note("put " + std::to_string(data.length()) + ";");
        if (m_subject == "throw-put")
            throw CORBA::NO_MEMORY();
        return m_subject != "bad-put" || m_puts++ == 0;
    }
    Disc::DiscoveryResult close() override
    {
        note("close;");
        if (m_subject == "throw-close")
            throw CORBA::NO_MEMORY();
        return {Disc::DS_SUCCESS, 0};
    }

  private:
    const std::string m_subject;
    int m_puts = 0;
};

class Service : public Skeleton::DiscoveryService
{
  public:
    Remote::DiscoveryIterator_ptr queryDiscoveries(Disc::DiscoveryQuery query,
                                                   Disc::AuthorityType type, const char* authority,
                                                   const char* subject) override
    {
        note("query " + std::to_string(query) + " " + std::to_string(type) + " " + authority + " " +
             subject + ";");
        if (subject == std::string("throw"))
            throw CORBA::NO_MEMORY();
        if (subject == std::string("nil"))
            return Remote::DiscoveryIterator::_nil();
        return (new Records(subject))->_this();
    }
    Disc::DiscoveryStatus getCollectionData(const Remote::Discovery& record, const char* filter,
                                            Remote::CollectionDataIterator_out iterator) override
    {
        const std::string subject = record.subject.in();
        iterator = Remote::CollectionDataIterator::_nil();
        if (subject == "log") {
            iterator = (new Data(noted(), 100000, false))->_this();
            return Disc::DS_SUCCESS;
        }
        note("get " + subject + " [" + filter + "];");
        if (subject == "throw")
            throw CORBA::NO_MEMORY();
        if (subject == "none")
            return Disc::DS_NONE_FOUND;
        if (subject == "nil")
            return Disc::DS_SUCCESS;
        const long bytes = countOf(subject, "bytes");
        const long page = countOf(subject, "page");
        const long head = countOf(subject, "tail");
        if (head >= 0) {
            const auto tail =
                static_cast<std::size_t>(countOf(subject, "tail-" + std::to_string(head)));
            iterator =
                (new Data(std::string(static_cast<std::size_t>(head) + tail, 'x'), 8, false, tail))
                    ->_this();
            return Disc::DS_SUCCESS;
        }
        const bool fails = subject == "throw-page";
        const std::string data(static_cast<std::size_t>(fails        ? 100
                                                        : bytes >= 0 ? bytes
                                                        : page >= 0  ? page
                                                                     : 5),
                               'x');
        iterator = (new Data(data, page >= 0 ? data.size() : 8, fails))->_this();
        return Disc::DS_SUCCESS;
    }
    Disc::DiscoveryResult putCollection(const Remote::Discovery& record,
                                        Remote::RemoteWriter_out writer) override
    {
        const std::string subject = record.subject.in();
        const Remote::CollAttributes& with = record.attributes;
        note("putCollection " + subject + " of " + record.authority.in() + " " +
             std::to_string(record.authType) + " query " + std::to_string(record.queryType) + " " +
             std::to_string(with.colType) + std::to_string(with.colStorage) + " " +
             std::to_string(with.priority) + " " + std::to_string(with.timeToLive) + " " +
             std::to_string(with.discoveryTime) + " from " + record.sourceHost.in() + " " +
             record.sourceServiceName.in() + ";");
        writer = Remote::RemoteWriter::_nil();
        if (subject == "throw")
            throw CORBA::NO_MEMORY();
        if (subject == "refuse")
            return {Disc::DS_DATA_EXISTS, 7};
        writer = (new Writer(subject))->_this();
        return {Disc::DS_SUCCESS, 0};
    }
    void registerExplorer(const char* service, const char* host, const char* subject,
                          const char* authority, Disc::AuthorityType type,
                          CORBA::Short priority) override
    {
        note(std::string("register ") + service + " " + host + " " + subject + " " + authority +
             " " + std::to_string(type) + " " + std::to_string(priority) + ";");
        if (subject == std::string("throw"))
            throw CORBA::NO_MEMORY();
        if (subject != std::string("hold"))
            return;
        std::unique_lock lock(g_mutex);
        g_release.wait_for(lock, std::chrono::seconds(20), [] { return g_released; });
    }
    CORBA::Boolean terminate() override { return false; }
    void restartLocalPushTimer() override
    {
        note("restart;");
        const std::lock_guard guard(g_mutex);
        g_released = true;
        g_release.notify_all();
    }
    CORBA::Boolean restartAllPushTimers() override { return false; }
};

/// A service that cannot push.
class Broken : public Service
{
  public:
    void restartLocalPushTimer() override { throw CORBA::NO_MEMORY(); }
};

/// An object that is not a discovery service.
class Stranger : public Skeleton::RemoteWriter
{
  public:
    CORBA::Boolean put(const Remote::CollectionDataSeq&) override { return false; }
    Disc::DiscoveryResult close() override { return {Disc::DS_SUCCESS, 0}; }
};

/// An object that fails when a caller asks for its type.
class Nameless : public Stranger
{
  public:
    CORBA::Boolean _is_a(const char*) override { throw CORBA::NO_MEMORY(); }
};

} // namespace FakePeerDetail

/// Make it before this process uses the ORB, because it forks.
class FakePeer : public PeerProcess
{
  public:
    enum Kind
    {
        SERVICE,
        BROKEN,   ///< cannot push
        STRANGER, ///< advertises something else under the service's name
        NAMELESS  ///< advertises an object that fails when it is asked for its type
    };
    explicit FakePeer(Kind kind = SERVICE)
        : PeerProcess([kind](const std::string&) { return serve(kind); }), endpoint(ask("serve"))
    {
    }
    ~FakePeer() { kill(); }

    const std::string endpoint;

  private:
    static CORBA::Object_ptr activate(Tlx::Orb& orb, Kind kind)
    {
        switch (kind) {
        case STRANGER:
            return orb.activateServant(new FakePeerDetail::Stranger);
        case NAMELESS:
            return orb.activateServant(new FakePeerDetail::Nameless);
        case BROKEN:
            return orb.activateServant(new FakePeerDetail::Broken);
        default:
            return orb.activateServant(new FakePeerDetail::Service);
        }
    }
    /// The endpoint of the service. The ORB lives as long as the process.
    static std::string serve(Kind kind)
    {
        static Tlx::Orb orb(false, "127.0.0.1:0", "DiscoveryService", false);
        const CORBA::Object_var object = activate(orb, kind);
        orb.advertiseObject("DiscoveryService", object);
        orb.serveRequests();
        return orb.getEndpoint();
    }
};

} // namespace QmTest
