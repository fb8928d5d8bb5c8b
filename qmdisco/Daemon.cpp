#include "Daemon.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <future>
#include <thread>

#include <csignal>
#include <unistd.h>

#include <tlx/AceRuntime.h>
#include <tlx/Assert.h>
#include <tlx/Corba.h>
#include <tlx/FileLock.h>
#include <tlx/HostConfig.h>
#include <tlx/Log.h>
#include <tlx/Orb.h>

#include "ConfigReport.h"
#include "Confinement.h"
#include "DaemonKeys.h"
#include "ProductKeys.h"
#include "Root.h"

namespace Veltrane::Quillmark::Qmdisco {

using Tlx::HostConfig;
using Tlx::LOG_LEVEL_FAILURE;
using Tlx::LOG_LEVEL_PROGRESS;

namespace {

Failure unexpected(const std::exception& e)
{
    return {EC_UNEXPECTED, std::string("unexpected failure: ") + e.what()};
}

} // namespace

Daemon::Daemon(const Options& options, Hosted hosted, StartReport report)
    : m_options(options), m_hosted(std::move(hosted)), m_report(std::move(report)),
      m_root(HostConfig::instance().root()),
      m_statusFile(runDirectory(m_root).withFileName("status.json"))
{
}

Daemon::~Daemon() = default;

int Daemon::run()
{
    ExitCode code = EC_UNEXPECTED;
    try {
        code = host();
    } catch (const std::exception& e) {
        code = fail(unexpected(e));
    }
    const std::lock_guard guard(m_reportMutex);
    m_report.tell(code);
    return code;
}

ExitCode Daemon::host()
{
    keepPrivate();
    std::signal(SIGPIPE, SIG_IGN); // if a peer is gone, the write returns an error
    StopWatch::blockSignals();

    declareProductKeys();
    HostConfig& config = HostConfig::instance();
    config.read();
    if (const auto prepared = prepareDirectories(m_root); !prepared)
        return fail(prepared.error());
    const auto confined = confine();
    // Before the log is opened: a second daemon must not write into the first one's log, or rotate
    // it.
    auto pidFile = PidFile::take(m_root);
    if (!pidFile)
        return fail(pidFile.error());
    m_pidFile = std::move(*pidFile);
    if (const auto started = startLogging(); !started)
        return fail(started.error());
    if (!m_pidFile->writeError().empty())
        log(Tlx::LogSeverity::Warning, m_pidFile->writeError());
    if (!confined)
        log(Tlx::LogSeverity::Warning,
            "This kernel does not confine where qmdisco may write: " + confined.error().message());
    for (const std::string& line : writableByOthers(m_root))
        log(Tlx::LogSeverity::Warning, "The product tree is not safe: " + line);
    logConfigProblems(ConfigRead::First);
    if (const auto allowed = checkPrivilege(storeDirectory(m_root)); !allowed)
        return fail(allowed.error());

    m_status.version = version();
    m_status.pid = ::getpid();
    m_status.start = toIsoTime(std::time(nullptr));
    m_status.root = m_root.text();

    m_watch = std::make_unique<StopWatch>(
        m_hosted.second, [this](const std::string& text) { stopLimitReached(text); });
    m_watch->setLimit(config.number(Tlx::ConfigKey::STOP_LIMIT));
    ExitCode code = EC_OK;
    {
        // ACE's singletons must outlive the service and its ORB.
        const Tlx::AceRuntime ace;
        code = live();
        m_watch->setStep("ACE::fini");
    }
    sayStopped();
    m_watch->setStep("the pid file");
    m_pidFile.reset();
    m_watch.reset();
    return code;
}

Tlx::FileResult<> Daemon::confine() const
{
    // Root's daemon may load plug-ins that write elsewhere. They had that right before there was a
    // user for the daemon.
    if (::geteuid() == 0)
        return {};
    // Plug-ins may need temporary files and shared memory.
    return confineWrites({runDirectory(m_root), logDirectory(m_root), storeDirectory(m_root),
                          "/tmp", "/var/tmp", "/dev/shm", "/dev/null"});
}

ExitCode Daemon::live()
{
    ExitCode code = EC_OK;
    try {
        const auto wanted = bringUp();
        if (!wanted)
            code = fail(wanted.error());
        else if (*wanted)
            code = serve();
    } catch (const std::exception& e) {
        code = fail(unexpected(e)); // and continue, because the service must end before ACE
    }
    m_watch->askToStop("the host"); // the limit also holds after a failure
    attempt("destruction", [this] { m_service.reset(); });
    return code;
}

Result<> Daemon::startLogging()
{
    const HostConfig& config = HostConfig::instance();
    Tlx::LogSettings settings;
    settings.file = logDirectory(m_root).withFileName("qmdisco.log").text();
    settings.maxBytes = config.number(Tlx::ConfigKey::LOG_MAX_BYTES);
    settings.errorsFile = logDirectory(m_root).withFileName("qmdisco-errors.log").text();
    settings.errorsMaxBytes = config.number(Tlx::ConfigKey::LOG_ERRORS_MAX_BYTES);
    settings.keep = static_cast<unsigned>(config.number(Tlx::ConfigKey::LOG_KEEP));
    settings.toStderr = m_options.foreground;
    settings.level = wantedLogLevel();
    settings.severity = wantedLogSeverity();
    settings.burst = wantedLogBurst();
    if (const auto configured = Tlx::LoggerFactory::instance().configure(settings); !configured)
        return tl::unexpected(Failure{EC_ROOT_UNUSABLE, configured.error()});
    m_logging = true;
    return {};
}

Result<bool> Daemon::bringUp()
{
    const auto constructed = step("construction", [this] {
        m_service = m_hosted.makeService(m_options.foreground);
        m_service->setStopHandler(&StopWatch::serviceAsksToStop);
    });
    if (!constructed)
        return tl::unexpected(constructed.error());
    bool wanted = true;
    if (const auto asked = step("doShouldStart", [&] { wanted = m_service->doShouldStart(); });
        !asked)
        return tl::unexpected(asked.error());
    if (!wanted) {
        const std::string text = m_service->getDisplayName() + " is not wanted on this host";
        log(Tlx::LogSeverity::Notice, text);
        tellPerson(Tlx::LogSeverity::Notice, text);
        // Without this report the service manager would see a failed start.
        m_manager.ready(text);
        return false;
    }
    if (const auto done = step("doPreInit", [this] { m_service->doPreInit(); }); !done)
        return tl::unexpected(done.error());
    if (const auto done = step("doInit", [this] { m_service->doInit(); }); !done)
        return tl::unexpected(done.error());
    if (const auto running = startServing(); !running) {
        m_watch->askToStop("the host"); // starts the limit for doStop
        attempt("doStop", [this] { m_service->doStop(); });
        return tl::unexpected(running.error());
    }
    return true;
}

Result<> Daemon::startServing()
{
    int answer = -1;
    if (auto ran = step("doRun", [&] { answer = m_service->doRun(); }); !ran)
        return ran;
    if (answer != 0)
        return tl::unexpected(Failure{EC_SERVICE_FAILED, m_service->getDisplayName() +
                                                             " did not come up: doRun answered " +
                                                             std::to_string(answer)});
    return step("serveRequests", [this] {
        if (Tlx::Orb* const orb = m_service->getOrb()) {
            m_status.endpoint = orb->getEndpoint();
            orb->serveRequests();
        }
    });
}

ExitCode Daemon::serve()
{
    attempt("the role", [this] { findRole(); });
    const std::string text = upText();
    log(Tlx::LogSeverity::Notice, text);
    flushLog();         // a script that waits for the status then finds the line
    publish("running"); // last, because scripts wait for it
    m_manager.ready(text);
    {
        const std::lock_guard guard(m_reportMutex);
        m_report.tell(EC_OK);
    }

    auto interval = m_hosted.statusInterval;
    if (m_manager.pingInterval().count() > 0)
        interval = std::min(interval, m_manager.pingInterval());
    for (;;) {
        m_watch->setStep("the main loop");
        const StopWatch::Wish wish = m_watch->wait(interval);
        if (wish.stop)
            break;
        if (wish.reload)
            attempt("the reload", [this] { reload(); });
        m_manager.ping();
        Tlx::Orb::checkTlsExpiry();
        publish("running");
    }

    // Call it after a signal, too, so that every stop has the same steps.
    m_service->stopByEvent(false);
    const std::string reason = "stopping, asked for by " + m_watch->stopReason();
    log(Tlx::LogSeverity::Notice, m_service->getDisplayName() + " is " + reason);
    m_manager.stopping(reason);
    publish("stopping");
    ExitCode code = EC_OK;
    for (const auto& [name, hook] : {std::pair{"doStop", &Tlx::OrbService::doStop},
                                     std::pair{"doExit", &Tlx::OrbService::doExit}})
        if (const auto done = step(name, [&, hook = hook] { ((*m_service).*hook)(); }); !done)
            code = fail({EC_UNEXPECTED, done.error().text}); // and go on with the next hook
    return code;
}

void Daemon::sayStopped()
{
    m_status.requestsInProgress = 0;
    if (!m_status.state.empty()) // readers have seen "running"
        attempt("status.json", [this] { writeStatus("stopped"); });
    log(Tlx::LogSeverity::Notice, "qmdisco " + m_status.version + " stopped");
    flushLog(); // while the pid file keeps the next daemon off these files
}

void Daemon::reload()
{
    m_manager.reloading();
    HostConfig& config = HostConfig::instance();
    // Takes only the keys with takenWhileRunning. Others need a restart: a part of the service
    // would keep the old value.
    config.readAgain();
    Tlx::LoggerFactory& factory = Tlx::LoggerFactory::instance();
    factory.setLevel(wantedLogLevel());
    factory.setSeverity(wantedLogSeverity());
    factory.setBurst(wantedLogBurst());
    logConfigProblems(ConfigRead::Again);
    m_watch->setLimit(config.number(Tlx::ConfigKey::STOP_LIMIT));
    attempt("the TLS certificate", [] { Tlx::Orb::reloadTls(); });
    attempt("doReconfig", [this] { m_service->doReconfig(); });
    log(Tlx::LogSeverity::Debug, "The configuration was read again");
    m_manager.ready(upText());
}

void Daemon::findRole()
{
    m_status.role = HostConfig::instance().isMaster() ? "master" : "client";
}

Result<> Daemon::step(const char* name, const std::function<void()>& work)
{
    m_watch->setStep(name);
    const auto failure = [name](ExitCode code, const std::string& text) {
        return tl::unexpected(Failure{code, std::string(name) + " failed: " + text});
    };
    try {
        work();
        return {};
    } catch (const Tlx::OrbConfigError& e) {
        return tl::unexpected(Failure{EC_CONFIGURATION, e.what()});
    } catch (const Tlx::OrbError& e) {
        return tl::unexpected(Failure{EC_CANNOT_LISTEN, e.what()});
    } catch (const CORBA::Exception& e) {
        return failure(EC_SERVICE_FAILED, std::string("CORBA exception ") + e._name());
    } catch (const std::exception& e) {
        return failure(EC_SERVICE_FAILED, e.what());
    }
}

void Daemon::attempt(const char* name, const std::function<void()>& work, int line)
{
    if (const auto done = step(name, work); !done)
        log(Tlx::LogSeverity::Error, done.error().text, line);
}

void Daemon::tellPerson(Tlx::LogSeverity severity, const std::string& text) const
{
    const Tlx::LoggerFactory& factory = Tlx::LoggerFactory::instance();
    const bool seen = m_logging && m_options.foreground && factory.level() >= LOG_LEVEL_FAILURE &&
                      factory.severity() >= severity;
    if (!seen)
        std::fprintf(stderr, "%sqmdisco: %s\n", Tlx::journalPrefix(severity), text.c_str());
}

ExitCode Daemon::fail(const Failure& failure, int line)
{
    log(Tlx::LogSeverity::Error, failure.text, line);
    tellPerson(Tlx::LogSeverity::Error, failure.text);
    m_manager.failed(failure.text);
    flushLog(); // the process may end without an exit
    return failure.code;
}

void Daemon::log(Tlx::LogSeverity severity, const std::string& text, int line)
{
    if (!m_logging)
        return; // there is no log yet; failures go to standard error
    const int level = severity == Tlx::LogSeverity::Debug ? LOG_LEVEL_PROGRESS : LOG_LEVEL_FAILURE;
    Tlx::LoggerFactory::instance()
        .getLogger(Tlx::LOG_ORIGINATOR_PLATFORM)
        ->write({"Daemon::run", level, severity, {"../Daemon", line}},
                text + " (../Daemon:" + std::to_string(line) + ")");
}

void Daemon::stopLimitReached(const std::string& text)
{
    // The step that hangs may hold the log's lock, so another thread logs the line, with a limit.
    try {
        auto told = std::make_shared<std::promise<void>>();
        auto done = told->get_future();
        std::thread([this, text, told] {
            fail({EC_STOP_LIMIT, text});
            told->set_value();
        }).detach();
        done.wait_for(m_hosted.lastLine);
    } catch (const std::exception&) {
        tellPerson(Tlx::LogSeverity::Error,
                   text); // no thread can be made: write at least to standard error
    }
    const std::unique_lock guard(m_reportMutex, std::try_to_lock);
    if (guard.owns_lock())
        m_report.tell(EC_STOP_LIMIT);
    ::_exit(EC_STOP_LIMIT);
}

int Daemon::wantedLogLevel() const
{
    return m_options.logLevel.value_or(
        static_cast<int>(HostConfig::instance().number(Tlx::ConfigKey::LOG_LEVEL)));
}

Tlx::LogSeverity Daemon::wantedLogSeverity()
{
    const auto value = HostConfig::instance().getString(Tlx::ConfigKey::LOG_SEVERITY);
    return Tlx::severityFromText(value.value_or("")).value_or(Tlx::LogSeverity::Debug);
}

unsigned Daemon::wantedLogBurst()
{
    return static_cast<unsigned>(HostConfig::instance().number(Tlx::ConfigKey::LOG_BURST));
}

void Daemon::flushLog()
{
    (void)Tlx::LoggerFactory::instance().flush(Tlx::LoggerFactory::LAST_FLUSH);
}

void Daemon::publish(const char* state)
{
    attempt("status.json", [this, state] {
        m_status.host = HostConfig::instance().localHostName();
        m_status.requestsInProgress = Tlx::Orb::requestsInProgress();
        m_status.certificateExpires = Tlx::Orb::tlsExpiry();
        m_status.counters = m_hosted.counters();
        const Tlx::LogCounters logged = Tlx::LoggerFactory::instance().counters();
        m_status.counters.emplace_back("logLinesSummedUp", logged.summedUp);
        m_status.counters.emplace_back("logLinesLost", logged.lost);
        m_status.counters.emplace_back("lockWaitsGivenUp", Tlx::FileLock::counts().waitsGivenUp);
        const Tlx::ConnectionCounts connections = Tlx::Orb::connectionCounts();
        m_status.counters.emplace_back("connectionsOpen", connections.open);
        m_status.counters.emplace_back("connectionsHighest", connections.highest);
        m_status.counters.emplace_back("connectionsRefused", connections.refused);
        m_status.counters.emplace_back("connectionsDrivenOut", connections.drivenOut);
        m_status.counters.emplace_back("connectionsLeftIdle", connections.leftIdle);
        m_status.counters.emplace_back("connectionsStalled", connections.stalled);
        m_status.counters.emplace_back("connectionsPlain", connections.plain);
        m_status.counters.emplace_back("connectionsMalformed", connections.malformed);
        m_status.counters.emplace_back("connectionsCrowdedOut", connections.crowdedOut);
        m_status.counters.emplace_back("requestsWaiting", connections.requestsWaiting);
        m_status.counters.emplace_back("requestsWaitingHighest",
                                       connections.requestsWaitingHighest);
        if (m_hosted.explorers)
            m_status.explorers = m_hosted.explorers();
        m_status.counters.emplace_back("requestsTurnedAway", Tlx::Orb::requestsTurnedAway());
        m_status.counters.emplace_back("callsRefused", Tlx::Orb::callsRefused());
        if (m_hosted.writers)
            m_status.writers = m_hosted.writers();
        writeStatus(state);
    });
}

void Daemon::writeStatus(const char* state)
{
    m_status.state = state;
    m_status.logLevel = Tlx::LoggerFactory::instance().level();
    m_status.assertions = Tlx::assertionCount();
    const auto written = m_statusFile.write(m_status);
    if (!written && !m_statusFailed) // log only the first failure: a full disk stays full for long
        log(Tlx::LogSeverity::Error, written.error().text);
    if (written && m_statusFailed)
        log(Tlx::LogSeverity::Notice, "The status is written again");
    m_statusFailed = !written.has_value();
}

std::string Daemon::upText() const
{
    std::string text = m_service->getDisplayName() + " is up (" + m_status.role + ", ";
    if (!m_status.endpoint.empty())
        text += m_status.endpoint + ", ";
    return text + "pid " + std::to_string(m_status.pid) + ", " + m_status.root + ")";
}

} // namespace Veltrane::Quillmark::Qmdisco
