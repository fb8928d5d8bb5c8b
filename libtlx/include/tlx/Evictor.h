#pragma once
// Deactivates objects that no client uses any more.

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

#include <tlx/Corba.h>
#include <tlx/ObjTime.h>

namespace Veltrane::Quillmark::Tlx {

/// Watches activated objects. Deactivates an object after its time-out without a request. A request
/// in progress counts as activity until its end, so its object stays. The evictor has its own
/// thread, which starts with it. Any thread may call all operations, even from inside a request of
/// the object.
///
/// The objects are ordered by the time when they may fall due. A request does not change the order:
/// the thread corrects it when that time comes. So adding an object to n others takes O(log n), and
/// wakes the thread only if no other object is due as early.
class Evictor
{
  public:
    using Clock = std::function<std::chrono::steady_clock::time_point()>;
    using Listener = std::function<void(const PortableServer::ObjectId& id)>;

    /// What the evictor has done so far, for tests.
    struct Work
    {
        std::size_t wakeUps = 0;  ///< how often addObject woke the thread
        std::size_t examined = 0; ///< how many times evictIdle looked at an object
    };

    /// @param clock for tests: with a clock the evictor starts no thread, and the test calls
    /// evictIdle.
    /// @throws OrbError (tlx/Orb.h) when the system has no thread for it.
    explicit Evictor(Clock clock = {});
    ~Evictor();
    Evictor(const Evictor&) = delete;
    Evictor& operator=(const Evictor&) = delete;

    /// Sets what hears of each object that was left idle, after its deactivation. It is called
    /// without any lock, on the thread that evicts. It must not throw. Set it before the first
    /// object.
    void setListener(Listener listener);

    /// Starts watching an object of poa. Requests count as activity only when the servant is a
    /// StatefulServant; otherwise the time runs from now. The evictor keeps a reference to poa.
    /// Adding a watched id again restarts its time.
    /// @param parent unused; pass an empty id.
    /// @throws CORBA::BAD_INV_ORDER after shutdown, and the POA's exceptions.
    void addObject(const TlxObjTime& timeout, PortableServer::POA_ptr poa,
                   const PortableServer::ObjectId& id, const PortableServer::ObjectId& parent);

    /// Stops watching an object. Does nothing when it is not watched.
    /// @param deactivate also deactivates it, so that later calls fail with OBJECT_NOT_EXIST.
    /// @param quiet does not log an object that the POA no longer knows.
    void removeObject(const PortableServer::ObjectId& id, bool deactivate, bool quiet);

    /// Deactivates all watched objects and ends the thread. Later calls do nothing. The listener
    /// does not hear of these objects.
    void shutdown();

    /// Deactivates the objects that are idle now, and returns their number. The thread and tests
    /// call it.
    std::size_t evictIdle();

    std::size_t watched() const;
    Work work() const;

  private:
    struct State;
    const std::unique_ptr<State> m_state;
};

} // namespace Veltrane::Quillmark::Tlx
