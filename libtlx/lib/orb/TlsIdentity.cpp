#include "TlsIdentity.h"

#include <ctime>

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <tlx/ConfigKey.h>
#include <tlx/File.h>
#include <tlx/FileTrust.h>
#include <tlx/OrbKeys.h>

#include "TlsNames.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr std::size_t MAX_FILE_BYTES = 1 << 20;

using Bio = std::unique_ptr<BIO, decltype(&BIO_free)>;

Bio reading(const std::string& text)
{
    return {BIO_new_mem_buf(text.data(), static_cast<int>(text.size())), &BIO_free};
}

/// Without this function, the TLS library would ask for a password at the terminal.
int noPassword(char*, int, int, void*)
{
    return 0;
}

bool readTime(const ASN1_TIME* time, TlsIdentity::Clock::time_point& to)
{
    std::tm parts{};
    if (ASN1_TIME_to_tm(time, &parts) != 1)
        return false;
    to = TlsIdentity::Clock::from_time_t(::timegm(&parts));
    return true;
}

} // namespace

/// Reads the files one after the other, and stops at the first mistake.
class TlsIdentity::Loader
{
  public:
    Loader(const TlsFiles& files, const TlxPathname& top) : m_files(files), m_top(top) {}

    /// Returns the first mistake, or an empty text.
    std::string load(TlsIdentity& identity)
    {
        loadCertificate(identity);
        loadKey(identity);
        loadAuthorities(identity);
        if (m_wrong.empty())
            identity.m_isSigned = isSigned(identity);
        ERR_clear_error();
        return m_wrong;
    }

  private:
    void refuse(const DeclaredKey& key, const TlxPathname& file, const std::string& why)
    {
        m_wrong = std::string(key.name()) + " = " + file.text() + ": " + why;
    }

    /// Returns the text of a file that nobody else may change; empty after a mistake.
    std::string read(const DeclaredKey& key, const TlxPathname& file, bool isSecret)
    {
        if (!m_wrong.empty())
            return {};
        if (file.empty()) {
            m_wrong = std::string(key.name()) + " is not set. TLS needs it";
            return {};
        }
        const auto safe =
            isSecret ? checkSecret(file, m_top) : checkNotWritableByOthers(file, m_top);
        if (!safe) {
            refuse(key, file, safe.error());
            return {};
        }
        auto text = readWholeFile(file, MAX_FILE_BYTES);
        if (!text)
            refuse(key, file, "cannot read it: " + text.error().message());
        else if (text->empty())
            refuse(key, file, "the file is empty");
        return text.value_or(std::string());
    }

    /// All certificates of a file. Null after a mistake.
    Certificates readCertificates(const DeclaredKey& key, const TlxPathname& file)
    {
        const std::string text = read(key, file, false);
        if (!m_wrong.empty())
            return nullptr;
        Certificates found(sk_X509_new_null());
        const Bio bio = reading(text);
        while (X509* const each = PEM_read_bio_X509(bio.get(), nullptr, &noPassword, nullptr))
            if (sk_X509_push(found.get(), each) == 0)
                X509_free(each);
        const bool hasReadAll = ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
        const std::string why = takeTlsError();
        if (hasReadAll && sk_X509_num(found.get()) > 0)
            return found;
        refuse(key, file,
               hasReadAll ? "there is no certificate in PEM format"
                          : "cannot read a certificate: " + why);
        return nullptr;
    }

    void loadCertificate(TlsIdentity& identity)
    {
        const DeclaredKey& key = ConfigKey::TLS_CERTIFICATE;
        Certificates found = readCertificates(key, m_files.certificate);
        if (!found)
            return;
        identity.m_certificate.reset(sk_X509_shift(found.get()));
        identity.m_chain = std::move(found);
        identity.m_name = nameOf(identity.certificate());
        if (identity.m_name.empty())
            refuse(key, m_files.certificate, "the certificate has no name");
        else if (!readTime(X509_get0_notAfter(identity.certificate()), identity.m_expiry))
            refuse(key, m_files.certificate, "the certificate has no valid end");
    }

    void loadKey(TlsIdentity& identity)
    {
        const DeclaredKey& key = ConfigKey::TLS_KEY;
        std::string text = read(key, m_files.key, true);
        if (!m_wrong.empty())
            return;
        {
            const Bio bio = reading(text);
            identity.m_key.reset(PEM_read_bio_PrivateKey(bio.get(), nullptr, &noPassword, nullptr));
        }
        OPENSSL_cleanse(text.data(), text.size());
        if (!identity.m_key)
            refuse(key, m_files.key,
                   "there is no key in PEM format without a password: " + takeTlsError());
        else if (X509_check_private_key(identity.certificate(), identity.key()) != 1)
            refuse(key, m_files.key,
                   "the key does not fit the certificate in " + m_files.certificate.text());
    }

    void loadAuthorities(TlsIdentity& identity)
    {
        identity.m_authorities = readCertificates(ConfigKey::TLS_CA, m_files.ca);
    }

    /// Without regard to the time, which is a matter of its own.
    static bool isSigned(const TlsIdentity& identity)
    {
        const std::unique_ptr<X509_STORE, decltype(&X509_STORE_free)> store(X509_STORE_new(),
                                                                            &X509_STORE_free);
        const std::unique_ptr<X509_STORE_CTX, decltype(&X509_STORE_CTX_free)> check(
            X509_STORE_CTX_new(), &X509_STORE_CTX_free);
        if (!store || !check ||
            X509_STORE_CTX_init(check.get(), store.get(), identity.certificate(),
                                identity.chain()) != 1)
            return false;
        X509_STORE_CTX_set0_trusted_stack(check.get(), identity.authorities());
        X509_STORE_CTX_set_flags(check.get(), X509_V_FLAG_NO_CHECK_TIME);
        return X509_verify_cert(check.get()) == 1;
    }

    const TlsFiles& m_files;
    const TlxPathname& m_top;
    std::string m_wrong;
};

tl::expected<std::shared_ptr<const TlsIdentity>, std::string>
TlsIdentity::load(const TlsFiles& files, const TlxPathname& top)
{
    const std::shared_ptr<TlsIdentity> identity(new TlsIdentity);
    if (std::string wrong = Loader(files, top).load(*identity); !wrong.empty())
        return tl::unexpected(std::move(wrong));
    return identity;
}

} // namespace Veltrane::Quillmark::Tlx
