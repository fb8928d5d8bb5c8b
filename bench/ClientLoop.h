#pragma once
// How a client process of the benchmark works for the driver.
//
// The driver writes one line, a JSON object that describes an operation. The client prepares it,
// does it "warm" times (once unless the command states it), and answers "ready". The driver then
// writes the start, in seconds of CLOCK_MONOTONIC. All clients get the same start. The client
// repeats the operation for "seconds", at least once, and answers with one line: {"operations": N,
// "seconds": S, "latencies": [microseconds...]}. A failure is {"error": TEXT}, and ends the
// process.

#include <functional>
#include <map>
#include <random>
#include <string>

#include <nlohmann/json.hpp>

namespace Veltrane::Quillmark::Bench {

/// Does the work once. Throws on failure.
using Operation = std::function<void()>;

/// Makes the operation that a command describes.
using Preparation = std::function<Operation(const nlohmann::json& command)>;

/// Serves the driver until it closes the pipe. Uses standard input and output. Returns the exit
/// code. `describe` turns the exception that is being handled into one line.
int serveDriver(const std::map<std::string, Preparation>& operations,
                const std::function<std::string()>& describe);

/// The numbers of the records that one client uses, in the order of its operations.
///
/// The command has "count". With "seed", each number is drawn at random below "count". Otherwise
/// the client takes "first", "first" + "step", and so on, and begins again after "count" numbers.
class Numbers
{
  public:
    explicit Numbers(const nlohmann::json& command);
    unsigned long next();

  private:
    unsigned long m_count;
    unsigned long m_first;
    unsigned long m_step;
    unsigned long m_used = 0;
    bool m_isRandom;
    std::mt19937_64 m_random;
};

} // namespace Veltrane::Quillmark::Bench
