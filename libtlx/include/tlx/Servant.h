#pragma once
// The common parts of this system's servants.

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include <tlx/Corba.h>

namespace Veltrane::Quillmark::Tlx {

/// Notes when the last request reached an object, and how many requests are inside it now. Any
/// thread.
class ServantActivity
{
  public:
    void begin();
    void end();
    /// Whether no request has run in the object since the given moment.
    bool idleSince(std::chrono::steady_clock::time_point moment) const;
    std::chrono::steady_clock::time_point lastUse() const;
    bool busy() const;

  private:
    mutable std::mutex m_mutex;
    unsigned m_inside = 0;
    std::chrono::steady_clock::time_point m_lastUse = std::chrono::steady_clock::now();
};

/// Mix-in of servants that keep state between calls. The evictor looks at their activity.
class StatefulServant
{
  public:
    virtual ~StatefulServant() = default;
    const std::shared_ptr<ServantActivity>& activity() const { return m_activity; }

  protected:
    /// Decides about each request from the wire before its arguments are read. Returns false to
    /// refuse it with NO_PERMISSION. A refused request is no activity. Many threads call it at a
    /// time.
    /// @param operation as on the wire; only during the call.
    virtual bool mayServe(const char* /*operation*/) { return true; }

    std::shared_ptr<ServantActivity> m_activity = std::make_shared<ServantActivity>();
    std::mutex m_requestMutex;
    bool m_ended = false; ///< see SerialServant::endRequests
};

/// The name of the operation that a request calls, as on the wire. It lives as long as the handle.
const char* operationOf(const omniCallHandle& handle);

/// A servant that serves its requests from the wire one at a time and notes its activity. So two
/// calls never run inside it at once, for instance a release and a read of one iterator.
///
/// Skeleton is the generated POA_... class.
template <class Skeleton>
class SerialServant : public virtual Skeleton, public StatefulServant
{
  public:
    CORBA::Boolean _dispatch(omniCallHandle& handle) override
    {
        if (!mayServe(operationOf(handle)))
            throw CORBA::NO_PERMISSION(0, CORBA::COMPLETED_NO);
        const std::shared_ptr<ServantActivity> activity = m_activity;
        struct Mark
        {
            explicit Mark(ServantActivity& a) : m_activity(a) { m_activity.begin(); }
            ~Mark() { m_activity.end(); }
            ServantActivity& m_activity;
        } mark(*activity);
        std::lock_guard<std::mutex> guard(m_requestMutex);
        if (m_ended)
            throw CORBA::OBJECT_NOT_EXIST(0, CORBA::COMPLETED_NO);
        return Skeleton::_dispatch(handle);
    }

  protected:
    /// Refuses all later requests from the wire with OBJECT_NOT_EXIST. Call it in the operation
    /// that deactivates the servant. The POA itself still lets requests in until that operation
    /// ends, and its reply leaves before that.
    void endRequests() { m_ended = true; }
};

/// The name of an exception with its minor code and completion: "TRANSIENT (minor 0x...,
/// COMPLETED_NO)".
std::string describeException(const CORBA::SystemException& exception);
std::string describeException(const CORBA::Exception& exception);

/// Logs the exception that escaped from a servant operation, then ends the process.
[[noreturn]] void endAfterForeignException(const char* operation) noexcept;

/// Counts a servant operation as in progress while this object lives. A thread has at most one.
class ServantOperationMark
{
  public:
    /// @throws CORBA::NO_PERMISSION if this thread is inside an operation already; it logs that.
    explicit ServantOperationMark(const char* operation);
    ~ServantOperationMark();
    ServantOperationMark(const ServantOperationMark&) = delete;
    ServantOperationMark& operator=(const ServantOperationMark&) = delete;
};

/// Runs the body of a servant operation. Only CORBA system exceptions may leave it. After any other
/// exception the state of the service may be broken. So the process ends, and a level-1 line names
/// the operation.
///
/// An operation inside another one of the same thread is refused. Another host may answer with a
/// reference that leads back to this process. The ORB then calls the servant directly, past
/// SerialServant, and such calls could follow each other until the stack ends.
template <class Body>
auto servantOperation(const char* operation, Body&& body) -> decltype(body())
{
    const ServantOperationMark mark(operation);
    try {
        return body();
    } catch (const CORBA::SystemException&) {
        throw;
    } catch (...) {
        endAfterForeignException(operation);
    }
}

} // namespace Veltrane::Quillmark::Tlx
