#pragma once
// The ORB as this system uses it.

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include <tlx/Corba.h>
#include <tlx/Evictor.h>
#include <tlx/HostConfig.h>
#include <tlx/Hostname.h>

class ACE_Reactor;

namespace Veltrane::Quillmark::Tlx {

/// An object that a host's service advertises.
struct AdvertisedObject
{
    TlxHostname host;
    std::string name;
    /// Where the host listens; without one, where the configuration says.
    std::optional<Endpoint> endpoint;
    /// For resolving the name, connecting and the first call together.
    std::chrono::milliseconds limit;
    /// Whether an address that leads back to this very process is a failure, logged at level 1.
    bool elsewhere = false;
};

/// Why a lookup found nothing.
struct LookupFailure
{
    std::string cause;     ///< one line for people, without the host's name; empty on success
    std::string exception; ///< the name of the CORBA exception, such as "TRANSIENT"; may be empty
};

/// Wraps the process's ORB. There is one ORB a process: every Orb shares it by count, the first one
/// decides how it listens, the last one destroys it. Code sets are UTF-8. Unless said otherwise an
/// operation may be called from any thread, and a CORBA::SystemException goes to the caller.
///
/// Each Orb owns an ACE reactor with a thread of its own, on which timers run one at a time; and,
/// when asked, an evictor.
class Orb
{
  public:
    /// @param clientOnly true: no port is opened, no request is ever served.
    /// @param endpoint "ADDRESS:PORT" to listen on; empty for the host configuration's LISTEN. Port
    /// 0
    ///        takes a free one.
    /// @param serviceName the name of the service this ORB belongs to.
    /// @param evictorEnabled whether there is an evictor.
    /// @param reactorHandles size of the reactor's table.
    /// @throws OrbError when the ORB cannot be brought up (a port in use, say).
    Orb(bool clientOnly, const std::string& endpoint, const std::string& serviceName,
        bool evictorEnabled, std::size_t reactorHandles);
    ~Orb();
    Orb(const Orb&) = delete;
    Orb& operator=(const Orb&) = delete;

    const std::string& getServiceName() const;
    /// The ORB itself; not to be released.
    CORBA::ORB_ptr getOrb() const;
    /// The reactor; owned here, gone with this object.
    ACE_Reactor* getReactor() const;
    bool isEvictorEnabled() const;
    /// @throws CORBA::BAD_INV_ORDER unless isEvictorEnabled().
    Evictor& getEvictor() const;

    /// "ADDRESS:PORT" as it stands in references made here; empty for a client.
    std::string getEndpoint() const;

    /// How long a call to another host may take before it fails with TIMEOUT, for the whole
    /// process; 0 for no limit.
    void setOrbRequestTimeout(unsigned seconds);

    /// Activates a servant in poa (nil: the root POA) and answers its reference, which the caller
    /// releases. The POA takes a servant reference of its own.
    CORBA::Object_ptr activateServant(PortableServer::Servant servant,
                                      PortableServer::POA_ptr poa = PortableServer::POA::_nil());

    /// Deactivates the object behind a reference in poa (nil: the root POA). Does nothing when the
    /// reference is nil or the object is gone.
    void destroyObjectRef(CORBA::Object_ptr object, PortableServer::POA_ptr poa);

    /// Makes corbaloc:iiop:1.2@HOST:PORT/NAME lead to the object, for clients with any ORB.
    void advertiseObject(const std::string& name, CORBA::Object_ptr object);

    /// Set once the service's objects are advertised.
    void setPostAdvertised(bool advertised);
    bool isPostAdvertised() const;

    /// Requests arrive from the start, but wait until the service is up.
    void holdRequests();
    void serveRequests();

    /// The object that host's service advertises under a name: an own reference, or nil unless the
    /// object itself has answered. Resolving the name, connecting and the first call together take
    /// no longer than the limit, also when the peer accepts and stays silent. (A call into this
    /// very process runs on the calling thread, and so takes as long as it takes.) Does not throw.
    CORBA::Object_ptr lookupObject(const TlxHostname& host, const std::string& name,
                                   std::chrono::milliseconds limit);
    /// The same, but nil (and logged at level 1) where the name leads back to this very process.
    CORBA::Object_ptr lookupObjectElsewhere(const TlxHostname& host, const std::string& name,
                                            std::chrono::milliseconds limit);
    /// The same, and in failure why it is nil.
    CORBA::Object_ptr lookupObject(const AdvertisedObject& wanted, LookupFailure& failure);

    /// How many servant operations (tlx/Servant.h) this process is in now: for the status and the
    /// stop.
    static unsigned requestsInProgress();

  private:
    struct State;
    const std::unique_ptr<State> m_state;
};

/// Limits each remote call of the thread that made it, while it lives; they have the process's
/// limit again afterwards. Any thread, also one that the ORB has never seen. Not to be nested.
class OrbCallLimit
{
  public:
    explicit OrbCallLimit(std::chrono::milliseconds limit);
    OrbCallLimit(const OrbCallLimit&) = delete;
    OrbCallLimit& operator=(const OrbCallLimit&) = delete;
    ~OrbCallLimit();

  private:
    struct State;
    const std::unique_ptr<State> m_state;
};

/// The ORB could not be brought up; what() is one line for a person, naming the endpoint.
class OrbError : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

/// Makes a reactor the process-wide one, which the timers use. Null takes it away again.
void setAceReactor(ACE_Reactor* reactor);
/// The process-wide reactor; null when none is set.
ACE_Reactor* getAceReactor();

} // namespace Veltrane::Quillmark::Tlx
