#pragma once
// TLS for the calls of this process to other hosts.
//
// The ORB's own TLS transport makes these connections. It checks the certificate's authority, but
// no name: each host of the installation could play any other. So this object checks the name of
// each new connection. A connection to an address is allowed only if the certificate names a host
// that this process has looked up, and that led to this address. A reference that leads elsewhere
// is refused. A lookup is stricter: it uses only connections whose certificate names its host.

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <openssl/ssl.h>

#include "ResolvedHosts.h"
#include "TlsContext.h"
#include "TlsMode.h"

namespace Veltrane::Quillmark::Tlx {

/// The most hosts without protection that are remembered, so that each has one line in the log.
/// Beyond it the list starts anew.
constexpr std::size_t MAX_UNPROTECTED_HOSTS = 10000;

/// The process has one at a time, as long as its ORB. Any thread uses it between `watch` and the
/// end of the ORB.
class TlsCalls
{
  public:
    /// Gives the ORB's transport its rules. Make it before the ORB starts.
    TlsCalls(std::shared_ptr<TlsContext> context, TlsMode mode);
    /// Destroy it after the ORB.
    ~TlsCalls();
    TlsCalls(const TlsCalls&) = delete;
    TlsCalls& operator=(const TlsCalls&) = delete;

    /// Begins to check connections. Call it when the ORB is up.
    void watch();

    /// The ORB's rule for the addresses of references: which ones it calls, in which order.
    const char* transportRule() const;
    /// The reference to an object under its advertised name, for the ORB.
    std::string locationOf(const std::string& endpoint, const std::string& name) const;

    /// A host leads to these numeric addresses. Call it before connecting.
    void noteResolved(const std::string& host, const std::vector<std::string>& addresses);

    /// Ends the handshakes in progress. Their calls fail.
    void breakOff();

    /// Why the last TLS connection of this thread failed, for a person. Empty since its last lookup
    /// began, if none has failed.
    static const std::string& failure();

    /// A lookup on this thread. Two hosts may lead to one address, and then they share the ORB's
    /// connections. So the names are compared for each call of the lookup. A kept connection to
    /// another host is closed, and the call fails with COMM_FAILURE.
    class Lookup
    {
      public:
        /// @param hosts the names of the wanted host. The certificate must have one of them.
        explicit Lookup(std::vector<std::string> hosts);
        ~Lookup();
        Lookup(const Lookup&) = delete;
        Lookup& operator=(const Lookup&) = delete;
    };

    /// Why a connection to an address must not be used; empty if it may be. Only a connection
    /// with TLS has a certificate.
    std::string complaintAbout(const std::string& address, const X509* certificate) const;

  private:
    struct Hooks;
    using Names = std::vector<std::string>;
    struct Handshake
    {
        int socket;
        std::string address; ///< of the peer
    };

    std::string describe(const std::string& address) const;
    bool isAnyOf(Names hosts, const std::string& address, const X509* certificate) const;
    std::string complaintOfLookup(const std::string& address, const X509* certificate) const;
    /// Decides about a new connection. Returns whether it may be used.
    bool admit(const std::string& address, const X509* certificate);
    void noteFailure(const std::string& address, const std::string& why) const;

    const std::shared_ptr<TlsContext> m_context;
    const TlsMode m_mode;
    ResolvedHosts m_resolved;
    std::mutex m_mutex;                           ///< of the members below
    std::map<const SSL*, Handshake> m_handshakes; ///< in progress
    std::set<std::string> m_unprotected;          ///< addresses that a line names already
};

} // namespace Veltrane::Quillmark::Tlx
