#pragma once
// How the command line ends: part of its interface, --help prints it.

#include <optional>
#include <string>

#include <tlx/Corba.h>

#include <DiscoverySvc.hh>

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace Svc = Tlx::DiscoverySvc;

enum ExitCode : int
{
    EC_OK = 0,
    EC_FAILURE = 1,
    EC_USAGE = 2,
    EC_UNREACHABLE = 3,
    EC_BROKE_OFF = 4,
    // Each status that the service answers has its own: 10 and the status's value.
    EC_NONE_FOUND = 11,
    EC_LOGIC_ERROR = 12,
    EC_OPEN_FAILED = 13,
    EC_COM_ERROR = 14,
    EC_DATA_EXISTS = 15,
};

/// The exit code of a status; EC_OK for DS_SUCCESS.
ExitCode exitCodeOf(Svc::DiscoveryStatus status);

/// The table of exit codes, for people.
std::string exitCodeTable();

/// Why a command did not do what it was asked to.
struct Failure
{
    ExitCode code = EC_FAILURE;
    std::string text; ///< one line for a person: what, where, why
    friend bool operator==(const Failure&, const Failure&) = default;
};

/// What an operation came to: nothing on success.
using Outcome = std::optional<Failure>;

} // namespace Veltrane::Quillmark::Qmdiscoctl
