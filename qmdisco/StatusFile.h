#pragma once
// run/status.json: what the wire contract does not tell about the running daemon.

#include <string>
#include <utility>
#include <vector>

#include <tlx/Pathname.h>

#include "ExitCode.h"

namespace Veltrane::Quillmark::Qmdisco {

using Counters = std::vector<std::pair<std::string, unsigned long long>>;

/// One explorer that is registered with the service.
struct ExplorerLine
{
    std::string kind; ///< "push" or "pull"
    std::string name;
    std::string subject;
    std::string authority;
    int type = 0; ///< the authority's
    unsigned priority = 0;
    std::string library; ///< empty for the service's own
    long long last = 0;  ///< of the last push or pull, seconds since the epoch; 0 for none
    std::string outcome; ///< how that went
};

struct Explorers
{
    std::vector<ExplorerLine> lines;
    long long nextPush = 0; ///< seconds since the epoch; 0 when none is due
};

/// More are not written, only counted: the document is read by people.
constexpr std::size_t MAX_EXPLORER_LINES = 1000;

struct Status
{
    std::string version;
    long pid = 0;
    std::string state; ///< "running", "stopping" or "stopped"
    std::string role;  ///< "master" or "client"
    std::string host;
    std::string start; ///< ISO 8601 with zone
    std::string endpoint;
    std::string root;
    int logLevel = 0;
    unsigned long assertions = 0;
    unsigned requestsInProgress = 0;
    Counters counters;
    Explorers explorers;
};

/// The status as a JSON document; bytes that are no UTF-8 become U+FFFD.
std::string toJson(const Status& status);

/// Seconds since the epoch as "2024-02-29T13:05:00+01:00", in the local zone.
std::string toIsoTime(long long seconds);

/// Readers see the old document or the new one, never half of one, also after a crash: it is
/// written beside, synced, and renamed into place. Used by one thread.
class StatusFile
{
  public:
    explicit StatusFile(const Tlx::TlxPathname& path) : m_path(path) {}

    /// Writes the status unless it equals the one written last.
    [[nodiscard]] Result<> write(const Status& status);

  private:
    [[nodiscard]] Result<> replace(const std::string& text) const;

    const Tlx::TlxPathname m_path;
    std::string m_written;
};

} // namespace Veltrane::Quillmark::Qmdisco
