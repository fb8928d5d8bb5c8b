#include "TlsCalls.h"

#include <algorithm>
#include <atomic>
#include <utility>

#include <openssl/err.h>
#include <sys/socket.h>

#include <tlx/Corba.h>
#include <tlx/Resolver.h>
#include <tlx/StopNotice.h>

// The next headers need these, and do not include them.
#include <omniORB4/IOP_C.h>
#include <omniORB4/callDescriptor.h>
#include <omniORB4/internal/SocketCollection.h>
#include <omniORB4/internal/giopRope.h>
#include <omniORB4/internal/giopStrand.h>
#include <omniORB4/internal/giopStream.h>
#include <omniORB4/sslContext.h>

#include <omniORB4/internal/GIOP_C.h>
#include <omniORB4/internal/tcpSocket.h>
#include <omniORB4/omniInterceptors.h>
#include <omniORB4/sslConnection.h>

#include "PlatformLog.h"
#include "RequestPeerState.h"
#include "TlsNames.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr const char* LOG_SOURCE = "../Tls";

std::atomic<TlsCalls*> theCalls{nullptr};

thread_local std::string t_failure;
thread_local std::vector<std::string> t_wanted; ///< by the lookup on this thread

/// The ORB's context for its TLS transport. The ORB owns it from its start on.
class OrbContext final : public sslContext
{
  public:
    explicit OrbContext(std::shared_ptr<const TlsContext> rules)
        : sslContext(nullptr, nullptr, nullptr), m_rules(std::move(rules))
    {
    }

  protected:
    SSL_METHOD* set_method() override { return const_cast<SSL_METHOD*>(TLS_client_method()); }
    void set_supported_versions() override
    {
        if (!m_rules->configure(get_SSL_CTX()))
            throw CORBA::INITIALIZE();
    }
    // The rules contain all of this.
    void set_CA() override {}
    void set_certificate() override {}
    void set_cipher() override {}
    void set_privatekey() override {}
    void seed_PRNG() override {}
    void set_DH() override {}
    int set_verify_mode() override { return SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT; }

  private:
    const std::shared_ptr<const TlsContext> m_rules;
};

/// The first name that is no address, otherwise the first one. Empty for no names.
std::string nameAmong(const std::vector<std::string>& hosts)
{
    const auto name = std::find_if(hosts.begin(), hosts.end(), [](const std::string& host) {
        return !NumericAddress::parse(host);
    });
    return name != hosts.end() ? *name : hosts.empty() ? std::string() : hosts.front();
}

const X509* certificateOf(const omni::giopConnection* connection)
{
    const auto* const tls = dynamic_cast<const omni::sslConnection*>(connection);
    return tls ? SSL_get0_peer_certificate(tls->ssl_handle()) : nullptr;
}

/// The numeric address of a socket's peer.
std::string peerOf(int socket)
{
    const CORBA::String_var uri = omni::tcpSocket::peerToURI(socket, "giop:ssl");
    return addressOfConnection(uri.in());
}

} // namespace

/// What the TLS library and the ORB call.
struct TlsCalls::Hooks
{
    /// Where a connection of the TLS library notes that its handshake is known here.
    static int index()
    {
        static const int own = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, &forget);
        return own;
    }

    /// A connection of the TLS library ends. The ORB closes the socket after this.
    static void forget(void* connection, void* isKnown, CRYPTO_EX_DATA*, int, long, void*)
    {
        TlsCalls* const calls = theCalls;
        if (!calls || !isKnown)
            return;
        const std::lock_guard guard(calls->m_mutex);
        calls->m_handshakes.erase(static_cast<const SSL*>(connection));
    }

    static void begin(TlsCalls& calls, const SSL* connection)
    {
        const int socket = SSL_get_fd(connection);
        std::string address = peerOf(socket);
        {
            const std::lock_guard guard(calls.m_mutex);
            calls.m_handshakes.insert_or_assign(connection, Handshake{socket, std::move(address)});
        }
        (void)SSL_set_ex_data(const_cast<SSL*>(connection), index(), &calls);
        if (isStopAnnounced()) // breakOff may have been before this
            ::shutdown(socket, SHUT_RDWR);
    }

    /// The handshake cannot go on: it waits for the peer, or it has failed.
    static void pause(TlsCalls& calls, const SSL* connection, int result)
    {
        const int state = SSL_get_error(connection, result);
        if (state == SSL_ERROR_WANT_READ || state == SSL_ERROR_WANT_WRITE)
            return;
        const std::string why = whyFailed(connection);
        // The ORB would end the call with an exception that nobody expects.
        if (state == SSL_ERROR_ZERO_RETURN)
            ERR_raise(ERR_LIB_SSL, SSL_R_SSL_HANDSHAKE_FAILURE);
        std::string address;
        {
            const std::lock_guard guard(calls.m_mutex);
            const auto found = calls.m_handshakes.find(connection);
            if (found != calls.m_handshakes.end())
                address = found->second.address;
        }
        calls.noteFailure(address,
                          why.empty() ? "it closed the connection during the TLS handshake" : why);
    }

    static void follow(const SSL* connection, int where, int result)
    {
        TlsCalls* const calls = theCalls;
        if (!calls)
            return;
        if ((where & SSL_CB_HANDSHAKE_START) != 0)
            begin(*calls, connection);
        else if ((where & SSL_CB_HANDSHAKE_DONE) != 0)
            forget(const_cast<SSL*>(connection), calls, nullptr, 0, 0, nullptr);
        else if (where == SSL_CB_CONNECT_EXIT && result <= 0)
            pause(*calls, connection, result);
        // A server refuses a certificate only after the handshake of the client has ended.
        else if (where == SSL_CB_READ_ALERT && (result >> 8) == SSL3_AL_FATAL &&
                 SSL_is_init_finished(connection) == 1)
            calls->noteFailure(peerOf(SSL_get_fd(connection)),
                               std::string("it refused this host: ") +
                                   SSL_alert_desc_string_long(result));
    }

    static CORBA::Boolean open(omni::omniInterceptors::clientOpenConnection_T::info_T& info)
    {
        TlsCalls* const calls = theCalls;
        const omni::giopStrand& strand = info.giop_c.strand();
        auto* const connection = strand.connection;
        if (!calls || !connection)
            return true;
        // A socket no longer knows its peer's address when the peer has closed the connection. So
        // this is the address that the ORB has called.
        if (!calls->admit(addressOfConnection(strand.address->address()),
                          certificateOf(connection))) {
            info.reject = true;
            info.why = "the host has not proved its name";
        }
        return true;
    }

    static CORBA::Boolean send(omni::omniInterceptors::clientSendRequest_T::info_T& info)
    {
        TlsCalls* const calls = theCalls;
        if (!calls)
            return true;
        // The ORB leaves the errors of a failed connection behind. The next use of the TLS library
        // on this thread would take them for its own.
        ERR_clear_error();
        const omni::giopStrand& strand = info.giop_c.strand();
        if (calls->m_mode != TlsMode::REQUIRED || !strand.connection)
            return true;
        // A kept connection to another host. The lookup makes a new one.
        if (!calls
                 ->complaintOfLookup(addressOfConnection(strand.address->address()),
                                     certificateOf(strand.connection))
                 .empty())
            throw CORBA::COMM_FAILURE(0, CORBA::COMPLETED_NO);
        return true;
    }
};

TlsCalls::TlsCalls(std::shared_ptr<TlsContext> context, TlsMode mode)
    : m_context(std::move(context)), m_mode(mode)
{
    (void)Hooks::index();
    delete sslContext::singleton; // of an ORB that did not start
    sslContext::singleton = new OrbContext(m_context);
    sslContext::info_callback = &Hooks::follow;
    theCalls = this;
}

TlsCalls::~TlsCalls()
{
    theCalls = nullptr;
    delete std::exchange(sslContext::singleton, nullptr);
    sslContext::info_callback = nullptr;
}

void TlsCalls::watch()
{
    omni::omniInterceptors* const interceptors = omniORB::getInterceptors();
    interceptors->clientOpenConnection.add(&Hooks::open);
    interceptors->clientSendRequest.add(&Hooks::send);
}

const char* TlsCalls::transportRule() const
{
    return m_mode == TlsMode::REQUIRED ? "* ssl" : "* ssl,tcp";
}

std::string TlsCalls::locationOf(const std::string& endpoint, const std::string& name) const
{
    const std::string plain = m_mode == TlsMode::REQUIRED ? "" : "iiop:1.2@" + endpoint + ",";
    return "corbaloc:" + plain + "ssliop:1.2@" + endpoint + "/" + name;
}

void TlsCalls::noteResolved(const std::string& host, const std::vector<std::string>& addresses)
{
    for (const std::string& address : addresses)
        m_resolved.note(host, address);
}

void TlsCalls::breakOff()
{
    const std::lock_guard guard(m_mutex);
    for (const auto& [connection, handshake] : m_handshakes)
        ::shutdown(handshake.socket, SHUT_RDWR);
}

TlsCalls::Lookup::Lookup(std::vector<std::string> hosts)
{
    t_failure.clear();
    t_wanted = std::move(hosts);
}

TlsCalls::Lookup::~Lookup()
{
    t_wanted.clear();
}

const std::string& TlsCalls::failure()
{
    return t_failure;
}

/// "HOST (ADDRESS)": the host that a lookup wants, otherwise the first one that leads there.
std::string TlsCalls::describe(const std::string& address) const
{
    const std::string host = nameAmong(t_wanted.empty() ? m_resolved.of(address) : t_wanted);
    return host.empty() || host == address ? address : host + " (" + address + ")";
}

std::string TlsCalls::complaintAbout(const std::string& address, const X509* certificate) const
{
    if (!certificate)
        return "the connection is plain";
    const Names hosts = m_resolved.of(address);
    if (isAnyOf(hosts, address, certificate))
        return complaintOfLookup(address, certificate);
    const std::string shown = "its certificate names " + nameOf(certificate);
    return hosts.empty() ? shown + ", and no host that was looked up has this address"
                         : shown + ", not " + nameAmong(hosts);
}

/// Whether the host at an address is one of these.
bool TlsCalls::isAnyOf(Names hosts, const std::string& address, const X509* certificate) const
{
    // This host calls itself by many names, and references carry any of its addresses.
    if (isLocalAddress(address))
        hosts.push_back(m_context->identity()->name());
    return std::any_of(hosts.begin(), hosts.end(),
                       [&](const std::string& host) { return isNamed(certificate, host); });
}

/// Why the lookup on this thread must not use a connection; empty if it may, or without a lookup.
std::string TlsCalls::complaintOfLookup(const std::string& address, const X509* certificate) const
{
    if (t_wanted.empty())
        return {};
    if (!certificate)
        return "the connection is plain";
    if (isAnyOf(t_wanted, address, certificate))
        return {};
    return "its certificate names " + nameOf(certificate) + ", not " + nameAmong(t_wanted);
}

bool TlsCalls::admit(const std::string& address, const X509* certificate)
{
    const std::string complaint = complaintAbout(address, certificate);
    if (complaint.empty())
        return true;
    if (m_mode == TlsMode::REQUIRED) {
        noteFailure(address, complaint);
        return false;
    }
    {
        const std::lock_guard guard(m_mutex);
        if (m_unprotected.contains(address))
            return true;
        if (m_unprotected.size() >= MAX_UNPROTECTED_HOSTS)
            m_unprotected.clear();
        m_unprotected.insert(address);
    }
    PLATFORM_WARN("TlsCalls::open", "TLS does not protect the calls to "
                                        << describe(address) << " (TLS = on): " << complaint);
    return true;
}

void TlsCalls::noteFailure(const std::string& address, const std::string& why) const
{
    t_failure = why;
    if (m_mode == TlsMode::REQUIRED)
        PLATFORM_WARN("TlsCalls::open",
                      "No TLS connection to " << describe(address) << ": " << why);
    else
        PLATFORM_LOG(LOG_LEVEL_PROGRESS, "TlsCalls::open",
                     "No TLS connection to " << describe(address) << ": " << why);
}

} // namespace Veltrane::Quillmark::Tlx
