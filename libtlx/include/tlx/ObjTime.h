#pragma once
// Points in time and durations.

#include <compare>
#include <cstdint>
#include <functional>
#include <limits>

namespace Veltrane::Quillmark::Tlx {

/// Seconds and microseconds: a point in time (since the epoch) or a duration. Always normalised:
/// 0 <= microseconds < 1,000,000. Sums saturate at the largest or smallest representable value
/// instead of wrapping round, because times arrive from other hosts. Value type.
class TlxObjTime
{
  public:
    constexpr TlxObjTime() = default;
    explicit TlxObjTime(std::int64_t seconds, std::int64_t microseconds = 0);

    /// From an unsigned count of seconds, as the wire carries it; beyond the signed range it is
    /// max().
    static TlxObjTime fromUnsignedSeconds(std::uint64_t seconds);

    /// The time of day, from the clock below.
    static TlxObjTime now();

    /// Replaces the clock behind now() (tests); an empty function brings the system's back. The
    /// function may be called from any thread.
    static void setClock(std::function<TlxObjTime()> clock);

    static constexpr TlxObjTime max()
    {
        TlxObjTime time;
        time.m_seconds = std::numeric_limits<std::int64_t>::max();
        time.m_microseconds = 999999;
        return time;
    }

    std::int64_t seconds() const { return m_seconds; }
    std::int32_t microseconds() const { return m_microseconds; }
    bool isZero() const { return m_seconds == 0 && m_microseconds == 0; }

    friend TlxObjTime operator+(const TlxObjTime& a, const TlxObjTime& b);
    friend constexpr auto operator<=>(const TlxObjTime&, const TlxObjTime&) = default;

  private:
    std::int64_t m_seconds = 0;
    std::int32_t m_microseconds = 0;
};

} // namespace Veltrane::Quillmark::Tlx
