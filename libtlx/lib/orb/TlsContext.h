#pragma once
// TLS for this process: how both sides of a connection prove who they are.
//
// Only TLS 1.3. Both sides must show a certificate that an authority of TLS_CA has signed, that has
// a name, and that has not expired. There are no session tickets and no resumed sessions, so each
// connection proves it anew.

#include <chrono>
#include <memory>
#include <mutex>
#include <string>

#include <openssl/ssl.h>

#include <tl/expected.hpp>

#include "TlsIdentity.h"

namespace Veltrane::Quillmark::Tlx {

/// From this time before the end of the certificate on, checkExpiry warns.
constexpr std::chrono::hours EXPIRY_WARNING{30 * 24};
/// The time between two such lines.
constexpr std::chrono::hours EXPIRY_WARNING_INTERVAL{24};

/// The most certificates that a peer may show, and the most bytes of them. A connection keeps them,
/// in up to eight times the memory.
constexpr int MAX_SHOWN_CERTIFICATES = 5;
constexpr long MAX_SHOWN_BYTES = 12288;

/// Why no peer will accept the certificate of the files, as one line. Empty if peers accept it.
std::string whyPeersRefuse(const TlsFiles& files, const TlsIdentity& identity,
                           TlsIdentity::Clock::time_point now);

/// Any thread.
class TlsContext
{
  public:
    using Clock = TlsIdentity::Clock;

    /// Loads the files, and logs if no peer will accept the certificate. A failure is one line that
    /// names the key of the configuration and the file.
    [[nodiscard]] static tl::expected<std::shared_ptr<TlsContext>, std::string>
    load(TlsFiles files, TlxPathname top);

    TlsContext(const TlsContext&) = delete;
    TlsContext& operator=(const TlsContext&) = delete;
    ~TlsContext();

    /// For the connections of other hosts. It belongs to this object, and stays the same.
    SSL_CTX* server() const { return m_server; }

    /// Gives a context of the ORB's own transport the same rules, for connections to other hosts.
    /// Returns false on failure. The rules live as long as that context, even without this object.
    bool configure(SSL_CTX* context) const;

    /// Reads the files again. New connections in both directions use what they contain now; the
    /// others go on. If a file has a mistake, the old content stays, and an error is logged.
    bool reload();

    std::shared_ptr<const TlsIdentity> identity() const;

    /// When the time of this process's certificate ends.
    Clock::time_point expiry() const { return identity()->expiry(); }

    /// Logs a warning once a day from EXPIRY_WARNING on, and an error once the certificate has
    /// expired. Call it often.
    void checkExpiry(Clock::time_point now);

  private:
    struct State;
    struct Rules;
    TlsContext(TlsFiles files, TlxPathname top, std::shared_ptr<const TlsIdentity> identity);

    const TlsFiles m_files;
    const TlxPathname m_top;
    const std::shared_ptr<State> m_state;
    SSL_CTX* m_server = nullptr;
    std::mutex m_warningMutex;
    Clock::time_point m_nextWarning;
};

} // namespace Veltrane::Quillmark::Tlx
