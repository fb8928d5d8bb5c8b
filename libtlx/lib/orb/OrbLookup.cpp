#include "OrbLookup.h"

#include <algorithm>

#include <omniORB4/minorCode.h>

#include <tlx/HostConfig.h>
#include <tlx/Orb.h>
#include <tlx/Resolver.h>
#include <tlx/Servant.h>

#include "OrbCore.h"
#include "PlatformLog.h"
#include "RemoteCalls.h"
#include "TlsCalls.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr const char* LOG_SOURCE = "../Orb";

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

milliseconds left(Clock::time_point end)
{
    return std::chrono::duration_cast<milliseconds>(end - Clock::now());
}

/// The most new connections of one question. The service may forward to another address.
constexpr unsigned MOST_NEW_CONNECTIONS = 3;

/// Whether the object exists. The call may use a connection that the ORB has kept, and fail: the
/// service has restarted since, or with TLS the connection leads to another host. A second call
/// does no harm. So it repeats the call until that has failed on MOST_NEW_CONNECTIONS, too.
bool isThere(CORBA::Object_ptr object, Clock::time_point end)
{
    const unsigned before = connectionsOpened();
    for (int kept = CONNECTIONS_TO_A_HOST;; --kept) {
        const OrbCallLimit limited(left(end));
        const auto isLast = [&] {
            return kept == 0 || Clock::now() >= end || !TlsCalls::failure().empty() ||
                   connectionsOpened() - before >= MOST_NEW_CONNECTIONS;
        };
        try {
            return !object->_non_existent();
        } catch (const CORBA::COMM_FAILURE&) {
            if (isLast())
                throw;
        } catch (const CORBA::TRANSIENT& e) {
            // The same, over a connection to the object that the service forwarded to.
            if (e.minor() != omni::TRANSIENT_FailedOnForwarded || isLast())
                throw;
        }
    }
}

/// Why TLS may be the reason of a failed call, as a part of a sentence; empty if it is not.
/// @param opened whether the call has opened a connection.
std::string tlsReason(const CORBA::Exception& e, bool opened)
{
    if (!TlsCalls::failure().empty())
        return ", TLS: " + TlsCalls::failure();
    // The refusal is often lost, because the peer closes the connection at the same time.
    if (opened && CORBA::COMM_FAILURE::_downcast(&e))
        return ", TLS: it closed a new connection, perhaps because it refused this host";
    return {};
}

using Found = tl::expected<CORBA::Object_var, LookupFailure>;

/// A failed lookup.
Found notFound(std::string cause, std::string exception = {})
{
    return tl::unexpected(LookupFailure{std::move(cause), std::move(exception)});
}

/// The object at one address.
/// @param hosts the names of the wanted host.
Found ask(const OrbCore& core, const Endpoint& endpoint, const std::string& name,
          const std::vector<std::string>& hosts, Clock::time_point end)
{
    const std::string url = core.tlsCalls() ? core.tlsCalls()->locationOf(toText(endpoint), name)
                                            : "corbaloc:iiop:1.2@" + toText(endpoint) + "/" + name;
    const TlsCalls::Lookup lookup(hosts);
    const unsigned before = connectionsOpened();
    try {
        CORBA::Object_var object = core.orb()->string_to_object(url.c_str());
        if (!CORBA::is_nil(object) && isThere(object, end))
            return object;
        PLATFORM_LOG(LOG_LEVEL_PROGRESS, "Orb::lookupObject", "Nothing is there: " << url);
        return notFound("there is no object of that name");
    } catch (const CORBA::Exception& e) {
        PLATFORM_LOG(LOG_LEVEL_PROGRESS, "Orb::lookupObject",
                     "No answer from " << url << ": " << describeException(e));
        const bool opened = core.tlsCalls() && connectionsOpened() != before;
        return notFound(describeException(e) + tlsReason(e, opened), e._name());
    }
}

} // namespace

Found lookupObject(const OrbCore& core, const AdvertisedObject& wanted)
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
    std::vector<std::string> hosts{endpoint.address};
    if (!wanted.host.text().utf8().empty())
        hosts.push_back(wanted.host.text().utf8());
    if (TlsCalls* const calls = core.tlsCalls())
        for (const std::string& host : hosts)
            calls->noteResolved(host, addresses);
    Found answer = notFound("no answer within the time limit");
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
        answer = ask(core, endpoint, wanted.name, hosts, ownEnd);
        if (answer)
            break;
    }
    return answer;
}

} // namespace Veltrane::Quillmark::Tlx
