#pragma once
// Shows the progress of a long transfer to a person at a terminal.

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace Veltrane::Quillmark::Qmdiscoctl {

/// Makes one line that fits the terminal. With a known total it has a bar, otherwise only the
/// amount.
std::string progressLine(const std::string& what, std::uint64_t done,
                         std::optional<std::uint64_t> total, std::chrono::duration<double> elapsed,
                         std::size_t width);

/// Draws that line again and again on standard error, if it is enabled. It shows nothing for a
/// short transfer. It erases the line at the end. One thread uses it.
class Progress
{
  public:
    using Clock = std::chrono::steady_clock;
    using Draw = std::function<void(const std::string&)>;

    /// @param enabled whether a person looks at standard error.
    Progress(bool enabled, std::string what, std::optional<std::uint64_t> total);
    /// Uses the caller's clock and terminal, for tests.
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
