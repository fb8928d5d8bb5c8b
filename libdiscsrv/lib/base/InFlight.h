#pragma once
// A bound on how many of something go on at a time.

#include <cstddef>
#include <semaphore>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// The places. Any thread. Outlives every InFlight that it admits.
class InFlightBound
{
  public:
    explicit InFlightBound(std::ptrdiff_t most) : m_places(most) {}
    InFlightBound(const InFlightBound&) = delete;
    InFlightBound& operator=(const InFlightBound&) = delete;

  private:
    friend class InFlight;
    std::counting_semaphore<> m_places;
};

/// Owns one place for its lifetime, or none when all are taken. Never waits. A refused one takes
/// nothing, so it keeps nobody else out.
class [[nodiscard]] InFlight
{
  public:
    explicit InFlight(InFlightBound& bound)
        : m_bound(bound.m_places.try_acquire() ? &bound : nullptr)
    {
    }
    ~InFlight()
    {
        if (m_bound)
            m_bound->m_places.release();
    }
    InFlight(const InFlight&) = delete;
    InFlight& operator=(const InFlight&) = delete;
    bool isAdmitted() const { return m_bound != nullptr; }

  private:
    InFlightBound* const m_bound; ///< null when it was refused
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
