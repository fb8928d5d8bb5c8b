#include <tlx/Orb.h>

#include <atomic>

#include <ace/Reactor.h>

#include <tlx/AceRuntime.h>
#include <tlx/HostConfig.h>
#include <tlx/OrbKeys.h>
#include <tlx/Servant.h>

#include "OrbCore.h"
#include "OrbLookup.h"
#include "PlatformLog.h"
#include "RemoteCalls.h"
#include "TimerReactor.h"
#include "TlsContext.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr const char* LOG_SOURCE = "../Orb";

std::atomic<ACE_Reactor*> processReactor{nullptr};

TlsSettings tlsSettings(const HostConfig& config)
{
    const auto refuse = [&config](const DeclaredKey& key, const std::string& value) {
        throw OrbConfigError(std::string(key.name()) + ": " +
                             key.complaintAbout(key.name(), value) + " (" + config.placeOf(key) +
                             ")");
    };
    TlsSettings settings;
    const std::string written = config.getString(ConfigKey::TLS).value_or("off");
    const auto mode = parseTlsMode(written);
    if (!mode)
        refuse(ConfigKey::TLS, written);
    settings.mode = mode.value_or(TlsMode::REQUIRED);
    if (settings.mode == TlsMode::OFF)
        return settings;
    settings.files = {config.getString(ConfigKey::TLS_CERTIFICATE).value_or(""),
                      config.getString(ConfigKey::TLS_KEY).value_or(""),
                      config.getString(ConfigKey::TLS_CA).value_or("")};
    settings.top = config.root();
    return settings;
}

OrbSettings settingsFor(bool clientOnly, const std::string& endpoint)
{
    const HostConfig& config = HostConfig::instance();
    OrbSettings settings;
    settings.clientOnly = clientOnly;
    settings.listen = endpoint.empty() ? toText(config.listenEndpoint()) : endpoint;
    settings.publish = config.getString(ConfigKey::PUBLISH_ADDRESS).value_or("");
    settings.maxMessageBytes = config.number(ConfigKey::MAX_MESSAGE_BYTES);
    settings.tls = tlsSettings(config);
    settings.maxConnections = config.number(ConfigKey::MAX_CONNECTIONS);
    settings.threads = config.number(ConfigKey::REQUEST_THREADS);
    settings.maxArrivingBytes = config.number(ConfigKey::MAX_ARRIVING_BYTES);
    settings.requestTimeout = std::chrono::seconds(config.number(ConfigKey::REQUEST_TIMEOUT));
    settings.idleConnection =
        std::chrono::seconds(config.number(ConfigKey::IDLE_CONNECTION_SECONDS));
    return settings;
}

/// The process's ORB. When it cannot listen, the error names the place in the configuration.
std::shared_ptr<OrbCore> acquireCore(bool clientOnly, const std::string& endpoint)
{
    try {
        return OrbCore::acquire(settingsFor(clientOnly, endpoint));
    } catch (const OrbConfigError&) {
        throw;
    } catch (const OrbError& e) {
        if (clientOnly || !endpoint.empty())
            throw;
        throw OrbError(std::string(e.what()) + " (" + ConfigKey::LISTEN.name() + ", " +
                       HostConfig::instance().placeOf(ConfigKey::LISTEN) +
                       ": an address of this host and a free port are expected)");
    }
}

/// An ORB's use of ACE. If the ORB does not start, the use stays. The caller may hold one of ACE's
/// own locks, for a singleton. Then it must not finalise ACE.
struct AceUse
{
    ~AceUse()
    {
        if (!isOrbUp)
            runtime.keep();
    }
    AceRuntime runtime;
    bool isOrbUp = false;
};

} // namespace

struct Orb::State
{
    State(bool clientOnly, const std::string& endpoint, const std::string& name,
          bool evictorEnabled)
        : serviceName(name), core(acquireCore(clientOnly, endpoint)),
          evictor(evictorEnabled ? std::make_unique<Evictor>() : nullptr)
    {
        ace.isOrbUp = true;
    }

    const std::string serviceName;
    AceUse ace;
    const std::shared_ptr<OrbCore> core;
    TimerReactor reactor;
    const std::unique_ptr<Evictor> evictor;
    std::atomic<bool> postAdvertised{false};

    PortableServer::POA_ptr orRoot(PortableServer::POA_ptr poa) const
    {
        return CORBA::is_nil(poa) ? core->rootPOA() : poa;
    }
};

Orb::Orb(bool clientOnly, const std::string& endpoint, const std::string& serviceName,
         bool evictorEnabled)
    : m_state(std::make_unique<State>(clientOnly, endpoint, serviceName, evictorEnabled))
{
}

Orb::~Orb()
{
    if (getAceReactor() == getReactor())
        setAceReactor(nullptr);
}

const std::string& Orb::getServiceName() const
{
    return m_state->serviceName;
}

CORBA::ORB_ptr Orb::getOrb() const
{
    return m_state->core->orb();
}

ACE_Reactor* Orb::getReactor() const
{
    return m_state->reactor.reactor();
}

bool Orb::isEvictorEnabled() const
{
    return m_state->evictor != nullptr;
}

Evictor& Orb::getEvictor() const
{
    if (!m_state->evictor)
        throw CORBA::BAD_INV_ORDER();
    return *m_state->evictor;
}

std::string Orb::getEndpoint() const
{
    return m_state->core->endpoint();
}

CORBA::Object_ptr Orb::activateServant(PortableServer::Servant servant, PortableServer::POA_ptr poa)
{
    const PortableServer::POA_ptr home = m_state->orRoot(poa);
    const PortableServer::ObjectId_var id = home->activate_object(servant);
    return home->id_to_reference(id);
}

void Orb::destroyObjectRef(CORBA::Object_ptr object, PortableServer::POA_ptr poa)
{
    if (CORBA::is_nil(object))
        return;
    try {
        const PortableServer::POA_ptr home = m_state->orRoot(poa);
        const PortableServer::ObjectId_var id = home->reference_to_id(object);
        home->deactivate_object(id);
    } catch (const CORBA::Exception& e) {
        // The object or its POA is destroyed already.
        PLATFORM_LOG(LOG_LEVEL_PROGRESS, "Orb::destroyObjectRef",
                     "Nothing to deactivate: " << describeException(e));
    }
}

void Orb::advertiseObject(const std::string& name, CORBA::Object_ptr object)
{
    m_state->core->advertise(name, object);
}

void Orb::setPostAdvertised(bool advertised)
{
    m_state->postAdvertised = advertised;
}

bool Orb::isPostAdvertised() const
{
    return m_state->postAdvertised;
}

void Orb::holdRequests()
{
    m_state->core->holdRequests();
}

void Orb::serveRequests()
{
    m_state->core->serveRequests();
}

void Orb::breakOffWaits()
{
    m_state->core->breakOffWaits();
}

ConnectionCounts Orb::connectionCounts()
{
    return OrbCore::connectionCounts();
}

void Orb::reloadTls()
{
    if (const auto tls = OrbCore::currentTls())
        tls->reload();
}

std::string Orb::tlsMistake()
{
    const HostConfig& config = HostConfig::instance();
    if (!parseTlsMode(config.getString(ConfigKey::TLS).value_or("off")))
        return {};
    const TlsSettings settings = tlsSettings(config);
    if (settings.mode == TlsMode::OFF)
        return {};
    const auto loaded = TlsIdentity::load(settings.files, settings.top);
    return loaded ? whyPeersRefuse(settings.files, **loaded, TlsContext::Clock::now())
                  : loaded.error();
}

void Orb::checkTlsExpiry()
{
    if (const auto tls = OrbCore::currentTls())
        tls->checkExpiry(TlsContext::Clock::now());
}

long long Orb::tlsExpiry()
{
    const auto tls = OrbCore::currentTls();
    return tls ? TlsContext::Clock::to_time_t(tls->expiry()) : 0;
}

void Orb::setOrbRequestTimeout(unsigned seconds)
{
    setProcessCallLimit(std::chrono::seconds(seconds));
}

tl::expected<CORBA::Object_var, LookupFailure> Orb::lookupObject(const AdvertisedObject& wanted)
{
    return Tlx::lookupObject(*m_state->core, wanted);
}

void setAceReactor(ACE_Reactor* reactor)
{
    processReactor = reactor;
    ACE_Reactor::instance(reactor, false);
}

ACE_Reactor* getAceReactor()
{
    return processReactor;
}

} // namespace Veltrane::Quillmark::Tlx
