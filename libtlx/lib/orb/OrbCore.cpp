#include "OrbCore.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

#include <netdb.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

// GIOP_S.h needs this header and does not include it.
#include <omniORB4/IOP_S.h>
#include <omniORB4/callDescriptor.h>
#include <omniORB4/internal/giopStrand.h>
#include <omniORB4/internal/giopStream.h>

#include <omniORB4/internal/GIOP_S.h>
#include <omniORB4/omniInterceptors.h>

#include <tlx/File.h>
#include <tlx/HostConfig.h>
#include <tlx/Orb.h>
#include <tlx/Resolver.h>
#include <tlx/Servant.h>
#include <tlx/StopNotice.h>

#include "ConnectionTable.h"
#include "PlatformLog.h"
#include "RemoteCalls.h"
#include "ReplyCodeSet.h"
#include "RequestPeerState.h"
#include "RequestQueue.h"
#include "ServedConnection.h"
#include "TlsCalls.h"
#include "TlsContext.h"
#include "WatchedTransport.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr const char* LOG_SOURCE = "../Orb";

/// Stands in for an object under its advertised name, and forwards callers to the object itself.
class Forwarder : public virtual PortableServer::ServantBase
{
  public:
    explicit Forwarder(CORBA::Object_ptr target) : m_target(CORBA::Object::_duplicate(target)) {}
    CORBA::Boolean _dispatch(omniCallHandle&) override
    {
        throw omniORB::LOCATION_FORWARD(CORBA::Object::_duplicate(m_target.in()), false);
    }
    CORBA::Boolean _non_existent() override { return false; }
    CORBA::Boolean _is_a(const char*) override { return true; }
    const char* _mostDerivedRepoId() override { return "IDL:omg.org/CORBA/Object:1.0"; }
    void* _ptrToInterface(const char*) override { return nullptr; }

  private:
    CORBA::Object_var m_target;
};

bool isAnyAddress(const std::string& address)
{
    return address.empty() || address == "0.0.0.0" || address == "::" || address == "*";
}

/// The ORB's form of an endpoint. Without an address the ORB listens on all of them.
std::string toUri(const std::string& text)
{
    const auto endpoint = parseEndpoint(text);
    if (!endpoint)
        throw OrbError("cannot listen on \"" + text + "\": expected ADDRESS:PORT");
    if (endpoint->address == "::")
        return std::string(WATCHED_SCHEME) + ":[::]:" + std::to_string(endpoint->port);
    if (isAnyAddress(endpoint->address))
        return std::string(WATCHED_SCHEME) + "::" + std::to_string(endpoint->port);
    return std::string(WATCHED_SCHEME) + ":" + toText(*endpoint);
}

/// The ORB's rule for the address inside references. With a published address it is that address
/// and the port of the ORB. Otherwise it is an address of this machine, if possible no loopback
/// address.
std::string toPublish(const std::string& address)
{
    if (address.empty())
        return "addr";
    const bool v6 = address.find(':') != std::string::npos;
    return "giop:tcp:" + (v6 ? "[" + address + "]" : address) + ":";
}

/// The system's reason why a socket cannot be bound here, or empty. The ORB reports only the
/// failure, without the reason.
std::string whyNotBound(const std::string& text)
{
    const auto endpoint = parseEndpoint(text);
    if (!endpoint)
        return {};
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const char* node = endpoint->address.empty() ? nullptr : endpoint->address.c_str();
    if (const int error =
            ::getaddrinfo(node, std::to_string(endpoint->port).c_str(), &hints, &found))
        return ::gai_strerror(error);
    int error = 0;
    const FileDescriptor bound(::socket(found->ai_family, found->ai_socktype | SOCK_CLOEXEC, 0));
    const int on = 1;
    if (!bound.isOpen() ||
        ::setsockopt(bound.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::bind(bound.get(), found->ai_addr, found->ai_addrlen) != 0 ||
        ::listen(bound.get(), 1) != 0)
        error = errno;
    ::freeaddrinfo(found);
    return error ? std::strerror(error) : "";
}

/// The port for TLS in a reference's profile; 0 without one.
CORBA::UShort tlsPortOf(const IIOP::ProfileBody& profile)
{
    // An encapsulation: the byte order, padding, then three numbers of two bytes.
    constexpr CORBA::ULong SIZE = 8;
    for (CORBA::ULong i = 0; i < profile.components.length(); ++i) {
        const IOP::TaggedComponent& each = profile.components[i];
        if (each.tag != IOP::TAG_SSL_SEC_TRANS || each.component_data.length() != SIZE)
            continue;
        cdrEncapsulationStream stream(each.component_data.get_buffer(), SIZE, true);
        CORBA::UShort supports = 0;
        CORBA::UShort requires_ = 0;
        CORBA::UShort port = 0;
        supports <<= stream;
        requires_ <<= stream;
        port <<= stream;
        return port;
    }
    return 0;
}

/// The "ADDRESS:PORT" in a reference. A reference for TLS only has its port in another place.
std::string endpointOf(CORBA::Object_ptr reference)
{
    omniIOR* ior = reference->_PR_getobj() ? reference->_PR_getobj()->_getIOR() : nullptr;
    if (!ior)
        return {};
    const omniIOR_var holder(ior);
    IIOP::ProfileBody profile;
    for (CORBA::ULong i = 0; i < ior->iopProfiles().length(); ++i) {
        if (ior->iopProfiles()[i].tag != IOP::TAG_INTERNET_IOP)
            continue;
        IIOP::unmarshalProfile(ior->iopProfiles()[i], profile);
        Endpoint endpoint;
        endpoint.address = profile.address.host.in();
        endpoint.port = profile.address.port != 0 ? profile.address.port : tlsPortOf(profile);
        return toText(endpoint);
    }
    return {};
}

/// An object key that begins with a zero byte belongs to an object adapter that this process does
/// not use. Without this interceptor, the ORB answers a request for such a key again and again
/// while its sender stays connected.
CORBA::Boolean refuseForeignKey(omni::omniInterceptors::serverReceiveRequest_T::info_T& info)
{
    if (info.giop_s.keysize() > 0 && info.giop_s.key()[0] == 0)
        throw CORBA::OBJECT_NOT_EXIST(0, CORBA::COMPLETED_NO);
    return true;
}

/// Notes who sent a request, and refuses what the process's check refuses. The arguments are not
/// read yet.
CORBA::Boolean checkRequest(omni::omniInterceptors::serverReceiveRequest_T::info_T& info)
{
    const char* const name = info.peeridentity();
    const auto* const watched =
        dynamic_cast<const WatchedConnection*>(info.giop_s.strand().connection);
    if (!admitRequest({watched ? watched->address() : addressOfConnection(info.peeraddress()),
                       name ? name : ""},
                      info.operation()))
        throw CORBA::NO_PERMISSION(0, CORBA::COMPLETED_NO);
    return true;
}

void logOrbMessage(const char* message)
{
    std::string text(message ? message : "");
    while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
        text.pop_back();
    PLATFORM_LOG(LOG_LEVEL_FAILURE, "Orb", text);
}

/// Options in the form that the ORB takes them.
class OrbOptions
{
  public:
    void add(const char* name, const std::string& value) { m_options.emplace_back(name, value); }
    template <class Number>
    void add(const char* name, Number value) requires std::is_integral_v<Number>
    {
        add(name, std::to_string(value));
    }

    using Pairs = const char* (*)[2];
    /// Ends with a pair of nulls. Valid until the next add.
    Pairs pairs()
    {
        m_pairs.clear();
        for (const auto& [name, value] : m_options)
            m_pairs.push_back({name, value.c_str()});
        m_pairs.push_back({nullptr, nullptr});
        return reinterpret_cast<Pairs>(m_pairs.data());
    }

  private:
    std::vector<std::pair<const char*, std::string>> m_options;
    std::vector<std::array<const char*, 2>> m_pairs;
};

/// What the process needs at least beside connections: records, writers, logs, libraries.
constexpr rlim_t OTHER_DESCRIPTORS = 4096;
/// Each open reader of a record has a descriptor, too. So the process takes this many if it may.
constexpr rlim_t USUAL_DESCRIPTORS = 65536;

/// How many connections the limit on descriptors leaves room for. Raises the limit if it can.
unsigned long roomForConnections(unsigned long wanted)
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return wanted;
    const rlim_t needed = wanted + connectionReserve(wanted) + OTHER_DESCRIPTORS;
    limit.rlim_cur =
        std::max(limit.rlim_cur, std::min(std::max(needed, USUAL_DESCRIPTORS), limit.rlim_max));
    (void)::setrlimit(RLIMIT_NOFILE, &limit);
    (void)::getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur >= needed)
        return wanted;
    const rlim_t others = std::min(OTHER_DESCRIPTORS, limit.rlim_cur / 2);
    const unsigned long room = std::max<unsigned long>((limit.rlim_cur - others) * 5 / 6, 1);
    PLATFORM_WARN("Orb", "This process may open " << limit.rlim_cur << " files (ulimit -n), so "
                                                  << room << " connections are admitted, not "
                                                  << wanted << " (MAX_CONNECTIONS)");
    return room;
}

/// How many connections to other hosts the limit on descriptors leaves room for, beside so many
/// from other hosts: half of the rest.
std::size_t roomForCalls(unsigned long admitted)
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return OTHER_DESCRIPTORS;
    const rlim_t taken = admitted + connectionReserve(admitted);
    return std::max<rlim_t>(limit.rlim_cur - std::min(taken, limit.rlim_cur), 128) / 2;
}

/// How many requests of one peer may have threads at the same time: three quarters of all.
std::size_t shareOfAPeer(std::size_t threads)
{
    return std::max<std::size_t>(threads * 3 / 4, 1);
}

std::shared_ptr<ConnectionTable> makeConnectionTable(const OrbSettings& settings,
                                                     unsigned long admitted)
{
    try {
        return std::make_shared<ConnectionTable>(ConnectionLimits{
            admitted, settings.threads, settings.requestTimeout, settings.maxArrivingBytes});
    } catch (const std::system_error& e) {
        throw OrbError(std::string("cannot start the thread that looks at all connections: ") +
                       e.what());
    }
}

std::mutex sharedMutex;
std::weak_ptr<OrbCore> shared;

} // namespace

/// The ORB of the process, or null. Its destructor takes the mutex, so the result outlives the
/// lock.
std::shared_ptr<OrbCore> OrbCore::current()
{
    const std::lock_guard guard(sharedMutex);
    return shared.lock();
}

std::shared_ptr<OrbCore> OrbCore::acquire(const OrbSettings& settings)
{
    const std::lock_guard guard(sharedMutex);
    if (auto core = shared.lock())
        return core;
    std::shared_ptr<OrbCore> core(new OrbCore(settings));
    shared = core;
    return core;
}

OrbCore::OrbCore(const OrbSettings& settings)
{
    startTls(settings.tls);
    try {
        start(settings);
    } catch (const CORBA::SystemException& e) {
        if (!CORBA::is_nil(m_orb))
            m_orb->destroy();
        const std::string why = settings.clientOnly ? "" : whyNotBound(settings.listen);
        if (!why.empty())
            throw OrbError("cannot listen on " + settings.listen + ": " + why);
        throw OrbError("cannot bring the ORB up: " + describeException(e));
    }
}

void OrbCore::startTls(const TlsSettings& settings)
{
    if (settings.mode == TlsMode::OFF)
        return;
    auto loaded = TlsContext::load(settings.files, settings.top);
    if (!loaded)
        throw OrbConfigError(loaded.error());
    m_tls = std::move(*loaded);
    m_tlsCalls = std::make_unique<TlsCalls>(m_tls, settings.mode);
}

void OrbCore::start(const OrbSettings& settings)
{
    omniORB::setLogFunction(&logOrbMessage);
    withdrawStop();
    // All options that the ORB's own configuration file could otherwise change for this process.
    OrbOptions options;
    options.add("giopMaxMsgSize", settings.maxMessageBytes);
    options.add("supportPerThreadTimeOut", 1);
    // Also for peers that name no code set in their references.
    options.add("nativeCharCodeSet", "UTF-8");
    options.add("defaultCharCodeSet", "UTF-8");
    options.add("traceLevel", 0);
    options.add("maxGIOPConnectionPerServer", CONNECTIONS_TO_A_HOST);
    // Saves a request before the first call to each object: an iterator or a writer gets few.
    options.add("verifyObjectExistsAndType", 0);
    options.add("outConScanPeriod", 30); // seconds after which an idle connection is closed
    // With TLS required, no plain connection is accepted or opened, whatever a reference contains.
    // Without TLS, references must not lead to the sockets of this machine's own programs.
    options.add("clientTransportRule", m_tlsCalls ? m_tlsCalls->transportRule() : "* tcp");
    if (settings.tls.mode == TlsMode::REQUIRED)
        options.add("serverTransportRule", "* ssl");
    // A client gets no endpoint. It makes no POA, so it listens nowhere.
    if (!settings.clientOnly) {
        m_admitted = roomForConnections(settings.maxConnections);
        m_connections = makeConnectionTable(settings, m_admitted);
        m_requests =
            std::make_shared<RequestQueue>(settings.threads, shareOfAPeer(settings.threads));
        installWatchedTransport({m_connections, m_requests, settings.maxMessageBytes, m_tls,
                                 settings.tls.mode == TlsMode::REQUIRED});
        options.add("endPoint", toUri(settings.listen));
        options.add("endPointPublish", toPublish(settings.publish));
        options.add("threadPerConnectionPolicy", 0);
        options.add("maxServerThreadPoolSize", settings.threads);
        options.add("maxServerThreadPerConnection", REQUESTS_OF_A_CONNECTION);
        options.add("serverCallTimeOutPeriod",
                    std::chrono::milliseconds(settings.requestTimeout).count());
        options.add("inConScanPeriod", settings.idleConnection.count());
    }
    int argc = 0;
    m_orb = CORBA::ORB_init(argc, nullptr, "omniORB4", options.pairs());
    limitRemoteCalls(
        {[this](const Endpoint& endpoint) { return leadsHere(endpoint); },
         settings.clientOnly ? std::numeric_limits<std::size_t>::max() : roomForCalls(m_admitted)});
    if (m_tlsCalls)
        m_tlsCalls->watch();
    if (settings.clientOnly)
        return;
    m_listenAddress = parseEndpoint(settings.listen).value_or(Endpoint()).address;
    openServer();
}

void OrbCore::openServer()
{
    omniORB::getInterceptors()->serverReceiveRequest.add(&refuseForeignKey);
    omniORB::getInterceptors()->serverReceiveRequest.add(&checkRequest);
    omniORB::getInterceptors()->serverSendReply.add(&checkReplyCodeSet);
    CORBA::Object_var object = m_orb->resolve_initial_references("RootPOA");
    m_rootPOA = PortableServer::POA::_narrow(object);
    m_rootManager = m_rootPOA->the_POAManager();
    object = m_orb->resolve_initial_references("omniINSPOA");
    m_namePOA = PortableServer::POA::_narrow(object);
    m_nameManager = m_namePOA->the_POAManager();
    m_rootManager->hold_requests(false);
    m_nameManager->hold_requests(false);
    const PortableServer::ObjectId_var id = PortableServer::string_to_ObjectId("endpoint");
    const CORBA::Object_var reference =
        m_namePOA->create_reference_with_id(id, "IDL:omg.org/CORBA/Object:1.0");
    m_endpoint = endpointOf(reference);
}

OrbCore::~OrbCore()
{
    const std::lock_guard guard(sharedMutex); // the next ORB comes up after this one is down
    try {
        m_orb->destroy();
    } catch (const CORBA::Exception& e) {
        PLATFORM_LOG(LOG_LEVEL_FAILURE, "Orb",
                     "Unable to take the ORB down: " << describeException(e));
    }
}

bool OrbCore::leadsHere(const Endpoint& endpoint) const
{
    const auto own = parseEndpoint(m_endpoint);
    if (m_listenAddress.empty() || !own || own->port != endpoint.port)
        return false;
    if (isAnyAddress(m_listenAddress) && isLocalAddress(endpoint.address))
        return true;
    // With address translation, the published address leads here although no interface has it.
    for (const std::string& name : {m_listenAddress, own->address}) {
        const auto addresses = resolveHost(name, std::chrono::seconds(1));
        if (std::find(addresses.begin(), addresses.end(), endpoint.address) != addresses.end())
            return true;
    }
    return false;
}

PortableServer::POA_ptr OrbCore::rootPOA() const
{
    if (CORBA::is_nil(m_rootPOA))
        throw CORBA::OBJ_ADAPTER();
    return m_rootPOA.in();
}

void OrbCore::advertise(const std::string& name, CORBA::Object_ptr object)
{
    if (CORBA::is_nil(m_namePOA))
        throw CORBA::OBJ_ADAPTER();
    const PortableServer::ObjectId_var id = PortableServer::string_to_ObjectId(name.c_str());
    try {
        m_namePOA->deactivate_object(id); // a name leads to the object that was advertised last
    } catch (const PortableServer::POA::ObjectNotActive&) { // the name is new
    }
    PortableServer::Servant_var<Forwarder> servant(new Forwarder(object));
    m_namePOA->activate_object_with_id(id, servant.in());
}

void OrbCore::holdRequests()
{
    if (CORBA::is_nil(m_rootManager))
        return;
    m_rootManager->hold_requests(false);
    m_nameManager->hold_requests(false);
}

void OrbCore::breakOffWaits()
{
    announceStop();
    breakOffCalls();
    if (m_tlsCalls)
        m_tlsCalls->breakOff();
    if (m_connections)
        m_connections->stop();
}

ConnectionCounts OrbCore::connectionCounts()
{
    const std::shared_ptr<OrbCore> core = current();
    if (!core || !core->m_connections)
        return {};
    ConnectionCounts counts = core->m_connections->counts();
    const RequestQueue::Counts requests = core->m_requests->counts();
    counts.requestsWaiting = requests.waiting;
    counts.requestsWaitingHighest = requests.highest;
    return counts;
}

std::shared_ptr<TlsContext> OrbCore::currentTls()
{
    const std::shared_ptr<OrbCore> core = current();
    return core ? core->m_tls : nullptr;
}

void OrbCore::serveRequests()
{
    if (CORBA::is_nil(m_rootManager))
        return;
    m_rootManager->activate();
    m_nameManager->activate();
}

} // namespace Veltrane::Quillmark::Tlx
