#include "Ledger.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace Veltrane::Quillmark::Soak {

namespace {

constexpr std::chrono::seconds PERIOD(1);

std::int64_t nanoseconds(Clock::time_point time)
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(time.time_since_epoch()).count();
}

} // namespace

Ledger::Ledger(const std::string& path)
    : m_file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, 0644))
{
    if (m_file < 0)
        throw std::system_error(errno, std::generic_category(), path);
}

Ledger::~Ledger()
{
    ::close(m_file);
}

void Ledger::append(const char* word, const std::string& text)
{
    const std::string line =
        fmt::format("{} {}{}{}\n", word, nanoseconds(Clock::now()), text.empty() ? "" : " ", text);
    if (::write(m_file, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
        throw std::system_error(errno, std::generic_category(), "the ledger");
}

void Ledger::count(const char* kind, Clock::duration latency)
{
    const auto microseconds =
        std::chrono::duration_cast<std::chrono::microseconds>(latency).count();
    const double bin = 8 * std::log2(static_cast<double>(std::max<std::int64_t>(microseconds, 1)));
    ++m_counts[kind][static_cast<int>(bin)];
    if (Clock::now() - m_flushed >= PERIOD)
        flush();
}

void Ledger::flush()
{
    for (const auto& [kind, bins] : m_counts) {
        std::string text = kind;
        for (const auto& [bin, number] : bins)
            text += fmt::format(" {}:{}", bin, number);
        append("took", text);
    }
    m_counts.clear();
    m_flushed = Clock::now();
}

} // namespace Veltrane::Quillmark::Soak
