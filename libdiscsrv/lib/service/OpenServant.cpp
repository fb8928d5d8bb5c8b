#include "OpenServant.h"

#include "DiscLog.h"
#include "ServiceCounters.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {

namespace {
constexpr const char* LOG_SOURCE = "DiscoveryService_i";
} // namespace

bool isSamePeer(const RequestPeer& one, const RequestPeer& other)
{
    if (!one.certificateName.empty() || !other.certificateName.empty())
        return one.certificateName == other.certificateName;
    return one.address == other.address;
}

bool OpenServant::isFromOwner(const char* operation) const
{
    const RequestPeer* const peer = requestPeer();
    if (!m_owner || !peer || isSamePeer(*m_owner, *peer))
        return true;
    countService(ServiceCounter::FOREIGN_USES);
    const LogScope scope("OpenServant::isFromOwner");
    DISC_WARN("Refused " << operation << " of peer " << peer->identity() << ": " << describe()
                         << " belongs to peer " << m_owner->identity());
    return false;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
