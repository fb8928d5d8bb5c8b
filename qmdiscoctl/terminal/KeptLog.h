#pragma once
// Keeps the log lines of the libraries. After a failure the program prints them as details for a
// person.

#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include <tlx/Log.h>

namespace Veltrane::Quillmark::Qmdiscoctl {

/// Keeps level-1 lines, escaped for a terminal. Any thread may log.
class KeptLog : public Tlx::LogSink
{
  public:
    struct Kept
    {
        std::string operation;
        std::string text; ///< without the place in the source
        friend bool operator==(const Kept&, const Kept&) = default;
    };
    void write(const Line& line) override;
    /// The lines since the last call. Consecutive duplicates are collapsed; only the newest
    /// MAX_LINES are kept.
    std::vector<Kept> take();

  private:
    static constexpr std::size_t MAX_LINES = 50;
    std::mutex m_mutex;
    std::deque<Kept> m_lines;
};

} // namespace Veltrane::Quillmark::Qmdiscoctl
