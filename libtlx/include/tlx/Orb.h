#pragma once
// The ORB as this system uses it.

#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include <tl/expected.hpp>
#include <tlx/Corba.h>
#include <tlx/Evictor.h>
#include <tlx/HostConfig.h>
#include <tlx/Hostname.h>
#include <tlx/OrbCounts.h>

class ACE_Reactor;

namespace Veltrane::Quillmark::Tlx {

/// An object that a host's service advertises.
struct AdvertisedObject
{
    TlxHostname host;
    std::string name;
    /// Where the host listens. Without a value the configuration decides.
    std::optional<Endpoint> endpoint = std::nullopt;
    /// The limit for name resolution, connection and first call together.
    std::chrono::milliseconds limit;
    /// Whether an address that leads back to this very process is a failure, logged at level 1.
    bool elsewhere = false;
};

/// Why a lookup found nothing.
struct LookupFailure
{
    std::string cause;     ///< one line for people, without the host's name
    std::string exception; ///< the name of the CORBA exception, such as "TRANSIENT"; may be empty
};

/// Wraps the process's ORB. A process has one ORB, and every Orb shares it by count. The first one
/// decides how it listens, and the last one destroys it. Code sets are UTF-8. Unless a comment says
/// otherwise, any thread may call an operation, and a CORBA::SystemException goes to the caller.
///
/// Each Orb owns an ACE reactor. The reactor's thread runs the timers one at a time. An Orb also
/// owns an evictor if its user asks for one.
class Orb
{
  public:
    /// @param clientOnly true: the ORB opens no port and serves no request.
    /// @param endpoint "ADDRESS:PORT" to listen on; empty for the host configuration's LISTEN.
    ///        Port 0 takes a free one.
    /// @param serviceName the name of the service this ORB belongs to.
    /// @param evictorEnabled whether there is an evictor.
    /// @throws OrbError when the ORB cannot be brought up, for instance because the port is in use.
    Orb(bool clientOnly, const std::string& endpoint, const std::string& serviceName,
        bool evictorEnabled);
    ~Orb();
    Orb(const Orb&) = delete;
    Orb& operator=(const Orb&) = delete;

    const std::string& getServiceName() const;
    /// The ORB itself. The caller does not release it.
    CORBA::ORB_ptr getOrb() const;
    /// The reactor, which serves timers and no handles. This object owns it.
    ACE_Reactor* getReactor() const;
    bool isEvictorEnabled() const;
    /// @throws CORBA::BAD_INV_ORDER unless isEvictorEnabled().
    Evictor& getEvictor() const;

    /// The "ADDRESS:PORT" in the references that this process makes; empty for a client.
    std::string getEndpoint() const;

    /// Sets how long a call to another host may take before it fails with TIMEOUT, for the whole
    /// process. 0 means no limit.
    void setOrbRequestTimeout(unsigned seconds);

    /// Activates a servant in poa (nil: the root POA) and returns a reference, which the caller
    /// releases. The POA takes its own reference to the servant.
    [[nodiscard]] CORBA::Object_ptr
    activateServant(PortableServer::Servant servant,
                    PortableServer::POA_ptr poa = PortableServer::POA::_nil());

    /// Deactivates the object behind a reference in poa (nil: the root POA). Does nothing when the
    /// reference is nil or the object is gone.
    void destroyObjectRef(CORBA::Object_ptr object, PortableServer::POA_ptr poa);

    /// Makes corbaloc:iiop:1.2@HOST:PORT/NAME lead to the object, for clients of any ORB.
    void advertiseObject(const std::string& name, CORBA::Object_ptr object);

    /// Set once the service's objects are advertised. Only hosts built elsewhere, and tests,
    /// ask for it.
    void setPostAdvertised(bool advertised);
    bool isPostAdvertised() const;

    /// The first makes early requests wait until the service is up. The second lets them in.
    void holdRequests();
    void serveRequests();

    /// The service stops. Calls to other hosts fail, those in progress at once. A request no longer
    /// waits for the rest of its arguments, and a reply no longer for a peer that does not read it:
    /// each has a second. Waits for names and for file locks end, too (StopNotice.h). Returns after
    /// a second at most.
    void breakOffWaits();

    /// The connections of other hosts. All zeros in a client and before the first Orb.
    static ConnectionCounts connectionCounts();

    /// Reads the files of TLS again, for new connections in both directions. If one has a mistake,
    /// an error is logged and the old ones stay. Does nothing without TLS.
    static void reloadTls();
    /// What is wrong with the files of TLS in the configuration, as a line that names the key and
    /// the file. This includes a certificate that peers will refuse, although the ORB starts with
    /// it. Empty if nothing is wrong, if TLS is off, and if its mode itself is a mistake.
    static std::string tlsMistake();
    /// Logs a warning once a day from 30 days before the end of this host's certificate, and an
    /// error after it. Call it often. Does nothing without TLS.
    static void checkTlsExpiry();
    /// When the time of this host's certificate ends, in seconds since the epoch; 0 without TLS.
    static long long tlsExpiry();

    /// The object that the host's service advertises under a name, after the object itself has
    /// answered. The limit holds for name resolution, connection and first call together, even if
    /// the peer accepts and stays silent. A call into this process itself runs on the calling
    /// thread and has no limit. Does not throw.
    [[nodiscard]] tl::expected<CORBA::Object_var, LookupFailure>
    lookupObject(const AdvertisedObject& wanted);

    /// How many servant operations (tlx/Servant.h) run in this process now. The status and the stop
    /// need it.
    static unsigned requestsInProgress();
    /// How many requests found too many others that waited for the same servant.
    static unsigned long long requestsTurnedAway();
    /// How many calls to other hosts this process has ended, because they were forwarded too often,
    /// needed too many connections, or led back to this process.
    static unsigned long long callsRefused();

  private:
    struct State;
    const std::unique_ptr<State> m_state;
};

/// While this object lives, it limits each remote call of the thread that made it. Afterwards the
/// process's limit holds again. Any thread may make one, even a thread that is new to the ORB. Does
/// not nest.
class OrbCallLimit
{
  public:
    [[nodiscard]] explicit OrbCallLimit(std::chrono::milliseconds limit);
    OrbCallLimit(const OrbCallLimit&) = delete;
    OrbCallLimit& operator=(const OrbCallLimit&) = delete;
    ~OrbCallLimit();

  private:
    struct State;
    const std::unique_ptr<State> m_state;
};

/// The ORB could not be brought up. what() is one line for a person and names the endpoint.
class OrbError : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

/// The same, because of a mistake in the configuration of TLS. what() names the key and the file.
class OrbConfigError : public OrbError
{
  public:
    using OrbError::OrbError;
};

/// Sets the process-wide reactor, which the timers use. Null removes it.
void setAceReactor(ACE_Reactor* reactor);
/// The process-wide reactor; null when none is set.
ACE_Reactor* getAceReactor();

} // namespace Veltrane::Quillmark::Tlx
