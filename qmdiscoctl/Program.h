#pragma once
// The whole program.

namespace Veltrane::Quillmark::Qmdiscoctl {

/// Runs the command line and returns the exit code.
int runProgram(int argc, char** argv);

} // namespace Veltrane::Quillmark::Qmdiscoctl
