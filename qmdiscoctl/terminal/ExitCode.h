#pragma once
// The exit codes. Scripts rely on them, and --help prints them.

#include <string>

#include <tl/expected.hpp>

namespace Veltrane::Quillmark::Qmdiscoctl {

enum ExitCode : int
{
    EC_OK = 0,
    EC_FAILURE = 1,
    EC_USAGE = 2,
    EC_UNREACHABLE = 3,
    EC_BROKE_OFF = 4,
    // Each status of the service has a code: 10 plus the status, see exitCodeOf.
    EC_NONE_FOUND = 11,
    EC_LOGIC_ERROR = 12,
    EC_OPEN_FAILED = 13,
    EC_COM_ERROR = 14,
    EC_DATA_EXISTS = 15,
};

/// The table of exit codes, for people.
std::string exitCodeTable();

/// Why a command failed.
struct Failure
{
    ExitCode code = EC_FAILURE;
    std::string text; ///< one line for a person: what, where, why
    friend bool operator==(const Failure&, const Failure&) = default;
};

/// The result of a step: its value, or why the command failed.
template <class T = void>
using Result = tl::expected<T, Failure>;

} // namespace Veltrane::Quillmark::Qmdiscoctl
