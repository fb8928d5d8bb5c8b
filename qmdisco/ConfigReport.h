#pragma once
// What the daemon says about the host configuration's problems.

#include <ostream>

#include "ExitCode.h"

namespace Veltrane::Quillmark::Qmdisco {

/// Reads the host configuration and writes one line a problem, "FILE:LINE: ...", or "FILE: OK".
ExitCode checkConfig(std::ostream& out);

/// Whether the configuration is read at the start or again.
enum class ConfigRead
{
    First,
    Again
};

/// Logs the problems of the configuration as it was read last, one line each at level 1. At the
/// start an absent file is told at level 4 only: the service itself logs that at level 1.
void logConfigProblems(ConfigRead which);

} // namespace Veltrane::Quillmark::Qmdisco
