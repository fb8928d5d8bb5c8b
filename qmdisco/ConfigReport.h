#pragma once
// Reports the problems of the host configuration.

#include <ostream>

#include "ExitCode.h"

namespace Veltrane::Quillmark::Qmdisco {

/// Reads the host configuration. Writes one line for each problem, "FILE:LINE: ...", or "FILE: OK".
/// It is also a problem if other users could write the file.
ExitCode checkConfig(std::ostream& out);

/// The occasion of a read: the start of the daemon, or a reload.
enum class ConfigRead
{
    First,
    Again
};

/// Logs the problems of the last read, one line each at level 1. At the start it logs an absent
/// file at level 4, because the service itself logs that at level 1. Warns if other users could
/// write the file.
void logConfigProblems(ConfigRead which);

} // namespace Veltrane::Quillmark::Qmdisco
