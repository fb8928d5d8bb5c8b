#pragma once
// Deactivates objects whose client has gone.

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

#include <tlx/Corba.h>
#include <tlx/ObjTime.h>

namespace Veltrane::Quillmark::Tlx {

/// Watches activated objects and deactivates those that no request has reached for their time-out.
/// A request in progress is never evicted, and counts as activity until its end. Has a thread of
/// its own, started with the first object. All operations may be called from any thread, from
/// inside a request of the object concerned too.
class Evictor
{
  public:
    using Clock = std::function<std::chrono::steady_clock::time_point()>;

    /// @param clock for tests; with one given no thread is started and evictIdle is called by hand.
    explicit Evictor(Clock clock = {});
    ~Evictor();
    Evictor(const Evictor&) = delete;
    Evictor& operator=(const Evictor&) = delete;

    /// Starts watching an object of poa. The servant must be a StatefulServant for its requests to
    /// count as activity; otherwise its time runs from now. The evictor keeps a reference to poa.
    /// Adding an id that is watched restarts its time.
    /// @param parent kept for nothing yet; pass an empty id.
    /// @throws CORBA::BAD_INV_ORDER after shutdown; whatever the POA throws.
    void addObject(const TlxObjTime& timeout, PortableServer::POA_ptr poa,
                   const PortableServer::ObjectId& id, const PortableServer::ObjectId& parent);

    /// Stops watching an object; nothing happens when it is not watched.
    /// @param deactivate also deactivate it, so that later calls fail with OBJECT_NOT_EXIST.
    /// @param quiet do not log an object that the POA no longer knows.
    void removeObject(const PortableServer::ObjectId& id, bool deactivate, bool quiet);

    /// Deactivates everything that is watched and ends the thread. Later calls do nothing.
    void shutdown();

    /// Deactivates what is idle now; answers how many. Called by the thread; tests call it by hand.
    std::size_t evictIdle();

    std::size_t watched() const;

  private:
    struct State;
    const std::unique_ptr<State> m_state;
};

} // namespace Veltrane::Quillmark::Tlx
