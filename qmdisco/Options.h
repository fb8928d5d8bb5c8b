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

/// Returns the options of a command line. For --help, --version and a wrong option it returns the
/// exit code and a text for the person. With EC_OK the text goes to standard output, otherwise to
/// standard error.
[[nodiscard]] Result<Options> parseOptions(int argc, const char* const* argv);

/// The version of this program, "1.2.3".
const char* version();

} // namespace Veltrane::Quillmark::Qmdisco
