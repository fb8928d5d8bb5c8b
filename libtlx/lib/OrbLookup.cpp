#include "OrbLookup.h"

#include <algorithm>
#include <limits>

#include <omnithread.h>

#include <tlx/HostConfig.h>
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

/// Limits the calls of this thread while it lives. The thread may be any: the ORB's own, or one
/// that it has never seen, a timer's, say.
class ThreadCallLimit
{
  public:
    explicit ThreadCallLimit(milliseconds limit)
    {
        omniORB::setClientThreadCallTimeout(std::max<CORBA::ULong>(toOrbMilliseconds(limit), 1));
    }
    ~ThreadCallLimit() { omniORB::setClientThreadCallTimeout(0); }
    ThreadCallLimit(const ThreadCallLimit&) = delete;
    ThreadCallLimit& operator=(const ThreadCallLimit&) = delete;

  private:
    const omni_thread::ensure_self m_known; // the ORB keeps the limit in an object of its own
};

milliseconds left(Clock::time_point end)
{
    return std::chrono::duration_cast<milliseconds>(end - Clock::now());
}

/// The connections that the ORB keeps to one address, at most.
constexpr int KEPT_CONNECTIONS = 5;

/// Whether the object is there. A connection that the ORB has kept may lead to a service that has
/// been restarted since, which shows when it is used: the question harms nothing, so it is asked
/// again until it went over a new one.
bool isThere(CORBA::Object_ptr object, Clock::time_point end)
{
    for (int kept = KEPT_CONNECTIONS;; --kept) {
        const ThreadCallLimit limited(left(end));
        try {
            return !object->_non_existent();
        } catch (const CORBA::COMM_FAILURE&) {
            if (kept == 0 || Clock::now() >= end)
                throw;
        }
    }
}

/// The object at one address, when it answers.
CORBA::Object_ptr ask(CORBA::ORB_ptr orb, const Endpoint& endpoint, const std::string& name,
                      Clock::time_point end)
{
    const std::string url = "corbaloc:iiop:1.2@" + toText(endpoint) + "/" + name;
    try {
        CORBA::Object_var object = orb->string_to_object(url.c_str());
        if (!CORBA::is_nil(object) && isThere(object, end))
            return object._retn();
        PLATFORM_LOG(LOG_LEVEL_PROGRESS, "Orb::lookupObject", "Nothing is there: " << url);
    } catch (const CORBA::Exception& e) {
        PLATFORM_LOG(LOG_LEVEL_PROGRESS, "Orb::lookupObject",
                     "No answer from " << url << ": " << describeException(e));
    }
    return CORBA::Object::_nil();
}

} // namespace

void setProcessCallLimit(std::chrono::seconds limit)
{
    omniORB::setClientCallTimeout(toOrbMilliseconds(limit));
}

CORBA::Object_ptr lookupObject(const OrbCore& core, const TlxHostname& host,
                               const std::string& name, milliseconds limit, bool elsewhere)
{
    const Clock::time_point end = Clock::now() + limit;
    Endpoint endpoint = HostConfig::instance().endpointOf(host.text().utf8());
    const auto addresses = resolveHost(endpoint.address, limit);
    if (addresses.empty())
        PLATFORM_LOG(LOG_LEVEL_PROGRESS, "Orb::lookupObject",
                     "The host has no address: " << endpoint.address);
    for (const std::string& address : addresses) {
        if (Clock::now() >= end)
            break;
        endpoint.address = address;
        if (elsewhere && core.leadsHere(endpoint)) {
            PLATFORM_LOG(LOG_LEVEL_FAILURE, "Orb::lookupObject",
                         host.text() << " leads back to this service: " << toText(endpoint));
            break;
        }
        CORBA::Object_var object = ask(core.orb(), endpoint, name, end);
        if (!CORBA::is_nil(object))
            return object._retn();
    }
    return CORBA::Object::_nil();
}

} // namespace Veltrane::Quillmark::Tlx
