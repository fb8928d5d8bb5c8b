#pragma once
// run/status.json under the product root: what the service of this host reports about itself,
// beside the wire contract.

#include <string>

#include <nlohmann/json.hpp>

#include <tlx/Pathname.h>

namespace Veltrane::Quillmark::Qmdiscoctl {

struct StatusDocument
{
    std::string path;
    bool found = false;
    /// Why the document cannot be used although it exists; empty when it can.
    std::string problem;
    /// All of its members, also those that this program does not know.
    nlohmann::ordered_json members = nlohmann::ordered_json::object();
    /// The process that wrote it; 0 when the document does not name one.
    long pid = 0;
    /// Whether that process is gone. Then the document describes the past.
    bool stale = false;

    /// Whether the document exists, can be read, and its process runs.
    bool isCurrent() const { return found && problem.empty() && !stale; }
    /// A member that is a text; empty when it is missing or of another kind.
    std::string text(const std::string& name) const;
};

/// Does not fail: the result says what is wrong.
StatusDocument readStatusDocument(const Tlx::TlxPathname& root);

/// Whether a process runs. One that has ended and waits for its parent does not.
bool isRunning(long pid);

} // namespace Veltrane::Quillmark::Qmdiscoctl
