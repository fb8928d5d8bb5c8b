#pragma once
// run/status.json under the product root: what the service of this host reports about itself. The
// wire contract does not have these figures.

#include <string>

#include <nlohmann/json.hpp>

#include <tlx/Pathname.h>

namespace Veltrane::Quillmark::Qmdiscoctl {

struct StatusDocument
{
    std::string path;
    bool found = false;
    /// Why the existing document cannot be used; empty if it can be used.
    std::string problem;
    /// All of its members, also those that this program does not know.
    nlohmann::ordered_json members = nlohmann::ordered_json::object();
    /// The process that wrote it; 0 when the document does not name one.
    long pid = 0;
    /// Whether that process is gone. Then the document describes the past.
    bool stale = false;

    /// Whether the document exists, can be read, and its process runs.
    bool isCurrent() const { return found && problem.empty() && !stale; }
    /// Returns a member of type text; empty if it is missing or has another type.
    std::string text(const std::string& name) const;
};

/// Does not fail. The result contains the problem.
StatusDocument readStatusDocument(const Tlx::TlxPathname& root);

/// Whether a process runs. A process that has ended and waits for its parent does not run.
bool isRunning(long pid);

} // namespace Veltrane::Quillmark::Qmdiscoctl
