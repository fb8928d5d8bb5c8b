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
#include "ProductKeys.h"
#include "Research.h"
#include "Text.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

using std::chrono::seconds;

/// The limit for finding the service, with the resolution of its name.
constexpr seconds CONNECT_LIMIT{10};
constexpr seconds REQUEST_LIMIT{30};

void complain(const std::string& line)
{
    // Ignore a failure of this write, because nothing can report it.
    (void)Tlx::writeAll(STDERR_FILENO, "qmdiscoctl: " + line + "\n");
}

void readConfiguration(const Options& options)
{
    declareProductKeys();
    Tlx::HostConfig& config = Tlx::HostConfig::instance();
    if (!options.root.empty())
        config.setRoot(options.root);
    // With --host the program also works on a host without an installed service.
    if (!config.read() && !options.host.empty() && ::access(config.configFile().c_str(), F_OK) != 0)
        return;
    for (const Tlx::HostConfig::Problem& problem : config.problems())
        complain("warning: " + problem.toText());
}

/// Owns the one ORB of the process. Brings it up when a command needs it.
class Connector
{
  public:
    Connector(const Target& target, const StatusDocument& status)
        : m_target(target), m_status(status)
    {
    }

    Result<std::unique_ptr<Service>> connect()
    {
        if (m_target.endpoint.port == 0)
            return tl::unexpected(unreachable(escaped(m_target.host), m_target.endpoint,
                                              "according to " + escaped(m_status.path) +
                                                  " it is not running, and the configuration "
                                                  "names no port"));
        try {
            m_orb = std::make_unique<Tlx::Orb>(true, "", "qmdiscoctl", false);
        } catch (const Tlx::OrbError& error) {
            return tl::unexpected(Failure{EC_FAILURE, escaped(error.what())});
        }
        auto service = Qmdiscoctl::connect(*m_orb, m_target, CONNECT_LIMIT);
        if (service)
            (*service)->setRequestLimit(REQUEST_LIMIT);
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
        .connect = [&connector] { return connector.connect(); },
        .research = [&](auto query, const auto& subject, const auto& authority, auto* filter,
                        const auto& each) -> Result<> {
            // Only the connector knows why a service cannot be reached.
            if (const auto connected = connector.connect(); !connected)
                return tl::unexpected(connected.error());
            auto done = research.read(query, subject, authority, filter, each);
            if (done)
                log->take(); // the command itself reports the unread discoveries
            return done;
        },
        .out = dataGoesOut ? static_cast<Output&>(data) : text,
        .outIsTerminal = outIsTerminal,
        .errorsAreTerminal = ::isatty(STDERR_FILENO) == 1,
        .now = &std::chrono::steady_clock::now,
        .pause = [](std::chrono::milliseconds time) { std::this_thread::sleep_for(time); },
        .epochSeconds = [] { return static_cast<std::int64_t>(std::time(nullptr)); },
        .isRunning = &isRunning,
    };
    auto done = runCommand(session);
    if (done)
        done = session.out.finish();
    if (done)
        return EC_OK;
    complain(done.error().text);
    for (const KeptLog::Kept& line : log->take())
        complain("log: " + line.operation + ": " + line.text);
    return done.error().code;
}

} // namespace

int runProgram(int argc, char** argv)
{
    try {
        // If standard output is closed, the command must fail. Otherwise the answer would get lost.
        Tlx::fillStandardDescriptors(Tlx::MissingStream::FAILS);
        // If the reader of the output ends, the write must fail with an ordinary error.
        std::signal(SIGPIPE, SIG_IGN);
        const ParsedOptions parsed = parseOptions(argc, argv);
        if (!parsed.end)
            return run(parsed.options);
        if (*parsed.end != EC_OK) {
            (void)Tlx::writeAll(STDERR_FILENO, parsed.text);
        } else if (const auto done = StandardOutput().write(parsed.text); !done) {
            complain(done.error().text);
            return done.error().code;
        }
        return *parsed.end;
    } catch (const std::exception& error) {
        complain(std::string("unexpected failure: ") + escaped(error.what()));
        return EC_FAILURE;
    }
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
