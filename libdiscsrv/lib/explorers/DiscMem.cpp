#include "DiscMem.h"

#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Singleton.h>

#include <tlx/HostConfig.h>

#include "DiscLog.h"
#include "ExplorerCall.h"
#include "InFlight.h"
#include "PulledBytes.h"
#include "ServiceCounters.h"
#include "ServiceKeys.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr const char* LOG_SOURCE = "../DiscDB";

InFlightBound g_pulls(MemCollectionData::MAX_PULLS);

} // namespace

DiscoveryMemCreator* getDiscoveryMemDatbase()
{
    return ACE_Singleton<DiscoveryMemCreator, ACE_Recursive_Thread_Mutex>::instance();
}

DiscoveryMemCreator::~DiscoveryMemCreator() = default;

Discovery* DiscoveryMemCreator::newDiscovery(const AutoDereference<ExplorerQuery>& query,
                                             DiscoveryQuery dq)
{
    DISC_TRACE("DiscoveryMemCreator::newDiscovery");
    return new MemDiscovery(new MemCollectionData(query, dq), dq);
}

DiscoveryIterator* DiscoveryMemCreator::getIterator(const ExplorerQuerySet& queries,
                                                    DiscoveryQuery dq)
{
    DISC_TRACE("DiscoveryMemCreator::getIterator");
    return new MemDiscoveryIterator(queries, dq);
}

MemDiscoveryIterator::MemDiscoveryIterator(const ExplorerQuerySet& queries, DiscoveryQuery query)
    : DiscoveryIterator(AT_ANYANDALL, "", ""), m_query(query), m_queries(queries),
      m_position(m_queries.end())
{
}

Discovery* MemDiscoveryIterator::getNext()
{
    DISC_TRACE("MemDiscoveryIterator::getNext");
    if (!m_started) {
        m_position = m_queries.begin();
        m_started = true;
    }
    if (m_position == m_queries.end())
        return nullptr;
    const ExplorerWrapper& wrapper = (*m_position)->getWrapper();
    Discovery* discovery = getDiscoveryMemDatbase()->newDiscovery(*m_position, m_query);
    if (!TLX_ASSERT_AS(discovery, "NULL != discovery"))
        return nullptr;
    discovery->setSubject(new Subject(*wrapper.getSubject()));
    discovery->setAuthority(new Authority(*wrapper.getAuthority()));
    ++m_position;
    return discovery;
}

DiscoveryResult MemDiscovery::persist()
{
    DISC_TRACE("MemDiscovery::persist");
    return {DS_SUCCESS, 0};
}

DiscoveryResult MemDiscovery::open(OpenMode mode, const char* arg)
{
    DISC_TRACE("MemDiscovery::open");
    if (!TLX_ASSERT(getCollectionData()) || !getCollectionData()->open(mode, arg))
        return {DS_OPEN_FAILED, 0};
    return {DS_SUCCESS, 0};
}

MemCollectionData::MemCollectionData(const AutoDereference<ExplorerQuery>& explorerQuery,
                                     DiscoveryQuery query)
    : m_bytes(std::make_unique<PulledBytes>()), m_query(query), m_explorerQuery(explorerQuery)
{
}

MemCollectionData::~MemCollectionData() = default;

bool MemCollectionData::open(OpenMode mode, const char* arg)
{
    // Compat(log-getnext): log readers find the opening of a pull under this name, and the
    // assertion below under "filterParmaetersXml".
    DISC_TRACE("MemCollectionData::getNext");
    if (mode == OM_UPDATE)
        return true;
    auto* exp = dynamic_cast<ExplorerPull*>(m_explorerQuery->getWrapper().getExplorer());
    const char* filterParmaetersXml = arg;
    bool ready = TLX_ASSERT_AS(exp, "NULL != exp");
    ready = TLX_ASSERT(filterParmaetersXml) && ready;
    return ready && pull(*exp, filterParmaetersXml);
}

bool MemCollectionData::pull(ExplorerPull& explorer, const char* text)
{
    const ExplorerWrapper& wrapper = m_explorerQuery->getWrapper();
    const InFlight inFlight(g_pulls);
    if (!inFlight.isAdmitted()) {
        countService(ServiceCounter::PULLS_TURNED_AWAY);
        DISC_WARN(wrapper.describe()
                  << " is not asked: " << MAX_PULLS << " explorers are being asked already");
        return false;
    }
    drop();
    m_spoilt = false;
    bool delivered = false;
    const bool returned = callExplorer(wrapper, "collectionRequested", [&] {
        delivered =
            explorer.collectionRequested(m_query, *wrapper.getAuthority(), *wrapper.getSubject(),
                                         wrapper.getExplorerContext(), text, this);
    });
    if (!returned || m_spoilt) { // drop the incomplete collection
        drop();
        delivered = false;
    }
    wrapper.setLastOutcome(!returned   ? "it failed; see the log"
                           : m_spoilt  ? "too much for the memory; see the log"
                           : delivered ? "delivered"
                                       : "it delivered nothing");
    return delivered;
}

std::size_t MemCollectionData::readCollection(std::size_t length, void* buffer) const
{
    DISC_TRACE("MemCollectionData::readCollection");
    m_stream.read(static_cast<char*>(buffer), static_cast<std::streamsize>(length));
    return static_cast<std::size_t>(m_stream.gcount());
}

bool MemCollectionData::writeCollection(std::size_t length, const void* buffer) const
{
    DISC_TRACE("MemCollectionData::writeCollection");
    if (m_spoilt)
        return false;
    const std::size_t most = HostConfig::instance().number(ConfigKey::MAX_PULLED_BYTES);
    if (!m_bytes->add(length, most))
        return spoil("all collections in memory may have " + std::to_string(most) +
                     " bytes (MAX_PULLED_BYTES)");
    m_stream.clear(); // a read may have reached the end
    m_stream.write(static_cast<const char*>(buffer), static_cast<std::streamsize>(length));
    return m_stream.good() || spoil("there is no more memory");
}

std::size_t MemCollectionData::heldBytes() const
{
    return m_bytes->held();
}

/// Frees the collection's memory.
void MemCollectionData::drop() const
{
    m_stream = astringstream();
    m_bytes->release();
}

/// The collection cannot become whole. Returns false.
bool MemCollectionData::spoil(const std::string& why) const
{
    countService(ServiceCounter::PULLS_REFUSED);
    DISC_WARN(m_explorerQuery->getWrapper().describe()
              << " delivers more than fits after " << heldBytes() << " bytes: " << why);
    m_spoilt = true;
    drop();
    return false;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
