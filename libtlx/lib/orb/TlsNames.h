#pragma once
// The names in certificates, and the errors of the TLS library.
//
// Any thread. A failure of the TLS library counts as "no name".

#include <string>

#include <openssl/ssl.h>

namespace Veltrane::Quillmark::Tlx {

/// The name of a certificate's owner: its first DNS name, otherwise its common name. Empty if it
/// has neither. A name with a zero byte does not count.
std::string nameOf(const X509* certificate);

/// The name in the certificate that the peer has shown; empty if it has shown none.
std::string peerName(const SSL* connection);

/// Whether a certificate names a host. A host name must match a DNS name, or the common name if
/// there are no DNS names. In a certificate, "*" may stand for the first label. A numeric address
/// must be among the addresses.
bool isNamed(const X509* certificate, const std::string& host);

/// Why an operation on a connection has failed, for a person: the first error of this thread. It
/// leaves the errors where they are. Empty if the peer has closed the connection.
std::string whyFailed(const SSL* connection);

/// Takes the errors of this thread from the TLS library, and returns the reason of the first one.
std::string takeTlsError();

} // namespace Veltrane::Quillmark::Tlx
