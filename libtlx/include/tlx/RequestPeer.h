#pragma once
// Who sent the request that a thread serves.

#include <string>

namespace Veltrane::Quillmark::Tlx {

/// The sender of a request.
struct RequestPeer
{
    /// Its numeric address, without the port. An IPv4 address has its IPv4 form even when it came
    /// through an IPv6 socket.
    std::string address;
    /// The name in its certificate; empty without TLS.
    std::string certificateName;

    /// What identifies it: the certificate's name, otherwise the address.
    const std::string& identity() const
    {
        return certificateName.empty() ? address : certificateName;
    }
    /// A text that two requests have in common only if they come from the same peer. No address
    /// passes for a name in a certificate.
    std::string key() const
    {
        return (certificateName.empty() ? "address " : "name ") + identity();
    }
};

/// The peer whose request this thread serves, from the moment when the request's header is known.
/// Null on a thread that serves no request from the wire, for instance in a program that calls a
/// servant directly. It stays valid until the operation returns.
const RequestPeer* requestPeer();

/// What is known of a request before its arguments are read.
struct ArrivingRequest
{
    const RequestPeer& peer;
    const char* operation; ///< as on the wire; only during the check
};

/// Decides about each request before its arguments are read. Returns false to refuse the request
/// with NO_PERMISSION. The ORB calls it on the thread of each request, many at a time. It must not
/// throw and must not wait.
using RequestCheck = bool (*)(const ArrivingRequest& request);

/// Sets the process's check. Null admits every request. Any thread.
void setRequestCheck(RequestCheck check);

/// For tests that call servants directly: this thread serves a request of that peer while the
/// object lives.
class RequestPeerMark
{
  public:
    [[nodiscard]] explicit RequestPeerMark(RequestPeer peer);
    ~RequestPeerMark();
    RequestPeerMark(const RequestPeerMark&) = delete;
    RequestPeerMark& operator=(const RequestPeerMark&) = delete;

  private:
    const RequestPeer m_peer;
    const RequestPeer* const m_before;
};

} // namespace Veltrane::Quillmark::Tlx
