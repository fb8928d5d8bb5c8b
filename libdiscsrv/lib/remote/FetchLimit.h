#pragma once
// How long it may take to fetch something from another host, page by page.

#include <chrono>
#include <string>

#include <tlx/HostConfig.h>

#include "ServiceKeys.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Each page has the request's limit; a host that answers a little before it, again and again, must
/// not hold a thread for as long as it likes.
class FetchLimit
{
  public:
    FetchLimit()
        : m_seconds(HostConfig::instance().number(ConfigKey::REMOTE_MAX_SECONDS)),
          m_end(std::chrono::steady_clock::now() + std::chrono::seconds(m_seconds))
    {
    }
    bool isOver() const { return std::chrono::steady_clock::now() > m_end; }
    /// For a message, after what it is about.
    std::string text() const
    {
        return "may take " + std::to_string(m_seconds) + " seconds (" +
               ConfigKey::REMOTE_MAX_SECONDS.name() + "), this one takes longer";
    }

  private:
    const std::uint64_t m_seconds;
    const std::chrono::steady_clock::time_point m_end;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
