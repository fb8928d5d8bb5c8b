#include <cstring>

#include <tlx/HostConfig.h>
#include <tlx/Servant.h>

#include "DiscLog.h"
#include "FetchTimeLimit.h"
#include "OutOfReach.h"
#include "PeerLink.h"
#include "PulledBytes.h"
#include "RemoteDB.h"
#include "ServiceCounters.h"
#include "ServiceKeys.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../RemoteDB";

/// The size of a record's texts.
std::uint64_t bytesOf(const Remote::Discovery& record)
{
    return std::strlen(record.subject) + std::strlen(record.authority) +
           std::strlen(record.sourceHost) + std::strlen(record.sourceServiceName);
}

/// The memory of a record beside its texts: its members, and what the heap adds to each text.
constexpr std::size_t RECORD_BYTES = 256;

} // namespace

RemoteDiscoveryIterator::~RemoteDiscoveryIterator() = default;

RemoteDiscoveryIterator::RemoteDiscoveryIterator(AuthorityType type, const std::string& subject,
                                                 const std::string& authority,
                                                 Remote::DiscoveryIterator_ptr adopted)
    : DiscoveryIterator(type, authority, subject), m_held(std::make_unique<PulledBytes>())
{
    DISC_TRACE("RemoteDiscoveryIterator::RemoteDiscoveryIterator");
    const Remote::DiscoveryIterator_var iterator(adopted);
    if (CORBA::is_nil(iterator)) {
        m_failure = "the service answered without an iterator";
        return;
    }
    const FetchTimeLimit limit;
    bool answers = true;
    try {
        while (fetchPage(iterator)) {
            if (limit.isOver()) {
                m_failure = "a list of another host " + limit.text();
                break;
            }
        }
    } catch (const CORBA::Exception& e) {
        m_failure = describeException(e);
        answers = !isOutOfReach(e);
    }
    if (!m_failure.empty()) { // no caller gets a part of a list
        m_discoveries = {};
        m_held->release();
    }
    // The evictor of the other service removes an idle iterator.
    if (!answers || getPeerLink().isShuttingDown())
        return;
    try {
        iterator->release();
    } catch (const CORBA::Exception& e) {
        DISC_LOG(4, "An iterator could not be released: " << describeException(e));
    }
}

/// Returns false at the end of the list. Returns false with m_failure set if the rest is missing.
bool RemoteDiscoveryIterator::fetchPage(Remote::DiscoveryIterator_ptr iterator)
{
    if (getPeerLink().isShuttingDown()) {
        m_failure = "the service is shutting down";
        return false;
    }
    Remote::DiscoverySeq_var page = iterator->getNextPage();
    const std::uint64_t bound = HostConfig::instance().number(ConfigKey::REMOTE_MAX_RECORDS);
    const std::uint64_t byteBound = HostConfig::instance().number(ConfigKey::REMOTE_MAX_BYTES);
    if (m_discoveries.size() + page->length() > bound) {
        m_failure = "a query may yield " + std::to_string(bound) + " records (" +
                    ConfigKey::REMOTE_MAX_RECORDS.name() + "), this one yields more";
        return false;
    }
    std::size_t memory = 0;
    for (CORBA::ULong i = 0; i < page->length(); ++i)
        memory += RECORD_BYTES + bytesOf(page[i]);
    const std::uint64_t memoryBound = HostConfig::instance().number(ConfigKey::MAX_PULLED_BYTES);
    if (!m_held->add(memory, memoryBound)) {
        countService(ServiceCounter::PULLS_REFUSED);
        m_failure = "all lists and collections in memory may have " + std::to_string(memoryBound) +
                    " bytes (" + ConfigKey::MAX_PULLED_BYTES.name() + ")";
        return false;
    }
    for (CORBA::ULong i = 0; i < page->length(); ++i) {
        const Remote::Discovery& record = page[i];
        if (*record.subject.in() == '\0' || *record.authority.in() == '\0') {
            m_failure = "a record came without a subject or an authority";
            return false;
        }
        m_bytes += bytesOf(record);
        if (m_bytes > byteBound) {
            m_failure = "a query may yield " + std::to_string(byteBound) + " bytes (" +
                        ConfigKey::REMOTE_MAX_BYTES.name() + "), this one yields more";
            return false;
        }
        m_discoveries.emplace_back(new Remote::Discovery(record));
    }
    return page->length() > 0;
}

std::size_t RemoteDiscoveryIterator::heldBytes() const
{
    return m_held->held();
}

Discovery* RemoteDiscoveryIterator::getNext()
{
    DISC_TRACE("RemoteDiscoveryIterator::getNext");
    if (m_next == m_discoveries.size())
        return nullptr;
    const Remote::Discovery_var record(m_discoveries[m_next++]._retn());
    return getRemoteDiscoveryDatabase()->newDiscovery(record.in());
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
