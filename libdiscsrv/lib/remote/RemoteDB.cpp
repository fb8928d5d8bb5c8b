#include "RemoteDB.h"

#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Singleton.h>

#include <tlx/HostConfig.h>

#include "DiscLog.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../RemoteDB";
} // namespace

RemoteDBCreator* getRemoteDiscoveryDatabase()
{
    return ACE_Singleton<RemoteDBCreator, ACE_Recursive_Thread_Mutex>::instance();
}

RemoteDBCreator::RemoteDBCreator()
{
    setIsMaster();
}

RemoteDBCreator::~RemoteDBCreator() = default;

void RemoteDBCreator::setIsMaster()
{
    DISC_TRACE("RemoteDBCreator::setIsMaster");
    m_isMaster = QM_is_master("localhost");
}

DiscoveryIterator* RemoteDBCreator::getIterator(DiscoveryQuery) const
{
    DISC_TRACE("RemoteDBCreator::getIterator");
    TLX_SHOULD_NOT_GET_HERE();
    return nullptr;
}

Discovery* RemoteDBCreator::newDiscovery(DiscoveryQuery query)
{
    DISC_TRACE("RemoteDBCreator::newDiscovery");
    return new RemoteDiscovery(new RemoteCollectionData(query), query);
}

Discovery* RemoteDBCreator::newDiscovery(const Remote::Discovery& discovery)
{
    DISC_TRACE("RemoteDBCreator::newDiscovery");
    return new RemoteDiscovery(new RemoteCollectionData(discovery), discovery);
}

RemoteDiscovery::RemoteDiscovery(RemoteCollectionData* data, DiscoveryQuery query)
    : Discovery(data, query)
{
}

RemoteDiscovery::RemoteDiscovery(RemoteCollectionData* data, const Remote::Discovery& discovery)
    : Discovery(data, discovery.queryType)
{
    RemoteDiscovery::setAuthority(
        new Authority(std::string(discovery.authority.in()), discovery.authType));
    RemoteDiscovery::setSubject(new Subject(std::string(discovery.subject.in())));
}

RemoteCollectionData* RemoteDiscovery::remoteData() const
{
    return dynamic_cast<RemoteCollectionData*>(getCollectionData());
}

void RemoteDiscovery::setAuthority(Authority* authority)
{
    Discovery::setAuthority(authority);
    if (RemoteCollectionData* data = remoteData())
        data->setAuthority(authority);
}

void RemoteDiscovery::setSubject(Subject* subject)
{
    Discovery::setSubject(subject);
    if (RemoteCollectionData* data = remoteData())
        data->setSubject(subject);
}

void RemoteDiscovery::setAttributes(CollectionAttributes* attributes)
{
    Discovery::setAttributes(attributes);
    if (RemoteCollectionData* data = remoteData())
        data->setAttributes(attributes);
}

DiscoveryResult RemoteDiscovery::open(OpenMode mode, const char* arg)
{
    DISC_TRACE("RemoteDiscovery::open");
    if (!TLX_ASSERT(getCollectionData()) || !getCollectionData()->open(mode, arg))
        return {DS_OPEN_FAILED, 0};
    const RemoteCollectionData* data = remoteData();
    return data ? data->getResult() : DiscoveryResult{DS_SUCCESS, 0};
}

DiscoveryResult RemoteDiscovery::persist()
{
    DISC_TRACE("RemoteDiscovery::persist");
    RemoteCollectionData* cd = remoteData();
    if (!TLX_ASSERT_AS(cd, "NULL != cd"))
        return {DS_LOGIC_ERROR, 0};
    return cd->persist();
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
