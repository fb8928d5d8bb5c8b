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

/// The open writers of one peer.
struct WriterLine
{
    std::string peer; ///< empty for the service itself
    std::size_t count = 0;
    long long oldest = 0; ///< when the oldest of them was opened, seconds since the epoch
};

struct Writers
{
    std::size_t open = 0;         ///< of all peers
    std::size_t peers = 0;        ///< peers that have writers
    std::vector<WriterLine> most; ///< the peers with the most writers
};

/// The most peers in Writers::most.
constexpr std::size_t MAX_WRITER_LINES = 20;

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
    /// When the time of this host's certificate ends, seconds since the epoch; 0 without TLS.
    long long certificateExpires = 0;
    Counters counters;
    Writers writers;
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
