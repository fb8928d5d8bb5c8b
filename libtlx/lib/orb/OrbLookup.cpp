#include "OrbLookup.h"

#include <algorithm>
#include <limits>

#include <omniORB4/minorCode.h>
#include <omnithread.h>

#include <tlx/HostConfig.h>
#include <tlx/Orb.h>
#include <tlx/Resolver.h>
#include <tlx/Servant.h>

#include "OrbCore.h"
#include "PlatformLog.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr const char* LOG_SOURCE = "../Orb";

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

CORBA::ULong toOrbMilliseconds(milliseconds limit)
{
    return static_cast<CORBA::ULong>(
        std::clamp<milliseconds::rep>(limit.count(), 0, std::numeric_limits<CORBA::ULong>::max()));
}

milliseconds left(Clock::time_point end)
{
    return std::chrono::duration_cast<milliseconds>(end - Clock::now());
}

/// Whether the object exists. The ORB may have kept a connection to a service that has restarted
/// since, and only a call shows this. A second call does no harm, so it asks again until a call
/// uses a new connection.
bool isThere(CORBA::Object_ptr object, Clock::time_point end)
{
    for (int kept = CONNECTIONS_TO_A_HOST;; --kept) {
        const OrbCallLimit limited(left(end));
        try {
            return !object->_non_existent();
        } catch (const CORBA::COMM_FAILURE&) {
            if (kept == 0 || Clock::now() >= end)
                throw;
        } catch (const CORBA::TRANSIENT& e) {
            // The same, over a connection to the object that the service forwarded to.
            if (e.minor() != omni::TRANSIENT_FailedOnForwarded || kept == 0 || Clock::now() >= end)
                throw;
        }
    }
}

using Lookup = tl::expected<CORBA::Object_var, LookupFailure>;

/// A failed lookup.
Lookup notFound(std::string cause, std::string exception = {})
{
    return tl::unexpected(LookupFailure{std::move(cause), std::move(exception)});
}

/// The object at one address.
Lookup ask(CORBA::ORB_ptr orb, const Endpoint& endpoint, const std::string& name,
           Clock::time_point end)
{
    const std::string url = "corbaloc:iiop:1.2@" + toText(endpoint) + "/" + name;
    try {
        CORBA::Object_var object = orb->string_to_object(url.c_str());
        if (!CORBA::is_nil(object) && isThere(object, end))
            return object;
        PLATFORM_LOG(LOG_LEVEL_PROGRESS, "Orb::lookupObject", "Nothing is there: " << url);
        return notFound("there is no object of that name");
    } catch (const CORBA::Exception& e) {
        PLATFORM_LOG(LOG_LEVEL_PROGRESS, "Orb::lookupObject",
                     "No answer from " << url << ": " << describeException(e));
        return notFound(describeException(e), e._name());
    }
}

} // namespace

struct OrbCallLimit::State
{
    omni_thread::ensure_self known; // the ORB keeps the limit in an object of its own
};

OrbCallLimit::OrbCallLimit(milliseconds limit) : m_state(std::make_unique<State>())
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

Lookup lookupObject(const OrbCore& core, const AdvertisedObject& wanted)
{
    const Clock::time_point end = Clock::now() + wanted.limit;
    Endpoint endpoint = wanted.endpoint
                            ? *wanted.endpoint
                            : HostConfig::instance().endpointOf(wanted.host.text().utf8());
    const auto addresses = resolveHost(endpoint.address, wanted.limit);
    if (addresses.empty()) {
        PLATFORM_LOG(LOG_LEVEL_PROGRESS, "Orb::lookupObject",
                     "The host has no address: " << endpoint.address);
        return notFound("the name leads to no address");
    }
    Lookup answer = notFound("no answer within the time limit");
    std::size_t untried = addresses.size();
    for (const std::string& address : addresses) {
        if (Clock::now() >= end)
            break;
        // An address that does not answer must leave time for the others.
        const Clock::time_point ownEnd = Clock::now() + left(end) / untried--;
        endpoint.address = address;
        if (wanted.elsewhere && core.leadsHere(endpoint)) {
            PLATFORM_WARN("Orb::lookupObject", wanted.host.text() << " leads back to this service: "
                                                                  << toText(endpoint));
            return notFound("it leads back to this service");
        }
        answer = ask(core.orb(), endpoint, wanted.name, ownEnd);
        if (answer)
            break;
    }
    return answer;
}

} // namespace Veltrane::Quillmark::Tlx
