#pragma once
// The daemon's command line.

#include <optional>
#include <string>

#include "ExitCode.h"

namespace Veltrane::Quillmark::Qmdisco {

struct Options
{
    bool foreground = false;
    bool checkConfig = false;
    std::string root; ///< empty: not given
    std::optional<int> logLevel;
};

/// What a command line came to.
struct ParsedOptions
{
    Options options;
    /// Set when nothing is to be run: --help, --version, or a wrong option.
    std::optional<ExitCode> end;
    /// What to tell the person then: on standard output when end is EC_OK, else on standard error.
    std::string text;
};

ParsedOptions parseOptions(int argc, const char* const* argv);

/// The version of this program, "1.2.3".
const char* version();

} // namespace Veltrane::Quillmark::Qmdisco
