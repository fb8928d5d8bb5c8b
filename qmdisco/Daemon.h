#pragma once
// Runs one service on one product root, from the start to the orderly stop.

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include <tlx/Log.h>
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

/// The hosted service, and some figures that tests change.
struct Hosted
{
    std::function<std::unique_ptr<Tlx::OrbService>(bool foreground)> makeService;
    /// Returns the service's counters for the status. The main thread calls it.
    std::function<Counters()> counters;
    /// Returns the service's explorers, in the same way. May be empty.
    std::function<Explorers()> explorers;
    /// Returns the service's open writers, in the same way. May be empty.
    std::function<Writers()> writers;
    std::chrono::milliseconds statusInterval{2000};
    /// The length of one second of STOP_LIMIT.
    std::chrono::milliseconds second{1000};
    /// The time limit for logging that a stop is late.
    std::chrono::milliseconds lastLine{2000};
};

/// The daemon's life has these steps:
///
///     configuration, directories, pid file, logging, privilege
///     -> the service is made -> doShouldStart -> doPreInit -> doInit -> doRun
///     -> requests are served, "ready" is reported
///     -> (until a stop is wanted) signals, status
///     -> doStop -> doExit -> the service is destroyed -> ACE is finalised
///     -> status "stopped", pid file emptied
///
/// If a step fails, the daemon prints one line and ends with an exit code. After a failed doRun it
/// still calls doStop, which stops in order what did start. It does not call doExit, which belongs
/// to a start that succeeded.
///
/// The thread that calls run does all steps and calls the service's hooks. A process has one
/// object.
class Daemon
{
  public:
    /// Set the root of the host configuration first.
    Daemon(const Options& options, Hosted hosted, StartReport report);
    ~Daemon();

    /// Returns the exit code. Does not throw.
    int run();

  private:
    ExitCode host();
    /// Confines what this process can write. Root's daemon is not confined.
    [[nodiscard]] Tlx::FileResult<> confine() const;
    ExitCode live();
    [[nodiscard]] Result<> startLogging();
    /// Starts the service if this host wants it. Returns true if it serves requests.
    [[nodiscard]] Result<bool> bringUp();
    [[nodiscard]] Result<> startServing();
    ExitCode serve();
    void sayStopped();
    void reload();
    void findRole();

    /// Does one step under its name. An exception becomes a failure.
    [[nodiscard]] Result<> step(const char* name, const std::function<void()>& work);
    /// Does one step under its name. It logs a failure and goes on.
    /// line is the caller's. Debian 12's clang has no std::source_location.
    void attempt(const char* name, const std::function<void()>& work, int line = __builtin_LINE());
    ExitCode fail(const Failure& failure, int line = __builtin_LINE());
    /// Writes a line to standard error, unless the log writes there as well.
    void tellPerson(Tlx::LogSeverity severity, const std::string& text) const;
    /// Logs a line; debug is progress, everything else level 1.
    void log(Tlx::LogSeverity severity, const std::string& text, int line = __builtin_LINE());
    void stopLimitReached(const std::string& text);

    int wantedLogLevel() const;
    static Tlx::LogSeverity wantedLogSeverity();
    static unsigned wantedLogBurst();
    /// Waits until the log is written, for a short time at most.
    static void flushLog();
    /// Gathers the figures and writes them if something has changed.
    void publish(const char* state);
    void writeStatus(const char* state);
    std::string upText() const;

    const Options m_options;
    const Hosted m_hosted;
    std::mutex m_reportMutex; // the watch's thread and the main thread may both report
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

/// Runs the whole program: command line, --check-config, detaching, the daemon.
int runProgram(int argc, char** argv, const Hosted& hosted);

} // namespace Veltrane::Quillmark::Qmdisco
