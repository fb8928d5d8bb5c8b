#include "Program.h"

#include <csignal>
#include <ctime>
#include <exception>
#include <memory>
#include <thread>

#include <unistd.h>

#include <tlx/File.h>
#include <tlx/HostConfig.h>
#include <tlx/Log.h>
#include <tlx/Orb.h>

#include "Commands.h"
#include "KeptLog.h"
#include "Research.h"
#include "Text.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

using std::chrono::seconds;

/// Name, connection and first answer together.
constexpr seconds CONNECT_LIMIT{10};
constexpr seconds REQUEST_LIMIT{30};
constexpr std::size_t ORB_HANDLES = 64;

void tell(const std::string& line)
{
    // A failure to report a failure can be reported nowhere.
    (void)Tlx::writeAll(STDERR_FILENO, "qmdiscoctl: " + line + "\n");
}

void readConfiguration(const Options& options)
{
    Tlx::HostConfig& config = Tlx::HostConfig::instance();
    if (!options.root.empty())
        config.setRoot(options.root);
    // Whoever names a host may well sit where no service is installed.
    if (!config.read() && !options.host.empty() && ::access(config.configFile().c_str(), F_OK) != 0)
        return;
    for (const Tlx::HostConfig::Problem& problem : config.problems())
        tell("warning: " + problem.toText());
}

/// The one ORB of the process, brought up when a command needs it.
class Connector
{
  public:
    Connector(const Target& target, const StatusDocument& status)
        : m_target(target), m_status(status)
    {
    }

    std::unique_ptr<Service> connect(Failure& failure)
    {
        if (m_target.endpoint.port == 0) {
            failure = unreachable(escaped(m_target.host), m_target.endpoint,
                                  "it is not running, as far as " + escaped(m_status.path) +
                                      " tells, and the configuration names no port");
            return nullptr;
        }
        try {
            m_orb = std::make_unique<Tlx::Orb>(true, "", "qmdiscoctl", false, ORB_HANDLES);
        } catch (const Tlx::OrbError& error) {
            failure = {EC_FAILURE, escaped(error.what())};
            return nullptr;
        }
        std::unique_ptr<Service> service =
            Qmdiscoctl::connect(*m_orb, m_target, CONNECT_LIMIT, failure);
        if (service)
            service->setRequestLimit(REQUEST_LIMIT);
        return service;
    }

  private:
    const Target& m_target;
    const StatusDocument& m_status;
    std::unique_ptr<Tlx::Orb> m_orb;
};

int run(const Options& options)
{
    const auto log = std::make_shared<KeptLog>();
    Tlx::LoggerFactory::instance().setSink(log);
    readConfiguration(options);
    const Tlx::HostConfig& config = Tlx::HostConfig::instance();
    const StatusDocument status = readStatusDocument(config.root());
    const Target target = findTarget(options.host, config, status);
    Connector connector(target, status);
    Research research(target);

    const bool outIsTerminal = ::isatty(STDOUT_FILENO) == 1;
    StandardOutput text;
    StandardDataOutput data(outIsTerminal);
    const bool dataGoesOut = options.command == Command::GET && options.output.empty();
    Session session{
        .options = options,
        .target = target,
        .status = status,
        .localHost = config.localHostName(),
        .connect = [&connector](Failure& failure) { return connector.connect(failure); },
        .research = [&](auto query, const auto& subject, const auto& authority, auto* filter,
                        const auto& each) -> Outcome {
            // The connector knows why a service cannot be reached, the researcher does not.
            Failure failure;
            if (!connector.connect(failure))
                return failure;
            Outcome outcome = research.read(query, subject, authority, filter, each);
            if (!outcome)
                log->take(); // the command reports what was not read
            return outcome;
        },
        .out = dataGoesOut ? static_cast<Output&>(data) : text,
        .outIsTerminal = outIsTerminal,
        .errorsAreTerminal = ::isatty(STDERR_FILENO) == 1,
        .now = &std::chrono::steady_clock::now,
        .pause = [](std::chrono::milliseconds time) { std::this_thread::sleep_for(time); },
        .epochSeconds = [] { return static_cast<std::int64_t>(std::time(nullptr)); },
        .isRunning = &isRunning,
    };
    Outcome outcome = runCommand(session);
    if (!outcome)
        outcome = session.out.finish();
    if (!outcome)
        return EC_OK;
    tell(outcome->text);
    for (const KeptLog::Kept& line : log->take())
        tell("log: " + line.operation + ": " + line.text);
    return outcome->code;
}

} // namespace

int runProgram(int argc, char** argv)
{
    try {
        // A closed standard output is a failure of the command, not an answer that nobody reads.
        Tlx::fillStandardDescriptors(Tlx::MissingStream::FAILS);
        // A reader that goes away is an error like any other when writing.
        std::signal(SIGPIPE, SIG_IGN);
        const ParsedOptions parsed = parseOptions(argc, argv);
        if (!parsed.end)
            return run(parsed.options);
        if (*parsed.end != EC_OK) {
            (void)Tlx::writeAll(STDERR_FILENO, parsed.text);
        } else if (const Outcome failed = StandardOutput().write(parsed.text)) {
            tell(failed->text);
            return failed->code;
        }
        return *parsed.end;
    } catch (const std::exception& error) {
        tell(std::string("unexpected failure: ") + escaped(error.what()));
        return EC_FAILURE;
    }
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
