#include "TlsContext.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <utility>

#include <openssl/err.h>

#include "PlatformLog.h"
#include "TlsNames.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr const char* LOG_SOURCE = "../Tls";

std::string dayOf(TlsContext::Clock::time_point when)
{
    const std::time_t seconds = TlsContext::Clock::to_time_t(when);
    std::tm parts{};
    std::array<char, 40> text{};
    if (!::gmtime_r(&seconds, &parts) ||
        std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M UTC", &parts) == 0)
        return "an unknown time";
    return text.data();
}

void logIdentity(const TlsFiles& files, const TlsIdentity& identity)
{
    PLATFORM_LOG(LOG_LEVEL_PROGRESS, "TlsContext::load",
                 "The certificate in " << files.certificate << " names " << identity.name()
                                       << " and is valid until " << dayOf(identity.expiry()));
    // checkExpiry reports a certificate that has expired.
    const std::string refusal = whyPeersRefuse(files, identity, {});
    if (!refusal.empty())
        PLATFORM_WARN("TlsContext::load", refusal);
}

} // namespace

std::string whyPeersRefuse(const TlsFiles& files, const TlsIdentity& identity,
                           TlsIdentity::Clock::time_point now)
{
    const std::string refusal =
        "Peers will refuse the certificate in " + files.certificate.text() + " (TLS_CERTIFICATE): ";
    if (!identity.isSignedByAuthority())
        return refusal + "no authority in " + files.ca.text() + " (TLS_CA) has signed it";
    if (now >= identity.expiry())
        return refusal + "it expired at " + dayOf(identity.expiry());
    return {};
}

/// What all connections share. Each context of the TLS library keeps it alive.
struct TlsContext::State
{
    std::shared_ptr<const TlsIdentity> current()
    {
        const std::lock_guard guard(mutex);
        return identity;
    }

    std::mutex mutex; ///< for a few assignments
    std::shared_ptr<const TlsIdentity> identity;
};

/// The functions that the TLS library calls during a handshake.
struct TlsContext::Rules
{
    using Holder = std::shared_ptr<State>;

    static void release(void*, void* holder, CRYPTO_EX_DATA*, int, long, void*)
    {
        delete static_cast<Holder*>(holder);
    }

    /// Where a context of the TLS library keeps its State.
    static int index()
    {
        static const int own = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, &release);
        return own;
    }

    static std::shared_ptr<const TlsIdentity> identityOf(const SSL* connection)
    {
        const auto* const holder =
            static_cast<const Holder*>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(connection), index()));
        return (*holder)->current();
    }

    static int showCertificate(SSL* connection, void*)
    {
        const auto own = identityOf(connection);
        return SSL_use_cert_and_key(connection, own->certificate(), own->key(), own->chain(), 1);
    }

    static int verifyPeer(X509_STORE_CTX* check, void*)
    {
        const auto* const connection = static_cast<const SSL*>(
            X509_STORE_CTX_get_ex_data(check, SSL_get_ex_data_X509_STORE_CTX_idx()));
        const auto own = identityOf(connection);
        if (sk_X509_num(X509_STORE_CTX_get0_untrusted(check)) > MAX_SHOWN_CERTIFICATES) {
            X509_STORE_CTX_set_error(check, X509_V_ERR_CERT_CHAIN_TOO_LONG);
            return 0;
        }
        X509_STORE_CTX_set0_trusted_stack(check, own->authorities());
        if (X509_verify_cert(check) != 1)
            return 0;
        // Without a name, the peer would pass for its address.
        if (nameOf(X509_STORE_CTX_get0_cert(check)).empty()) {
            X509_STORE_CTX_set_error(check, X509_V_ERR_APPLICATION_VERIFICATION);
            return 0;
        }
        return 1;
    }
};

bool TlsContext::configure(SSL_CTX* context) const
{
    if (!context || SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION) != 1)
        return false;
    auto holder = std::make_unique<Rules::Holder>(m_state);
    if (SSL_CTX_set_ex_data(context, Rules::index(), holder.get()) != 1)
        return false;
    (void)holder.release(); // the context deletes it
    SSL_CTX_set_options(context,
                        SSL_OP_NO_TICKET | SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
    SSL_CTX_set_max_cert_list(context, MAX_SHOWN_BYTES);
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    SSL_CTX_set_cert_verify_callback(context, &Rules::verifyPeer, nullptr);
    SSL_CTX_set_cert_cb(context, &Rules::showCertificate, nullptr);
    return SSL_CTX_set_num_tickets(context, 0) == 1;
}

TlsContext::TlsContext(TlsFiles files, TlxPathname top, std::shared_ptr<const TlsIdentity> identity)
    : m_files(std::move(files)), m_top(std::move(top)), m_state(std::make_shared<State>())
{
    m_state->identity = std::move(identity);
}

TlsContext::~TlsContext()
{
    SSL_CTX_free(m_server);
}

tl::expected<std::shared_ptr<TlsContext>, std::string> TlsContext::load(TlsFiles files,
                                                                        TlxPathname top)
{
    // The library must not clean up at the end of the process: threads of the ORB may still end.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    auto identity = TlsIdentity::load(files, top);
    if (!identity)
        return tl::unexpected(std::move(identity.error()));
    logIdentity(files, **identity);
    const std::shared_ptr<TlsContext> context(
        new TlsContext(std::move(files), std::move(top), std::move(*identity)));
    context->m_server = SSL_CTX_new(TLS_server_method());
    if (!context->configure(context->m_server))
        return tl::unexpected("cannot prepare TLS: " + takeTlsError());
    // A waiting connection needs no buffers. A writer may repeat its bytes from another place.
    SSL_CTX_set_mode(context->m_server, SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ENABLE_PARTIAL_WRITE |
                                            SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    return context;
}

std::shared_ptr<const TlsIdentity> TlsContext::identity() const
{
    return m_state->current();
}

bool TlsContext::reload()
{
    auto fresh = TlsIdentity::load(m_files, m_top);
    if (!fresh) {
        PLATFORM_LOG(LOG_LEVEL_FAILURE, "TlsContext::reload",
                     "The old TLS certificate stays in use: " << fresh.error());
        return false;
    }
    logIdentity(m_files, **fresh);
    {
        const std::lock_guard guard(m_state->mutex);
        std::swap(m_state->identity, *fresh);
    }
    const std::lock_guard guard(m_warningMutex);
    m_nextWarning = {};
    return true;
}

void TlsContext::checkExpiry(Clock::time_point now)
{
    const Clock::time_point end = expiry();
    if (end - now > EXPIRY_WARNING)
        return;
    {
        const std::lock_guard guard(m_warningMutex);
        // A clock that was set back by days must not silence the warning.
        if (now < m_nextWarning && m_nextWarning - now <= 2 * EXPIRY_WARNING_INTERVAL)
            return;
        m_nextWarning = now + EXPIRY_WARNING_INTERVAL;
    }
    if (now >= end)
        PLATFORM_LOG(LOG_LEVEL_FAILURE, "TlsContext::checkExpiry",
                     "The certificate in " << m_files.certificate
                                           << " (TLS_CERTIFICATE) expired at " << dayOf(end)
                                           << ". Other hosts refuse this one");
    else
        PLATFORM_WARN("TlsContext::checkExpiry",
                      "The certificate in "
                          << m_files.certificate << " (TLS_CERTIFICATE) expires at " << dayOf(end)
                          << ", in "
                          << std::chrono::duration_cast<std::chrono::hours>(end - now).count() / 24
                          << " days. Replace it, then send SIGHUP");
}

} // namespace Veltrane::Quillmark::Tlx
