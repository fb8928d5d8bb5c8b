#include "ConfigReport.h"

#include <cerrno>
#include <string>

#include <unistd.h>

#include <tlx/HostConfig.h>
#include <tlx/Log.h>

#include "ProductKeys.h"

namespace Veltrane::Quillmark::Qmdisco {

using Tlx::HostConfig;

ExitCode checkConfig(std::ostream& out)
{
    declareProductKeys();
    HostConfig& config = HostConfig::instance();
    const bool read = config.read();
    const auto problems = config.problems();
    for (const HostConfig::Problem& problem : problems)
        out << problem.toText() << "\n";
    if (read && problems.empty()) {
        out << config.configFile() << ": OK\n";
        return EC_OK;
    }
    return EC_CONFIGURATION;
}

void logConfigProblems(ConfigRead which)
{
    const HostConfig& config = HostConfig::instance();
    const bool absent = ::access(config.configFile().c_str(), F_OK) != 0 && errno == ENOENT;
    const int wholeFile =
        which == ConfigRead::First && absent ? Tlx::LOG_LEVEL_PROGRESS : Tlx::LOG_LEVEL_FAILURE;
    Tlx::Logger* const logger =
        Tlx::LoggerFactory::instance().getLogger(Tlx::LOG_ORIGINATOR_PLATFORM);
    for (const HostConfig::Problem& problem : config.problems()) {
        const int level = problem.line == 0 ? wholeFile : Tlx::LOG_LEVEL_FAILURE;
        // Each line of the file is a place of its own, so the flood limit hides no mistake.
        const Tlx::LogPlace place{"etc/qm.conf", static_cast<int>(problem.line)};
        if (logger->level() >= level)
            logger->write({"logConfigProblems", level, Tlx::severityOfLevel(level), place},
                          problem.toText() + " (../ConfigReport:" + std::to_string(__LINE__) + ")");
    }
}

} // namespace Veltrane::Quillmark::Qmdisco
