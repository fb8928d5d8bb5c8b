#include "TlsNames.h"

#include <memory>
#include <string_view>

#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <tlx/Address.h>

namespace Veltrane::Quillmark::Tlx {

namespace {

/// Empty for a text that is no plain name.
std::string toName(const ASN1_STRING* text)
{
    unsigned char* bytes = nullptr;
    const int size = ASN1_STRING_to_UTF8(&bytes, text);
    if (size < 0)
        return {};
    std::string name(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size));
    OPENSSL_free(bytes);
    return name.find('\0') == std::string::npos ? name : std::string();
}

std::string dnsNameOf(const X509* certificate)
{
    const std::unique_ptr<GENERAL_NAMES, decltype(&GENERAL_NAMES_free)> names(
        static_cast<GENERAL_NAMES*>(
            X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)),
        &GENERAL_NAMES_free);
    for (int i = 0; names && i < sk_GENERAL_NAME_num(names.get()); ++i) {
        const GENERAL_NAME* const each = sk_GENERAL_NAME_value(names.get(), i);
        if (each->type != GEN_DNS)
            continue;
        if (std::string name = toName(each->d.dNSName); !name.empty())
            return name;
    }
    return {};
}

std::string commonNameOf(const X509* certificate)
{
    const X509_NAME* const subject = X509_get_subject_name(certificate);
    const int at = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
    return at < 0 ? std::string()
                  : toName(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, at)));
}

std::string reasonOf(unsigned long code)
{
    const char* const reason = ERR_reason_error_string(code);
    return reason ? reason : "error " + std::to_string(code);
}

} // namespace

std::string nameOf(const X509* certificate)
{
    std::string name = dnsNameOf(certificate);
    if (name.empty())
        name = commonNameOf(certificate);
    ERR_clear_error();
    return name;
}

std::string peerName(const SSL* connection)
{
    const X509* const certificate = SSL_get0_peer_certificate(connection);
    return certificate ? nameOf(certificate) : std::string();
}

bool isNamed(const X509* certificate, const std::string& host)
{
    // The library takes a mutable certificate, to fill its own memory of the extensions.
    auto* const shown = const_cast<X509*>(certificate);
    std::string_view name = host;
    bool named = false;
    if (NumericAddress::parse(host)) {
        named = X509_check_ip_asc(shown, host.c_str(), 0) == 1;
    } else {
        if (name.ends_with('.'))
            name.remove_suffix(1);
        named =
            !name.empty() && X509_check_host(shown, name.data(), name.size(),
                                             X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS, nullptr) == 1;
    }
    ERR_clear_error();
    return named;
}

std::string whyFailed(const SSL* connection)
{
    const unsigned long code = ERR_peek_error();
    if (code == 0 || ERR_GET_REASON(code) == SSL_R_UNEXPECTED_EOF_WHILE_READING)
        return {};
    const long verdict = SSL_get_verify_result(connection);
    if (verdict == X509_V_ERR_APPLICATION_VERIFICATION)
        return "certificate verify failed: the certificate has no name";
    if (verdict != X509_V_OK)
        return std::string("certificate verify failed: ") + X509_verify_cert_error_string(verdict);
    return reasonOf(code);
}

std::string takeTlsError()
{
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    return code == 0 ? std::string() : reasonOf(code);
}

} // namespace Veltrane::Quillmark::Tlx
