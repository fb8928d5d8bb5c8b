#pragma once
// What a worker writes down for the driver: one line for each fact, before its next step.
//
// The kernel has each line when the operation returns. So a killed client loses no line. A line
// begins with a word and the time, in nanoseconds of CLOCK_MONOTONIC. The driver uses the same
// clock. The words:
//
//   put TIME NAME GENERATION SIZE SECONDS   the worker begins a put with this time to live
//   ack TIME NAME GENERATION                the service has acknowledged it
//   not TIME NAME GENERATION                the service has refused it
//   saw TIME BEGIN NAME GENERATION SIZE     a read found this version; BEGIN is when it began
//   none TIME BEGIN NAME                    a read found no record, or one without a payload
//   writer TIME, data TIME, list TIME       the worker abandoned a writer or an iterator
//   lost TIME TEXT                          a call failed; the worker connects again
//   up TIME                                 the worker has connected
//   late TIME TEXT                          an answer took longer than its bound
//   bad TIME TEXT                           the service's answer is wrong
//   took TIME KIND BIN:COUNT...             the latencies of one second, counted in bins
//   end TIME                                the worker stops in order
//
// Bin N begins at 2^(N/8) microseconds.

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <string>

#include <fmt/format.h>

namespace Veltrane::Quillmark::Soak {

using Clock = std::chrono::steady_clock;

/// One thread uses a ledger.
class Ledger
{
  public:
    /// Makes the file. Throws if it exists or cannot be made.
    explicit Ledger(const std::string& path);
    ~Ledger();
    Ledger(const Ledger&) = delete;
    Ledger& operator=(const Ledger&) = delete;

    template <class... Arguments>
    void write(const char* word, fmt::format_string<Arguments...> text, Arguments&&... arguments)
    {
        append(word, fmt::format(text, std::forward<Arguments>(arguments)...));
    }
    void write(const char* word) { append(word, ""); }

    /// Counts a latency. Writes the counts once a second.
    void count(const char* kind, Clock::duration latency);
    /// Writes the counts now.
    void flush();

  private:
    void append(const char* word, const std::string& text);

    int m_file;
    Clock::time_point m_flushed = Clock::now();
    std::map<std::string, std::map<int, unsigned>> m_counts;
};

} // namespace Veltrane::Quillmark::Soak
