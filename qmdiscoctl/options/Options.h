#pragma once
// The command line's options and arguments.

#include <cstdint>
#include <optional>
#include <string>

#include "ExitCode.h"
#include "Names.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

enum class Command
{
    PUT,
    QUERY,
    GET,
    STATUS,
    EXPLORERS,
    CLIENTS,
    ITEMS,
    FILTERS,
    REFRESH,
    STOP
};

struct Options
{
    Command command = Command::STATUS;

    // Every command has these.
    std::string host; ///< empty: not given
    std::string root; ///< empty: not given
    bool json = false;

    // Some commands have these. An option that is not given has the command's default.
    std::string subject;
    std::string authority;
    Svc::AuthorityType type = Svc::AT_ANYANDALL;
    Svc::DiscoveryQuery queryType = Svc::DQ_DISCOVERY_DATA;
    std::uint32_t priority = 0;
    std::uint64_t timeToLive = 0; ///< seconds; 0: for ever
    std::string input;            ///< "-" is standard input
    std::int32_t recordsPerPage = 1024;
    std::string filter;
    std::string output; ///< empty: standard output
    bool all = false;
    bool registered = false;
    unsigned waitSeconds = 30; ///< 0: do not wait
};

/// The result of reading a command line.
struct ParsedOptions
{
    Options options;
    /// Set when no command runs: for --help, --version and a wrong option.
    std::optional<ExitCode> end;
    /// The text to print then: on standard output when end is EC_OK, else on standard error.
    std::string text;
};

ParsedOptions parseOptions(int argc, const char* const* argv);

/// The version of this program, "1.2.3".
const char* version();

} // namespace Veltrane::Quillmark::Qmdiscoctl
