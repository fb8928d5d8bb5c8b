#pragma once
// How far a long transfer has come, for a person at a terminal.

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace Veltrane::Quillmark::Qmdiscoctl {

/// One line, no wider than the terminal. It has a bar when the total is known, and only the amount
/// otherwise.
std::string progressLine(const std::string& what, std::uint64_t done,
                         std::optional<std::uint64_t> total, std::chrono::duration<double> elapsed,
                         std::size_t width);

/// Draws that line again and again on standard error. Shows nothing unless enabled, and nothing for
/// a short transfer. Erases the line at its end. Used by one thread.
class Progress
{
  public:
    using Clock = std::chrono::steady_clock;
    using Draw = std::function<void(const std::string&)>;

    /// @param enabled whether a person looks at standard error.
    Progress(bool enabled, std::string what, std::optional<std::uint64_t> total);
    /// With the caller's clock and terminal (tests).
    Progress(std::string what, std::optional<std::uint64_t> total,
             std::function<Clock::time_point()> now, std::size_t width, Draw draw);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void add(std::uint64_t bytes);

  private:
    const std::string m_what;
    const std::optional<std::uint64_t> m_total;
    const std::function<Clock::time_point()> m_now;
    const std::size_t m_width;
    const Draw m_draw; ///< empty: not enabled
    Clock::time_point m_start{};
    Clock::time_point m_drawn{};
    std::uint64_t m_done = 0;
    std::size_t m_shown = 0; ///< columns
};

} // namespace Veltrane::Quillmark::Qmdiscoctl
