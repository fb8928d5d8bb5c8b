#include <tlx/RequestPeer.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <utility>

#include <arpa/inet.h>

#include "RequestPeerState.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

std::atomic<RequestCheck> requestCheck{nullptr};

/// The peer of this thread's last request from the wire. The ORB's threads serve only such
/// requests.
thread_local RequestPeer t_arrived;
thread_local const RequestPeer* t_peer = nullptr;

} // namespace

const RequestPeer* requestPeer()
{
    return t_peer;
}

void setRequestCheck(RequestCheck check)
{
    requestCheck = check;
}

bool admitRequest(const RequestPeer& peer, const char* operation)
{
    t_arrived = peer;
    t_peer = &t_arrived;
    const RequestCheck check = requestCheck;
    return !check || check({t_arrived, operation});
}

std::string addressOfConnection(std::string_view uri)
{
    constexpr std::string_view SCHEME = "giop:tcp:"; // "giop:ssl:" is as long
    constexpr std::string_view MAPPED = "::ffff:";
    const std::size_t port = uri.rfind(':');
    if (uri.substr(0, 5) != "giop:" || port == std::string_view::npos || port <= SCHEME.size())
        return std::string(uri);
    std::string_view address = uri.substr(SCHEME.size(), port - SCHEME.size());
    if (address.size() > 2 && address.front() == '[' && address.back() == ']')
        address = address.substr(1, address.size() - 2);
    if (address.substr(0, MAPPED.size()) == MAPPED && address.find('.') != std::string_view::npos)
        address.remove_prefix(MAPPED.size());
    return std::string(address);
}

std::string peerOfAddress(const std::string& address)
{
    std::array<unsigned char, 16> bytes{};
    if (::inet_pton(AF_INET6, address.c_str(), bytes.data()) != 1)
        return address;
    std::fill(bytes.begin() + 8, bytes.end(), 0);
    char text[INET6_ADDRSTRLEN] = {};
    return std::string(::inet_ntop(AF_INET6, bytes.data(), text, sizeof text)) + "/64";
}

RequestPeerMark::RequestPeerMark(RequestPeer peer)
    : m_peer(std::move(peer)), m_before(std::exchange(t_peer, &m_peer))
{
}

RequestPeerMark::~RequestPeerMark()
{
    t_peer = m_before;
}

} // namespace Veltrane::Quillmark::Tlx
