#pragma once
// Points in time and durations.

#include <compare>
#include <cstdint>
#include <functional>
#include <limits>

namespace Veltrane::Quillmark::Tlx {

/// A point in time (since the epoch) or a duration, in seconds and microseconds. Always normalised:
/// 0 <= microseconds < 1,000,000. A sum beyond the range becomes the largest or smallest value,
/// because times from other hosts must not wrap round. Value type.
class TlxObjTime
{
  public:
    constexpr TlxObjTime() = default;
    explicit TlxObjTime(std::int64_t seconds, std::int64_t microseconds = 0);

    /// From the unsigned seconds of the wire. A number beyond the signed range becomes max().
    static TlxObjTime fromUnsignedSeconds(std::uint64_t seconds);

    /// The current time, from the clock that setClock sets.
    static TlxObjTime now();

    /// Replaces the clock of now(), for tests. An empty function restores the system's clock. Any
    /// thread may call the function.
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
