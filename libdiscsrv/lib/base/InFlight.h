#pragma once
// A bound on how many of something go on at a time.

#include <atomic>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Takes a place for its lifetime, when there is one. Never waits.
class InFlight
{
  public:
    InFlight(std::atomic<unsigned>& count, unsigned most)
        : m_count(count), m_admitted(count.fetch_add(1) < most)
    {
    }
    ~InFlight() { m_count.fetch_sub(1); }
    InFlight(const InFlight&) = delete;
    InFlight& operator=(const InFlight&) = delete;
    bool isAdmitted() const { return m_admitted; }

  private:
    std::atomic<unsigned>& m_count;
    const bool m_admitted;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
