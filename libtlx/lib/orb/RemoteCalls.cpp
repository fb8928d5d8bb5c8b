#include "RemoteCalls.h"

#include <cstdlib>
#include <memory>

#include <dirent.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <tlx/Corba.h>
#include <tlx/StopNotice.h>

// The next headers need these, and do not include them.
#include <omniORB4/callDescriptor.h>
#include <omniORB4/internal/giopStream.h>
#include <omniORB4/sslContext.h>

#include <omniORB4/internal/giopRope.h>
#include <omniORB4/internal/giopStrand.h>
#include <omniORB4/omniInterceptors.h>
#include <omniORB4/sslConnection.h>
#include <omniORB4/tcpConnection.h>

namespace Veltrane::Quillmark::Tlx {

namespace {

CORBA::Boolean never(void*, CORBA::ULong, const CORBA::TRANSIENT&)
{
    return false;
}

CORBA::Boolean refuseCall(omni::omniInterceptors::clientSendRequest_T::info_T&)
{
    if (isStopAnnounced())
        throw CORBA::TRANSIENT(0, CORBA::COMPLETED_NO);
    return true;
}

CORBA::Boolean refuseConnection(omni::omniInterceptors::clientOpenConnection_T::info_T& info)
{
    if (isStopAnnounced()) {
        info.reject = true;
        info.why = "the service stops";
    }
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

void limitRemoteCalls()
{
    omniORB::installTransientExceptionHandler(nullptr, &never);
    omni::omniInterceptors* const interceptors = omniORB::getInterceptors();
    interceptors->clientSendRequest.add(&refuseCall);
    interceptors->clientOpenConnection.add(&refuseConnection);
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
