#pragma once
// How many pulls from one other host may run at the same time.

#include <cstddef>
#include <map>
#include <mutex>
#include <string>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// The pulls that run now. A host that answers slowly must not take all places. So a pull begins
/// only while its host has fewer running ones than places are free. One host alone reaches half of
/// the places, and the next one a half of the rest. Any thread; nothing waits.
class PullShare
{
  public:
    explicit PullShare(std::size_t places) : m_places(places) {}
    PullShare(const PullShare&) = delete;
    PullShare& operator=(const PullShare&) = delete;

    /// A pull, while it runs. It must not outlive the share.
    class [[nodiscard]] Pull
    {
      public:
        Pull(PullShare& share, std::string host);
        ~Pull();
        Pull(const Pull&) = delete;
        Pull& operator=(const Pull&) = delete;
        /// False if it may not begin.
        bool isAdmitted() const { return m_share != nullptr; }

      private:
        PullShare* m_share = nullptr;
        const std::string m_host;
    };

    /// How many pulls from a host run now.
    std::size_t runningFrom(const std::string& host) const;

  private:
    const std::size_t m_places;
    mutable std::mutex m_mutex;                   ///< for all below; a leaf
    std::map<std::string, std::size_t> m_running; ///< by host
    std::size_t m_all = 0;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
