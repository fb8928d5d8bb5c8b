#pragma once
// Runs one service on one product root, from the first directory to the orderly stop.

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <source_location>
#include <string>

#include <tlx/OrbService.h>
#include <tlx/Pathname.h>

#include "ExitCode.h"
#include "Options.h"
#include "PidFile.h"
#include "ServiceManager.h"
#include "StartReport.h"
#include "StatusFile.h"
#include "StopWatch.h"

namespace Veltrane::Quillmark::Qmdisco {

/// What is hosted, and a few figures that tests change.
struct Hosted
{
    std::function<std::unique_ptr<Tlx::OrbService>(bool foreground)> makeService;
    /// The service's counters, for the status; called on the main thread.
    std::function<Counters()> counters;
    /// Its explorers, likewise; empty for none.
    std::function<Explorers()> explorers;
    std::chrono::milliseconds statusInterval{2000};
    /// How long a second of STOP_LIMIT is.
    std::chrono::milliseconds second{1000};
    /// How long the line about a stop that is late may take to be logged.
    std::chrono::milliseconds lastLine{2000};
};

/// The order of a life:
///
///     configuration, directories, pid file, logging, privilege
///     -> the service is made -> doShouldStart -> doPreInit -> doInit -> doRun
///     -> requests are served, "ready" is told
///     -> (until a stop is wanted) signals, status
///     -> doStop -> doExit -> the service is destroyed -> ACE is finalised
///     -> status "stopped", pid file emptied
///
/// A step that fails ends it with one line and an exit code. When doRun fails, doStop is still
/// called, so that what had come up goes in order; doExit is not, for it belongs to a start that
/// succeeded.
///
/// All of it, the service's hooks included, runs on the thread that calls run. One object a
/// process.
class Daemon
{
  public:
    /// The host configuration's root must be set.
    Daemon(const Options& options, Hosted hosted, StartReport report);
    ~Daemon();

    /// Answers the exit code. Does not throw.
    int run();

  private:
    using Where = std::source_location;

    ExitCode host();
    ExitCode live();
    [[nodiscard]] Result<> startLogging();
    /// Answers whether the service is wanted on this host, and then it serves requests.
    [[nodiscard]] Result<bool> bringUp();
    [[nodiscard]] Result<> startServing();
    ExitCode serve();
    void sayStopped();
    void reload();
    void findRole();

    /// Does one step under its name; what it throws becomes a failure.
    [[nodiscard]] Result<> step(const char* name, const std::function<void()>& work);
    /// The same for a step whose failure is logged and changes nothing.
    void attempt(const char* name, const std::function<void()>& work,
                 Where where = Where::current());
    ExitCode fail(const Failure& failure, Where where = Where::current());
    /// To standard error, unless the log has brought it there already.
    void tellPerson(const std::string& text) const;
    void log(int level, const std::string& text, Where where = Where::current());
    void stopLimitReached(const std::string& text);

    int wantedLogLevel() const;
    /// Gathers the figures and writes them, when something changed.
    void publish(const char* state);
    void writeStatus(const char* state);
    std::string upText() const;

    const Options m_options;
    const Hosted m_hosted;
    std::mutex m_reportMutex; // the watch may tell while the main thread does
    StartReport m_report;
    const Tlx::TlxPathname m_root;
    ServiceManager m_manager;
    StatusFile m_statusFile;
    Status m_status;
    bool m_statusFailed = false;
    bool m_logging = false;
    std::unique_ptr<PidFile> m_pidFile;
    std::unique_ptr<StopWatch> m_watch;
    std::unique_ptr<Tlx::OrbService> m_service;
};

/// The whole program: command line, --check-config, detaching, the daemon.
int runProgram(int argc, char** argv, const Hosted& hosted);

} // namespace Veltrane::Quillmark::Qmdisco
