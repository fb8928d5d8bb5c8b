#include "DiscoveryFramework.h"

#include <tlx/Orb.h>
#include <tlx/Servant.h>
#include <tlx/StopNotice.h>

#include "DiscDB.h"
#include "DiscLog.h"
#include "DiscMem.h"
#include "DiscoveryRepository.h"
#include "DiscoveryService_i.h"
#include "OpenObjects.h"
#include "RefreshTask.h"
#include "RemoteDB.h"
#include "ServiceName.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../DiscoveryFramework";

/// Makes the nil reference of each interface. The generated code would make it on first use, which
/// is not safe for several threads.
void makeNilReferences()
{
    Remote::DiscoveryService::_nil();
    Remote::DiscoveryIterator::_nil();
    Remote::CollectionDataIterator::_nil();
    Remote::RemoteWriter::_nil();
}

} // namespace

DiscoveryFramework::DiscoveryFramework(const char* name, DiscoveryServiceType type, Orb* orb,
                                       bool initAce)
    : m_initAce(initAce), m_name(name ? name : ""), m_type(type), m_orb(orb)
{
}

DiscoveryFramework::~DiscoveryFramework()
{
    if (m_ace) // fini was not called, and only fini finalises ACE
        m_ace->keep();
}

Orb* DiscoveryFramework::getOrb() const
{
    (void)TLX_ASSERT(0 != m_orb);
    return m_orb;
}

bool DiscoveryFramework::init()
{
    DISC_TRACE("DiscoveryFramework::init");
    if (m_init != 0) {
        ++m_init;
        return true;
    }
    if (m_type != DST_NO_SERVANT && !getOrb())
        return false;
    withdrawStop(); // of an earlier service of this process
    if (m_initAce)
        m_ace = std::make_unique<AceRuntime>();
    getDiscoveryRepository()->setDiscoveryFramework(this);
    if (m_type == DST_NO_SERVANT) {
        ++m_init;
        return true;
    }
    (void)TLX_ASSERT(m_orb->isEvictorEnabled());
    try {
        activateServant();
    } catch (const CORBA::Exception& e) {
        DISC_LOG(1, "Caught corba exception activating DiscoveryService servant, Corba exception: "
                        << e._name());
        throw;
    }
    getDiscoveryDBDatabase()->init(m_name);
    // Make the singletons now, while no other thread runs. Making one is not safe for several
    // threads. The first one also looks for the master, which may take some seconds.
    getRemoteDiscoveryDatabase();
    getDiscoveryMemDatbase();
    getDiscoveriesThreadMgr();
    getDiscoveryRepository()->loadExplorers();
    ++m_init;
    return true;
}

void DiscoveryFramework::activateServant()
{
    const CORBA::Object_var object = m_orb->getOrb()->resolve_initial_references("RootPOA");
    m_rootPOA = PortableServer::POA::_narrow(object);
    makeNilReferences();
    Remote::openObjects().start(m_rootPOA, *m_orb, Remote::OpenLimits::configured());
    m_servant = new Remote::DiscoveryService_i;
    m_servantReference = m_orb->activateServant(m_servant);
    m_orb->advertiseObject(DISCOVERY_SERVICE, m_servantReference);
    m_orb->setPostAdvertised(true);
}

bool DiscoveryFramework::shutdown()
{
    DISC_TRACE("DiscoveryFramework::shutdown");
    if (!TLX_ASSERT(!m_shutdown))
        return true;
    m_shutdown = true;
    if (m_type == DST_NO_SERVANT)
        return true;
    // This comes first. Some requests in progress wait for other hosts, for their own peers or for
    // locks, and the steps below wait for these requests.
    getDiscoveryRepository()->announceShutdown();
    if (m_orb)
        m_orb->breakOffWaits();
    if (m_servant) {
        if (m_orb) {
            m_orb->destroyObjectRef(m_servantReference, PortableServer::POA::_nil());
            m_servantReference = CORBA::Object::_nil();
        }
        m_servant->_remove_ref();
        m_servant = nullptr;
    }
    if (m_orb && m_orb->isEvictorEnabled())
        m_orb->getEvictor().shutdown();
    if (!CORBA::is_nil(m_rootPOA)) {
        try {
            m_rootPOA->destroy(false, true);
        } catch (const CORBA::SystemException& e) {
            // The ORB ends with the process anyway, and the rest must still stop.
            DISC_LOG(1, "Unable to destroy the root POA: " << describeException(e));
        }
        m_rootPOA = PortableServer::POA::_nil();
    }
    Remote::openObjects().stop(); // abandons the writers that nobody closed
    getDiscoveryRepository()->shutdown();
    return true;
}

void DiscoveryFramework::fini()
{
    DISC_TRACE("DiscoveryFramework::fini");
    bool ready = TLX_ASSERT(m_shutdown); // report both broken invariants
    ready = TLX_ASSERT(m_init) && ready;
    if (!ready || --m_init != 0)
        return;
    if (m_type != DST_NO_SERVANT)
        getDiscoveryRepository()->fini();
    m_ace.reset();
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
