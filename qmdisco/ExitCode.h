#pragma once
// How the daemon ends: part of its interface, --help prints it.

#include <string>

#include <tl/expected.hpp>

namespace Veltrane::Quillmark::Qmdisco {

enum ExitCode : int
{
    EC_OK = 0,
    EC_UNEXPECTED = 1,
    EC_USAGE = 2,
    EC_CONFIGURATION = 3,
    EC_ALREADY_RUNNING = 4,
    EC_ROOT_UNUSABLE = 5,
    EC_NO_PRIVILEGE = 6,
    EC_CANNOT_LISTEN = 7,
    EC_SERVICE_FAILED = 8,
    EC_STOP_LIMIT = 9,
};

/// The table of exit codes, for people.
std::string exitCodeTable();

/// Why the daemon ends otherwise than in order.
struct Failure
{
    ExitCode code = EC_UNEXPECTED;
    std::string text; ///< one line for a person: what, where, why
};

/// What a step of the daemon answers: its value, or why the daemon cannot go on.
template <class T = void>
using Result = tl::expected<T, Failure>;

} // namespace Veltrane::Quillmark::Qmdisco
