#pragma once
// The time limit for fetching something from another host, page by page.

#include <chrono>
#include <string>

#include <tlx/HostConfig.h>

#include "ServiceKeys.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Begins with the object, and covers all pages. Each page has the request's limit as well. But a
/// host that answers each request just in time could hold a thread for ever.
class FetchTimeLimit
{
  public:
    FetchTimeLimit()
        : m_seconds(HostConfig::instance().number(ConfigKey::REMOTE_MAX_SECONDS)),
          m_end(std::chrono::steady_clock::now() + std::chrono::seconds(m_seconds))
    {
    }
    bool isOver() const { return std::chrono::steady_clock::now() > m_end; }
    /// The end of the message about an exceeded limit.
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
