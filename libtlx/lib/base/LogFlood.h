#pragma once
// The flood limit of the log: how many lines one place in the code may write.

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include <tlx/Log.h>

#include "LogLine.h"

namespace Veltrane::Quillmark::Tlx {

/// Counts the lines of each place. Within a second a place may write a burst of lines. The limit
/// counts further lines. At the end of each second it makes one sum of them: the beginning of the
/// last of their texts, and "... and 4,711 more like this". A place that went over its burst writes
/// only sums until a whole second stays within the burst. So a flood costs one line a second, and
/// cannot rotate the lines of other places away.
///
/// A place is a source file and a line of it, for one operation and one severity. If file and line
/// are not known, the level stands for them. The place of each originator is counted on its own. So
/// a flood in one operation does not hide the same failure in another one.
///
/// The limit has no clock: its owner ends the seconds. Any thread may call all operations.
class FloodLimit
{
  public:
    /// The places that are watched at once. Further ones share one more place. A place that was
    /// silent for a second is forgotten.
    static constexpr std::size_t MAX_PLACES = 1024;
    /// The bytes of a text that a sum shows.
    static constexpr std::size_t SUM_TEXT_BYTES = 512;

    /// How many lines a place may write in a second; 0 for no limit.
    void setBurst(unsigned lines);

    /// Whether the line may be written. Otherwise it has been counted.
    bool admits(const LogCaller& caller, unsigned originator, const LogCall& call,
                std::string_view text);

    /// Returns the sums of what was counted and is in no sum yet, with the time now. The second
    /// goes on.
    std::vector<LogRecord> takeSums();
    /// Ends the second, and returns its sums as takeSums does.
    std::vector<LogRecord> endSecond();

    /// Whether no place is watched. Then the end of a second changes nothing.
    bool isIdle() const { return m_isIdle; }
    /// The lines that were counted, in all sums and after them.
    unsigned long long counted() const { return m_counted; }

  private:
    /// The source, the operation, the line or the negative level, the severity, the originator.
    using Key = std::tuple<std::string, std::string, int, LogSeverity, unsigned>;
    using KeyView = std::tuple<std::string_view, std::string_view, int, LogSeverity, unsigned>;
    /// Finds a key without a copy of its text.
    struct Less
    {
        using is_transparent = void;
        bool operator()(const KeyView& a, const KeyView& b) const { return a < b; }
    };
    struct Place
    {
        unsigned long long lines = 0; ///< in this second, written and counted ones
        bool flooding = false;        ///< the second before went over the burst
        unsigned long long counted = 0;
        // The last of the counted lines.
        int level = 0;
        LogSeverity severity = LogSeverity::Debug;
        std::string operation;
        std::string text;
        long thread = 0;
        unsigned originator = 0;
    };

    Place& placeOf(const KeyView& key);
    std::vector<LogRecord> takeSumsLocked();

    std::atomic<bool> m_isIdle{true};
    std::atomic<unsigned long long> m_counted{0};

    std::mutex m_mutex; // guards all members below
    unsigned m_burst = 0;
    std::map<Key, Place, Less> m_places;
};

} // namespace Veltrane::Quillmark::Tlx
