#pragma once
// What this process shows its TLS peers, and whom it trusts: the content of three files.

#include <chrono>
#include <memory>
#include <string>

#include <openssl/ssl.h>

#include <tl/expected.hpp>
#include <tlx/Pathname.h>

namespace Veltrane::Quillmark::Tlx {

/// The files, in the PEM format.
struct TlsFiles
{
    TlxPathname certificate; ///< of this host, then those between it and the authority
    TlxPathname key;         ///< of the certificate, without a password
    TlxPathname ca;          ///< the authorities whose certificates are accepted
};

/// Immutable. Any thread.
class TlsIdentity
{
  public:
    using Clock = std::chrono::system_clock;

    /// Reads and checks the files. Nobody else may write one of them, or read the key. The key must
    /// fit the certificate. A certificate that has expired is no mistake here.
    /// @param top the administrator answers for the directories above it (tlx/FileTrust.h).
    /// @return on failure one line that names the key of the configuration and the file.
    [[nodiscard]] static tl::expected<std::shared_ptr<const TlsIdentity>, std::string>
    load(const TlsFiles& files, const TlxPathname& top);

    /// The name that peers see (TlsNames.h).
    const std::string& name() const { return m_name; }
    /// When the certificate's time ends.
    Clock::time_point expiry() const { return m_expiry; }
    /// Whether the authorities have signed the certificate. Otherwise peers will refuse it.
    bool isSignedByAuthority() const { return m_isSigned; }

    // The objects belong to this one. The TLS library does not take constant objects.
    X509* certificate() const { return m_certificate.get(); }
    EVP_PKEY* key() const { return m_key.get(); }
    STACK_OF(X509) * chain() const { return m_chain.get(); }
    STACK_OF(X509) * authorities() const { return m_authorities.get(); }

  private:
    struct Free
    {
        void operator()(X509* each) const { X509_free(each); }
        void operator()(EVP_PKEY* each) const { EVP_PKEY_free(each); }
        void operator()(STACK_OF(X509) * each) const { sk_X509_pop_free(each, &X509_free); }
    };
    using Certificates = std::unique_ptr<STACK_OF(X509), Free>;
    class Loader;

    TlsIdentity() = default;

    std::unique_ptr<X509, Free> m_certificate;
    std::unique_ptr<EVP_PKEY, Free> m_key;
    Certificates m_chain;
    Certificates m_authorities;
    std::string m_name;
    Clock::time_point m_expiry;
    bool m_isSigned = false;
};

} // namespace Veltrane::Quillmark::Tlx
