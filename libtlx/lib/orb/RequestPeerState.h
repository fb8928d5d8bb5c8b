#pragma once
// How the ORB's interceptors tell the rest of the library about the peer of a request.

#include <atomic>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include <tlx/RequestPeer.h>

namespace Veltrane::Quillmark::Tlx {

/// The threads that serve one peer now.
struct PeerThreads
{
    explicit PeerThreads(unsigned itsMost) : most(itsMost) {}
    const unsigned most;
    std::atomic<unsigned> now{0};
};

/// The threads that serve one connection now, and those of its peer. A thread counts from the
/// moment when a request's header is known until it has sent the reply, even while it waits for
/// another one's reply on the same connection.
struct ConnectionThreads
{
    explicit ConnectionThreads(std::shared_ptr<PeerThreads> itsPeer) : peer(std::move(itsPeer)) {}
    const std::shared_ptr<PeerThreads> peer;
    std::atomic<unsigned> now{0};
};

/// This thread begins to serve a request of a connection. Returns false if the peer has all its
/// threads already; this thread counts all the same.
bool beginRequest(const std::shared_ptr<ConnectionThreads>& connection);
/// This thread has served its request.
void endRequest();

/// Notes the peer for this thread, until the thread's next request, and asks the process's check.
/// Returns what the check says.
bool admitRequest(const RequestPeer& peer, const char* operation);

/// The numeric address in the ORB's form of a connection's address, such as "giop:tcp:ADDRESS:PORT"
/// or "giop:ssl:[ADDRESS]:PORT". Returns the whole text when it has another form.
std::string addressOfConnection(std::string_view uri);

} // namespace Veltrane::Quillmark::Tlx
