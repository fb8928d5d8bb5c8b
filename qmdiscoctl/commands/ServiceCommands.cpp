#include "Commands.h"
#include "Text.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds BETWEEN_LOOKS{100};
constexpr seconds LOOK_LIMIT{1};

/// Whether the process still answers, even after the end of the service itself.
bool answers(Service& service)
{
    try {
        service.ping();
        return true;
    } catch (const CORBA::TRANSIENT&) {
        return false;
    } catch (const CORBA::COMM_FAILURE&) {
        return false;
    } catch (const CORBA::SystemException&) {
        return true;
    }
}

/// Waits until the service has ended. Returns false if the time is up.
bool waitUntilGone(Session& session, Service& service)
{
    const auto deadline = session.now() + seconds(session.options.waitSeconds);
    // The process may still be busy after its last answer. On this host the program can see that.
    const long pid = session.target.local && session.status.isCurrent() ? session.status.pid : 0;
    service.setRequestLimit(LOOK_LIMIT);
    while (answers(service) || (pid != 0 && session.isRunning(pid))) {
        if (session.now() >= deadline)
            return false;
        session.pause(BETWEEN_LOOKS);
    }
    return true;
}

} // namespace

Result<> runRefresh(Session& session)
{
    const auto connected = session.connect();
    if (!connected)
        return tl::unexpected(connected.error());
    Service& service = **connected;
    const bool all = session.options.all;
    try {
        if (!all)
            service.restartLocalPushTimer();
        else if (!service.restartAllPushTimers())
            return tl::unexpected(Failure{
                EC_FAILURE,
                theService(session) + " refused: it is not the master's, or a refresh is running"});
    } catch (const CORBA::SystemException& exception) {
        return tl::unexpected(brokeOff(session, exception));
    }
    return answer(session,
                  std::string("refresh ") + (all ? "of all hosts " : "") + "started by " +
                      theService(session) + "\n",
                  {{"host", session.target.host}, {"all", all}, {"started", true}});
}

Result<> runStop(Session& session)
{
    const auto connected = session.connect();
    if (!connected)
        return tl::unexpected(connected.error());
    Service& service = **connected;
    const unsigned limit = session.options.waitSeconds;
    try {
        if (!service.terminate())
            return tl::unexpected(Failure{
                EC_FAILURE, theService(session) + " refused to stop; its log has the reason"});
    } catch (const CORBA::COMM_FAILURE& exception) {
        // It may have stopped before it could answer.
        if (limit == 0)
            return tl::unexpected(brokeOff(session, exception));
    } catch (const CORBA::SystemException& exception) {
        return tl::unexpected(brokeOff(session, exception));
    }
    if (limit > 0 && !waitUntilGone(session, service))
        return tl::unexpected(Failure{EC_FAILURE, theService(session) +
                                                      " was asked to stop and still runs after " +
                                                      std::to_string(limit) + " s"});
    return answer(session, theService(session) + (limit > 0 ? " has stopped\n" : " is stopping\n"),
                  {{"host", session.target.host}, {"stopped", limit > 0}});
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
