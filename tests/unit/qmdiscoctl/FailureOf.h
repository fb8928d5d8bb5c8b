#pragma once
// Results of the command line as values that a test compares and prints.

#include <ostream>

#include "ExitCode.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

inline const Failure NO_FAILURE{EC_OK, ""};

/// Why a step failed; NO_FAILURE when it succeeded.
template <class T>
Failure failureOf(const Result<T>& result)
{
    return result ? NO_FAILURE : result.error();
}

inline void PrintTo(const Failure& failure, std::ostream* out)
{
    *out << "exit code " << failure.code << ": " << failure.text;
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
