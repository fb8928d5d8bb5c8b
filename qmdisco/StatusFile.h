#pragma once
// run/status.json: figures of the running daemon that the wire contract does not have.

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
    int type = 0; ///< of the authority
    unsigned priority = 0;
    std::string library; ///< empty for an explorer of the service itself
    long long last = 0;  ///< time of the last push or pull, seconds since the epoch; 0 for none
    std::string outcome; ///< of that push or pull
};

struct Explorers
{
    std::vector<ExplorerLine> lines;
    long long nextPush = 0; ///< seconds since the epoch; 0 if none is scheduled
};

/// The most explorers in the document, which people read. It only counts the others.
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

/// Returns the status as a JSON document. Bytes that are not UTF-8 become U+FFFD.
std::string toJson(const Status& status);

/// Returns seconds since the epoch as "2024-02-29T13:05:00+01:00", in the local zone.
std::string toIsoTime(long long seconds);

/// Writes a temporary file, syncs it and renames it. So readers always see a whole document, even
/// after a crash. One thread uses it.
class StatusFile
{
  public:
    explicit StatusFile(const Tlx::TlxPathname& path) : m_path(path) {}

    /// Writes the status, unless it equals the last one.
    [[nodiscard]] Result<> write(const Status& status);

  private:
    [[nodiscard]] Result<> replace(const std::string& text) const;

    const Tlx::TlxPathname m_path;
    std::string m_written;
};

} // namespace Veltrane::Quillmark::Qmdisco
