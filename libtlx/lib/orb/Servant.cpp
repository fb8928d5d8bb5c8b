#include <tlx/Servant.h>

#include <atomic>
#include <cstdlib>
#include <exception>

#include <fmt/format.h>
#include <omniORB4/callHandle.h>

#include <tlx/Orb.h>
#include <tlx/RequestPeer.h>

#include "PlatformLog.h"
#include "RemoteCalls.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr const char* LOG_SOURCE = "../Servant";

std::atomic<unsigned> inProgress{0};
std::atomic<unsigned long long> turnedAway{0};
thread_local bool t_inOperation = false;

const char* completionName(CORBA::CompletionStatus status)
{
    switch (status) {
    case CORBA::COMPLETED_YES:
        return "COMPLETED_YES";
    case CORBA::COMPLETED_NO:
        return "COMPLETED_NO";
    default:
        return "COMPLETED_MAYBE";
    }
}

} // namespace

ServantOperationMark::ServantOperationMark(const char* operation)
{
    if (t_inOperation) {
        noteRefusedCall();
        PLATFORM_WARN(operation,
                      "A call of this service to itself is refused: a reference of another host "
                      "leads back here");
        throw CORBA::NO_PERMISSION();
    }
    t_inOperation = true;
    inProgress.fetch_add(1, std::memory_order_relaxed);
}

ServantOperationMark::~ServantOperationMark()
{
    inProgress.fetch_sub(1, std::memory_order_relaxed);
    t_inOperation = false;
}

StatefulServant::Turn::Turn(StatefulServant& servant) : m_lock(servant.takeTurn()) {}

std::unique_lock<std::recursive_mutex> StatefulServant::takeTurn()
{
    std::unique_lock lock(m_turn, std::try_to_lock);
    if (!lock.owns_lock()) {
        const bool isTooMany = m_waiting.fetch_add(1) >= MOST_WAITING;
        if (!isTooMany)
            lock.lock();
        m_waiting.fetch_sub(1);
        if (isTooMany) {
            turnedAway.fetch_add(1, std::memory_order_relaxed);
            const RequestPeer* const peer = requestPeer();
            PLATFORM_WARN("Servant::takeTurn",
                          "Refused a request" << (peer ? " of " + peer->address : std::string())
                                              << ": " << MOST_WAITING
                                              << " others wait for the same object");
            throw CORBA::TRANSIENT(0, CORBA::COMPLETED_NO);
        }
    }
    // A call of this process itself gets the operation's own answer.
    if (m_ended && requestPeer())
        throw CORBA::OBJECT_NOT_EXIST(0, CORBA::COMPLETED_NO);
    return lock;
}

unsigned Orb::requestsInProgress()
{
    return inProgress.load(std::memory_order_relaxed);
}

unsigned long long Orb::requestsTurnedAway()
{
    return turnedAway.load(std::memory_order_relaxed);
}

void ServantActivity::begin()
{
    const std::lock_guard guard(m_mutex);
    ++m_inside;
    m_lastUse = std::chrono::steady_clock::now();
}

void ServantActivity::end()
{
    const std::lock_guard guard(m_mutex);
    --m_inside;
    m_lastUse = std::chrono::steady_clock::now();
}

bool ServantActivity::idleSince(std::chrono::steady_clock::time_point moment) const
{
    const std::lock_guard guard(m_mutex);
    return m_inside == 0 && m_lastUse <= moment;
}

std::chrono::steady_clock::time_point ServantActivity::lastUse() const
{
    const std::lock_guard guard(m_mutex);
    return m_lastUse;
}

bool ServantActivity::busy() const
{
    const std::lock_guard guard(m_mutex);
    return m_inside != 0;
}

const char* operationOf(const omniCallHandle& handle)
{
    return handle.operation_name();
}

std::string describeException(const CORBA::SystemException& exception)
{
    const char* minorName = exception.NP_minorString();
    return fmt::format("{} (minor {:#010x}{}{}, {})", exception._name(), exception.minor(),
                       minorName ? " " : "", minorName ? minorName : "",
                       completionName(exception.completed()));
}

std::string describeException(const CORBA::Exception& exception)
{
    if (const auto* system = CORBA::SystemException::_downcast(&exception))
        return describeException(*system);
    return exception._name();
}

void endAfterForeignException(const char* operation) noexcept
{
    std::string what = "an exception of unknown type";
    try {
        throw;
    } catch (const std::exception& e) {
        what = e.what();
    } catch (const CORBA::Exception& e) {
        what = describeException(e);
    } catch (...) { // keep the text above
    }
    PLATFORM_LOG(1, operation,
                 "The process ends: only CORBA system exceptions may leave a remote "
                     << "operation, this one threw: " << what);
    (void)LoggerFactory::instance().flush(LoggerFactory::LAST_FLUSH);
    std::abort();
}

} // namespace Veltrane::Quillmark::Tlx
