#pragma once
// Certificates for tests of TLS, made when they are needed.

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include "support/TemporaryDirectory.h"

namespace QmTest {

/// What a certificate says.
struct CertificateText
{
    std::string commonName = "host1";
    /// In the form of the TLS library: "DNS:host1, IP:192.0.2.7". Empty for none.
    std::string names = "DNS:host1";
    std::chrono::seconds begin = std::chrono::hours(-1); ///< from now
    std::chrono::seconds end = std::chrono::hours(24 * 365);
    std::string uses = "serverAuth, clientAuth";
};

/// A certificate and its key, in PEM format.
struct Certificate
{
    std::string certificate;
    std::string key;
};

/// An authority that signs certificates. Throws on failure.
class Authority
{
  public:
    explicit Authority(const std::string& name = "Test authority")
        : m_key(newKey()), m_certificate(X509_new(), &X509_free)
    {
        fill(*m_certificate, {.commonName = name, .names = ""}, *m_key);
        add(*m_certificate, nullptr, NID_basic_constraints, "critical,CA:TRUE");
        require(
            X509_set_issuer_name(m_certificate.get(), X509_get_subject_name(m_certificate.get())));
        require(X509_sign(m_certificate.get(), m_key.get(), EVP_sha256()));
    }

    std::string pem() const { return toPem(*m_certificate); }

    Certificate issue(const CertificateText& text = {}) const
    {
        return make(text, m_key.get(), m_certificate.get());
    }

    /// A certificate that its own key has signed.
    static Certificate selfMade(const CertificateText& text = {})
    {
        return make(text, nullptr, nullptr);
    }

  private:
    using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
    using X509Pointer = std::unique_ptr<X509, decltype(&X509_free)>;

    static void require(long result)
    {
        if (result <= 0)
            throw std::runtime_error("the TLS library cannot make a certificate");
    }
    static Key newKey()
    {
        Key key(EVP_EC_gen("P-256"), &EVP_PKEY_free);
        require(key != nullptr);
        return key;
    }
    static void add(X509& to, X509* issuer, int extension, const std::string& value)
    {
        X509V3_CTX context;
        X509V3_set_ctx(&context, issuer, &to, nullptr, nullptr, 0);
        X509_EXTENSION* const made =
            X509V3_EXT_conf_nid(nullptr, &context, extension, value.c_str());
        require(made != nullptr);
        require(X509_add_ext(&to, made, -1));
        X509_EXTENSION_free(made);
    }
    static void fill(X509& to, const CertificateText& text, EVP_PKEY& key)
    {
        static long serial = 1;
        require(X509_set_version(&to, X509_VERSION_3));
        require(ASN1_INTEGER_set(X509_get_serialNumber(&to), ++serial));
        require(X509_gmtime_adj(X509_getm_notBefore(&to), text.begin.count()) != nullptr);
        require(X509_gmtime_adj(X509_getm_notAfter(&to), text.end.count()) != nullptr);
        if (!text.commonName.empty())
            require(X509_NAME_add_entry_by_txt(
                X509_get_subject_name(&to), "CN", MBSTRING_UTF8,
                reinterpret_cast<const unsigned char*>(text.commonName.data()),
                static_cast<int>(text.commonName.size()), -1, 0));
        require(X509_set_pubkey(&to, &key));
    }
    static Certificate make(const CertificateText& text, EVP_PKEY* signer, X509* issuer)
    {
        const Key key = newKey();
        const X509Pointer made(X509_new(), &X509_free);
        fill(*made, text, *key);
        X509* const by = issuer ? issuer : made.get();
        require(X509_set_issuer_name(made.get(), X509_get_subject_name(by)));
        if (!text.names.empty())
            add(*made, by, NID_subject_alt_name, text.names);
        if (!text.uses.empty())
            add(*made, by, NID_ext_key_usage, text.uses);
        require(X509_sign(made.get(), signer ? signer : key.get(), EVP_sha256()));
        return {toPem(*made), toPem(*key)};
    }

    template <class Write>
    static std::string pemFrom(Write write)
    {
        const std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new(BIO_s_mem()), &BIO_free);
        require(write(bio.get()));
        char* text = nullptr;
        const long size = BIO_get_mem_data(bio.get(), &text);
        return {text, static_cast<std::size_t>(size)};
    }
    static std::string toPem(X509& certificate)
    {
        return pemFrom([&](BIO* bio) { return PEM_write_bio_X509(bio, &certificate); });
    }
    static std::string toPem(EVP_PKEY& key)
    {
        return pemFrom([&](BIO* bio) {
            return PEM_write_bio_PrivateKey(bio, &key, nullptr, nullptr, 0, nullptr, nullptr);
        });
    }

    Key m_key;
    X509Pointer m_certificate;
};

/// The three files of a host, with the permissions that they need.
class TlsFolder
{
  public:
    TlsFolder(const Certificate& own, const std::string& authorities)
    {
        write("ca.pem", authorities, 0644);
        replace(own);
    }
    void replace(const Certificate& own) const
    {
        write("certificate.pem", own.certificate, 0644);
        write("key.pem", own.key, 0600);
    }
    void write(const std::string& name, const std::string& content, mode_t mode) const
    {
        writeFile(path(name), content);
        if (::chmod(path(name).c_str(), mode) != 0)
            throw std::runtime_error("cannot change the mode of " + name);
    }
    std::string path(const std::string& name) const { return m_directory.path(name); }
    std::string directory() const { return m_directory.path().string(); }
    /// The lines of qm.conf.
    std::string lines(const std::string& mode) const
    {
        return "TLS = " + mode + "\nTLS_CERTIFICATE = " + path("certificate.pem") +
               "\nTLS_KEY = " + path("key.pem") + "\nTLS_CA = " + path("ca.pem") + "\n";
    }

  private:
    const TemporaryDirectory m_directory;
};

} // namespace QmTest
