#include "Progress.h"

#include <algorithm>

#include <sys/ioctl.h>
#include <unistd.h>

#include <tlx/File.h>

#include "Text.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds UNTIL_SHOWN{500};
constexpr milliseconds BETWEEN_DRAWINGS{100};
constexpr std::size_t MAX_BAR = 40;
constexpr std::size_t MIN_BAR = 4;

std::size_t terminalWidth()
{
    winsize size = {};
    const bool known = ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return known ? size.ws_col : 80;
}

std::string barOf(double part, std::size_t columns)
{
    const auto filled = static_cast<std::size_t>(part * static_cast<double>(columns));
    std::string bar(columns, ' ');
    std::fill_n(bar.begin(), filled, '=');
    if (filled < columns)
        bar[filled] = '>';
    return "[" + bar + "]";
}

} // namespace

std::string progressLine(const std::string& what, std::uint64_t done,
                         std::optional<std::uint64_t> total, std::chrono::duration<double> elapsed,
                         std::size_t width)
{
    const auto bytes = static_cast<double>(done);
    const double rate = elapsed.count() > 0 ? bytes / elapsed.count() : 0;
    std::string line = what;
    std::string amount = "  " + shortBytesText(bytes);
    if (total && *total > 0) {
        const auto all = static_cast<double>(*total);
        // A file may grow while it is read.
        const double part = std::min(bytes / all, 1.0);
        const std::string percent = std::to_string(static_cast<int>(part * 100));
        amount = "  " + std::string(3 - std::min<std::size_t>(percent.size(), 3), ' ') + percent +
                 "%" + amount + "/" + shortBytesText(all);
        const std::size_t others = line.size() + 3 + amount.size() + 14 + 1;
        if (width >= others + MIN_BAR)
            line += " " + barOf(part, std::min(width - others, MAX_BAR));
    }
    line += amount + "  " + shortBytesText(rate) + "/s";
    // The last column stays free: some terminals begin a new line there.
    return line.substr(0, width > 0 ? width - 1 : 0);
}

Progress::Progress(bool enabled, std::string what, std::optional<std::uint64_t> total)
    : Progress(std::move(what), total, &Clock::now, enabled ? terminalWidth() : 0,
               enabled
                   ? Draw([](const std::string& text) { (void)Tlx::writeAll(STDERR_FILENO, text); })
                   : Draw())
{
}

Progress::Progress(std::string what, std::optional<std::uint64_t> total,
                   std::function<Clock::time_point()> now, std::size_t width, Draw draw)
    : m_what(std::move(what)), m_total(total), m_now(std::move(now)), m_width(width),
      m_draw(std::move(draw)), m_start(m_now())
{
}

Progress::~Progress()
{
    if (m_shown > 0)
        m_draw("\r" + std::string(m_shown, ' ') + "\r");
}

void Progress::add(std::uint64_t bytes)
{
    m_done += bytes;
    if (!m_draw)
        return;
    const Clock::time_point now = m_now();
    if (now - m_start < UNTIL_SHOWN || (m_shown > 0 && now - m_drawn < BETWEEN_DRAWINGS))
        return;
    const std::string line = progressLine(m_what, m_done, m_total, now - m_start, m_width);
    m_draw("\r" + line + std::string(m_shown - std::min(m_shown, line.size()), ' '));
    m_shown = line.size();
    m_drawn = now;
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
