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

/// The options of a command line. When nothing is to be run (--help, --version, a wrong option) it
/// is the exit code and the text for the person: on standard output with EC_OK, else on standard
/// error.
[[nodiscard]] Result<Options> parseOptions(int argc, const char* const* argv);

/// The version of this program, "1.2.3".
const char* version();

} // namespace Veltrane::Quillmark::Qmdisco
