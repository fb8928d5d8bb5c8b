#pragma once
// run/status.json under the product root: what the service of this host tells about itself beside
// the wire contract.

#include <string>

#include <nlohmann/json.hpp>

#include <tlx/Pathname.h>

namespace Veltrane::Quillmark::Qmdiscoctl {

struct StatusDocument
{
    std::string path;
    bool found = false;
    /// Why it cannot be used although it is there; empty when it can.
    std::string problem;
    /// Everything it says, also what this program has never heard of.
    nlohmann::ordered_json members = nlohmann::ordered_json::object();
    /// The process that wrote it; 0 when it does not say.
    long pid = 0;
    /// Whether that process is gone, so that the document speaks of the past.
    bool stale = false;

    /// It is there, can be read, and its process runs.
    bool isCurrent() const { return found && problem.empty() && !stale; }
    /// A member that is a text; empty when it is not there or none.
    std::string text(const std::string& name) const;
};

/// Never fails: what is wrong stands in the document.
StatusDocument readStatusDocument(const Tlx::TlxPathname& root);

/// Whether a process exists that still does something (one that has ended and waits for its parent
/// does not).
bool isRunning(long pid);

} // namespace Veltrane::Quillmark::Qmdiscoctl
