#include "ConfigReport.h"

#include <cerrno>
#include <optional>
#include <string>

#include <unistd.h>

#include <tlx/FileTrust.h>
#include <tlx/HostConfig.h>
#include <tlx/Log.h>
#include <tlx/Orb.h>

#include "ProductKeys.h"

namespace Veltrane::Quillmark::Qmdisco {

using Tlx::HostConfig;

namespace {

bool isAbsent(const Tlx::TlxPathname& file)
{
    return ::access(file.c_str(), F_OK) != 0 && errno == ENOENT;
}

/// Returns a line if other users could write the file; nothing if they cannot, or if it is absent.
std::optional<std::string> exposure(const HostConfig& config)
{
    const Tlx::TlxPathname file = config.configFile();
    if (isAbsent(file))
        return std::nullopt;
    const auto safe = Tlx::checkNotWritableByOthers(file, config.root());
    if (safe)
        return std::nullopt;
    return file.text() + ": " + safe.error();
}

} // namespace

ExitCode checkConfig(std::ostream& out)
{
    declareProductKeys();
    HostConfig& config = HostConfig::instance();
    const bool read = config.read();
    const auto problems = config.problems();
    for (const HostConfig::Problem& problem : problems)
        out << problem.toText() << "\n";
    const auto exposed = exposure(config);
    if (exposed)
        out << *exposed << "\n";
    const std::string tls = Tlx::Orb::tlsMistake();
    if (!tls.empty())
        out << config.configFile() << ": " << tls << "\n";
    if (read && problems.empty() && !exposed && tls.empty()) {
        out << config.configFile() << ": OK\n";
        return EC_OK;
    }
    return EC_CONFIGURATION;
}

void logConfigProblems(ConfigRead which)
{
    const HostConfig& config = HostConfig::instance();
    const bool absent = isAbsent(config.configFile());
    const int wholeFile =
        which == ConfigRead::First && absent ? Tlx::LOG_LEVEL_PROGRESS : Tlx::LOG_LEVEL_FAILURE;
    Tlx::Logger* const logger =
        Tlx::LoggerFactory::instance().getLogger(Tlx::LOG_ORIGINATOR_PLATFORM);
    const auto write = [logger](int level, Tlx::LogSeverity severity, unsigned line,
                                const std::string& text) {
        // Each line of the file is a place of its own, so the flood limit hides no mistake.
        const Tlx::LogPlace place{"etc/qm.conf", static_cast<int>(line)};
        if (logger->level() >= level)
            logger->write({"logConfigProblems", level, severity, place},
                          text + " (../ConfigReport:" + std::to_string(__LINE__) + ")");
    };
    if (const auto exposed = exposure(config))
        write(Tlx::LOG_LEVEL_FAILURE, Tlx::LogSeverity::Warning, 0, *exposed);
    for (const HostConfig::Problem& problem : config.problems()) {
        const int level = problem.line == 0 ? wholeFile : Tlx::LOG_LEVEL_FAILURE;
        write(level, Tlx::severityOfLevel(level), problem.line, problem.toText());
    }
}

} // namespace Veltrane::Quillmark::Qmdisco
