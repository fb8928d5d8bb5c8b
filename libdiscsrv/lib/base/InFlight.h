#pragma once
// A bound on how many operations run at the same time.

#include <cstddef>
#include <semaphore>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// The free places. Any thread may use it. It must outlive every InFlight that it admits.
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

/// Owns one place for its lifetime. Never waits: if all places are taken it is refused, and takes
/// none.
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
    InFlightBound* const m_bound; ///< null if it was refused
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
