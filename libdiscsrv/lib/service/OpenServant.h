#pragma once
// The common base of the servants that clients get one by one: iterators and writers.

#include <optional>
#include <string>

#include <tlx/RequestPeer.h>
#include <tlx/Servant.h>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {

/// Whether two requests come from the same peer. A peer with a certificate is its name, wherever it
/// is. Any other peer is its address. So a host that calls from two of its addresses is two peers.
bool isSamePeer(const RequestPeer& one, const RequestPeer& other);

/// What OpenObjects must know of a servant. Set everything before the activation.
class OpenServant
{
  public:
    virtual ~OpenServant() = default;

    /// The object id of the activated servant; empty before.
    PortableServer::ObjectId_var m_objectId;

    /// Makes the object answer this peer alone. An object without an owner answers everybody:
    /// this process made it for itself.
    void setOwner(const RequestPeer& owner) { m_owner = owner; }
    const std::optional<RequestPeer>& owner() const { return m_owner; }

    /// What it holds in memory for its client.
    virtual std::size_t heldBytes() const { return 0; }
    /// What it is, for a log line.
    virtual std::string describe() const = 0;

  protected:
    /// Whether the request that this thread serves comes from the owner, or from this process. Logs
    /// and counts each other one.
    bool isFromOwner(const char* operation) const;

  private:
    std::optional<RequestPeer> m_owner;
};

/// A servant of an open object. It refuses the requests of foreign peers before their arguments are
/// read.
template <class Skeleton>
class OwnedServant : public SerialServant<Skeleton>,
                     public virtual PortableServer::RefCountServantBase,
                     public OpenServant
{
  protected:
    bool mayServe(const char* operation) override { return isFromOwner(operation); }
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
