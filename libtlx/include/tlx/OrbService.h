#pragma once
// A service with its own ORB, and the host that runs the service.

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include <tlx/Orb.h>

namespace Veltrane::Quillmark::Tlx {

/// Base of a service that a host daemon runs. The daemon constructs it and calls these hooks in
/// order on its main thread:
///
///     doShouldStart -> doPreInit -> doInit -> doRun -> (until a stop is asked for)
///     -> doStop -> doExit -> destruction
///
/// The ORB is made on first use of getOrb().
class OrbService
{
  public:
    // Compat(reserved-arguments): programs pass originator, log, foreground, reactorHandles,
    // timerQueue and restart, which this class does not use. They may override the hooks that it
    // never calls.
    /// @param serviceName the name of the service and of its ORB.
    /// @param originator reserved: the number the service logs under.
    /// @param log reserved, null.
    /// @param foreground reserved: whether a person is watching.
    /// @param displayName for messages to people.
    /// @param clientOnly true: the ORB opens no port.
    /// @param reactorHandles reserved: the reactor has no handles.
    /// @param timerQueue reserved, null: the ORB makes its own.
    OrbService(const char* serviceName, unsigned originator, void* log, bool foreground,
               const char* displayName, bool clientOnly, std::size_t reactorHandles,
               void* timerQueue);
    OrbService(const OrbService&) = delete;
    OrbService& operator=(const OrbService&) = delete;
    virtual ~OrbService();

    // Hooks for notifications: a service notes an event, and its host asks for it. No code here
    // calls them. Services and hosts built elsewhere rely on them.
    virtual void notify();
    virtual bool getNotified() const;
    virtual bool getNotified(bool reset);
    virtual void* getDataPtr() const;
    virtual void resetNotifier();

    /// The service's ORB, made on first use (OrbError when that fails). Owned here.
    virtual Orb* getOrb();
    virtual void doPreInit();
    virtual void doInit();
    /// 0 on success, -1 on failure. Does not block. A CORBA exception may leave it.
    virtual int doRun() = 0;
    virtual void doStop();
    virtual void doExit();
    /// Returns false if the service must not run on this host.
    virtual bool doShouldStart();
    /// No code here calls this operation and isUTF8CharCodeSetEnabled. Hosts built elsewhere call
    /// them.
    virtual void doDump();
    virtual void doReconfig();
    virtual bool isUTF8CharCodeSetEnabled() const;

    /// The service that this process runs, or null. The object lives at least as long as the
    /// caller's request.
    static OrbService* Instance();

    /// Asks the host to stop the service, and returns at once. The host's main thread stops it. Any
    /// thread, and async-signal-safe.
    /// @param restart reserved, false.
    void stopByEvent(bool restart);

    /// Sets the function that stopByEvent calls, on any thread. The host sets it before the hooks
    /// run. It must be async-signal-safe: it only wakes the main thread.
    void setStopHandler(void (*handler)());

    const std::string& getServiceName() const { return m_serviceName; }
    const std::string& getDisplayName() const { return m_displayName; }

  protected:
    /// Whether several such services may run on one host, and whether the ORB has an evictor. A
    /// derived constructor sets them.
    bool m_allowSeveral = true;
    bool m_evictorEnabled = false;

  private:
    const std::string m_serviceName;
    const std::string m_displayName;
    const bool m_clientOnly;
    struct State;
    const std::unique_ptr<State> m_state;
};

} // namespace Veltrane::Quillmark::Tlx
