#include "RemoteCalls.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <limits>
#include <memory>
#include <string>
#include <utility>

#include <dirent.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <omnithread.h>

#include <tlx/Address.h>
#include <tlx/Corba.h>
#include <tlx/Orb.h>
#include <tlx/StopNotice.h>

// The next headers need these, and do not include them.
#include <omniORB4/IOP_C.h>
#include <omniORB4/callDescriptor.h>
#include <omniORB4/internal/giopRope.h>
#include <omniORB4/internal/giopStrand.h>
#include <omniORB4/internal/giopStream.h>
#include <omniORB4/sslContext.h>

#include <omniORB4/internal/GIOP_C.h>
#include <omniORB4/omniInterceptors.h>
#include <omniORB4/sslConnection.h>
#include <omniORB4/tcpConnection.h>

#include "PlatformLog.h"
#include "RequestPeerState.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr const char* LOG_SOURCE = "../Orb";

RemoteCallRules theRules;
std::atomic<unsigned long long> callsRefused{0};

/// Tells the calls of this thread apart. A later call may have its descriptor at the same place in
/// memory, but it has another deadline.
struct Call
{
    const omniCallDescriptor* descriptor = nullptr;
    omni_time_t deadline;

    explicit Call(omni::GIOP_C& call)
        : descriptor(call.calldescriptor()), deadline(descriptor->getDeadline())
    {
    }
    Call() = default;
    bool operator==(const Call& other) const
    {
        return descriptor == other.descriptor && deadline == other.deadline;
    }
};

/// What happened in a call until now.
struct Course
{
    Call call;
    unsigned forwards = 0;
    unsigned connections = 0;
};

thread_local Course t_course;
thread_local unsigned t_connectionsOpened = 0;

CORBA::ULong toOrbMilliseconds(std::chrono::milliseconds limit)
{
    return static_cast<CORBA::ULong>(std::clamp<std::chrono::milliseconds::rep>(
        limit.count(), 0, std::numeric_limits<CORBA::ULong>::max()));
}

CORBA::Boolean neverRepeat(void*, CORBA::ULong, const CORBA::TRANSIENT&)
{
    return false;
}

/// The other end of a connection.
Endpoint endpointOf(omni::giopConnection& connection)
{
    const std::string uri = connection.peeraddress(); // such as "giop:tcp:ADDRESS:PORT"
    const int port = std::atoi(uri.c_str() + uri.rfind(':') + 1);
    return {addressOfConnection(uri), static_cast<std::uint16_t>(port)};
}

/// The course of the call in progress.
Course& courseOf(omni::GIOP_C& call)
{
    const Call now(call);
    // Without a deadline, an earlier call may look the same.
    if (!(t_course.call == now) || !now.deadline)
        t_course = {now};
    return t_course;
}

/// The connections of this process to other hosts: in use, kept, or coming up.
struct OpenCalls
{
    std::size_t all = 0;
    std::size_t toTheHost = 0;
};

/// Counts them in the ORB's lists, by the address that the ORB calls. The connection of another
/// thread may be coming up, so it is not safe to read.
OpenCalls countConnections(const omni::giopStrand& own)
{
    const std::string host = addressOfConnection(own.address->address());
    OpenCalls open;
    const omni_tracedmutex_lock guard(*omni::omniTransportLock);
    for (const omni::StrandList* list :
         {&omni::giopStrand::active, &omni::giopStrand::active_timedout})
        for (const omni::StrandList* each = list->next; each != list; each = each->next) {
            const auto* const strand = static_cast<const omni::giopStrand*>(each);
            ++open.all;
            if (strand->address && addressOfConnection(strand->address->address()) == host)
                ++open.toTheHost;
        }
    return open;
}

/// Counts a call that this process ends, and logs it.
void noteRefused(omni::GIOP_C& call, const std::string& why)
{
    noteRefusedCall();
    PLATFORM_WARN("Orb::call", "The call " << call.operation() << " to "
                                           << toText(endpointOf(*call.strand().connection))
                                           << " ends: " << why);
}

CORBA::Boolean checkCall(omni::omniInterceptors::clientSendRequest_T::info_T&)
{
    if (isStopAnnounced())
        throw CORBA::TRANSIENT(0, CORBA::COMPLETED_NO);
    return true;
}

CORBA::Boolean checkReply(omni::omniInterceptors::clientReceiveReply_T::info_T& info)
{
    switch (info.giop_c.replyStatus()) {
    case GIOP::LOCATION_FORWARD:
    case GIOP::LOCATION_FORWARD_PERM:
        break;
    case GIOP::NEEDS_ADDRESSING_MODE:
        noteRefused(info.giop_c, "the host wants another form of the target than its key");
        throw CORBA::NO_IMPLEMENT(0, CORBA::COMPLETED_NO);
    default:
        t_course = {};
        return true;
    }
    if (++courseOf(info.giop_c).forwards > MOST_FORWARDS) {
        noteRefused(info.giop_c,
                    "hosts have forwarded it " + std::to_string(MOST_FORWARDS) + " times already");
        throw CORBA::IMP_LIMIT(0, CORBA::COMPLETED_NO);
    }
    return true;
}

CORBA::Boolean checkConnection(omni::omniInterceptors::clientOpenConnection_T::info_T& info)
{
    ++t_connectionsOpened;
    if (isStopAnnounced()) {
        info.reject = true;
        info.why = "the service stops";
        return true;
    }
    omni::GIOP_C& call = info.giop_c;
    if (theRules.leadsHere(endpointOf(*call.strand().connection))) {
        noteRefused(call, "a reference of another host leads back to this service");
        throw CORBA::NO_PERMISSION(0, CORBA::COMPLETED_NO);
    }
    if (++courseOf(call).connections > MOST_CONNECTIONS_OF_A_CALL) {
        noteRefused(call, "it has opened " + std::to_string(MOST_CONNECTIONS_OF_A_CALL) +
                              " connections already");
        throw CORBA::IMP_LIMIT(0, CORBA::COMPLETED_NO);
    }
    const OpenCalls open = countConnections(call.strand());
    if (open.toTheHost > MOST_CONNECTIONS_TO_AN_ADDRESS || open.all > theRules.mostConnections) {
        noteRefused(call, std::to_string(open.toTheHost - 1) + " connections to this address and " +
                              std::to_string(open.all - 1) + " in all are open already");
        throw CORBA::NO_RESOURCES(0, CORBA::COMPLETED_NO);
    }
    return true;
}

bool isName(const omni::giopAddress& address)
{
    return address.host() && !NumericAddress::parse(address.host());
}

/// A reference to another host has arrived. If it has too many addresses, the ORB gets the first
/// ones.
CORBA::Boolean limitAddresses(omni::omniInterceptors::createRope_T::info_T& info)
{
    omni::giopAddressList used;
    std::size_t names = 0;
    for (omni::giopAddress* const each : info.addrlist)
        if (used.size() < MOST_ADDRESSES && (!isName(*each) || ++names <= MOST_NAMES))
            used.push_back(each);
    if (used.size() == info.addrlist.size())
        return true;
    PLATFORM_WARN("Orb::call", "A reference has " << info.addrlist.size()
                                                  << " addresses. Only the first " << MOST_ADDRESSES
                                                  << ", and " << MOST_NAMES
                                                  << " names among them, are used");
    info.rope = new omni::giopRope(used, info.ior_info); // the ORB owns it
    return true;
}

/// Ends the transport under a connection, so that a thread which waits in it returns. Does no
/// more, because that thread still uses the connection.
void breakOff(omni::giopConnection& connection)
{
    if (const auto* tcp = dynamic_cast<const omni::tcpConnection*>(&connection))
        ::shutdown(tcp->handle(), SHUT_RDWR);
    else if (const auto* tls = dynamic_cast<const omni::sslConnection*>(&connection))
        ::shutdown(tls->handle(), SHUT_RDWR);
}

/// Ends the attempts of this process to connect to others.
void breakOffConnecting()
{
    const std::unique_ptr<DIR, int (*)(DIR*)> open(::opendir("/proc/self/fd"), &::closedir);
    while (const dirent* entry = open ? ::readdir(open.get()) : nullptr) {
        const int socket = std::atoi(entry->d_name);
        tcp_info info{};
        socklen_t size = sizeof info;
        if (::getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 &&
            info.tcpi_state == TCP_SYN_SENT)
            ::shutdown(socket, SHUT_RDWR);
    }
}

} // namespace

void limitRemoteCalls(RemoteCallRules rules)
{
    theRules = std::move(rules);
    omniORB::installTransientExceptionHandler(nullptr, &neverRepeat);
    omni::omniInterceptors* const interceptors = omniORB::getInterceptors();
    interceptors->clientSendRequest.add(&checkCall);
    interceptors->clientReceiveReply.add(&checkReply);
    interceptors->clientOpenConnection.add(&checkConnection);
    interceptors->createRope.add(&limitAddresses);
}

unsigned connectionsOpened()
{
    return t_connectionsOpened;
}

void noteRefusedCall()
{
    callsRefused.fetch_add(1, std::memory_order_relaxed);
}

unsigned long long Orb::callsRefused()
{
    return Tlx::callsRefused.load(std::memory_order_relaxed);
}

struct OrbCallLimit::State
{
    omni_thread::ensure_self known; // the ORB keeps the limit in an object of its own
};

OrbCallLimit::OrbCallLimit(std::chrono::milliseconds limit) : m_state(std::make_unique<State>())
{
    omniORB::setClientThreadCallTimeout(std::max<CORBA::ULong>(toOrbMilliseconds(limit), 1));
}

OrbCallLimit::~OrbCallLimit()
{
    omniORB::setClientThreadCallTimeout(0);
}

void setProcessCallLimit(std::chrono::seconds limit)
{
    omniORB::setClientCallTimeout(toOrbMilliseconds(limit));
}

void breakOffCalls()
{
    const omni_tracedmutex_lock guard(*omni::omniTransportLock);
    omni::StrandList& active = omni::giopStrand::active;
    for (omni::StrandList* each = active.next; each != &active; each = each->next) {
        const auto* const strand = static_cast<omni::giopStrand*>(each);
        if (strand->connection)
            breakOff(*strand->connection);
    }
    breakOffConnecting();
}

} // namespace Veltrane::Quillmark::Tlx
