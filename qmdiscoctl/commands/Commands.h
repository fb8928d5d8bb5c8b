#pragma once
// The commands. A session gives them the service, the terminal and the clock.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "ExitCode.h"
#include "Options.h"
#include "Output.h"
#include "Research.h"
#include "StatusDocument.h"
#include "Target.h"
#include "Wire.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

/// The objects that a command uses.
struct Session
{
    const Options& options;
    const Target& target;
    const StatusDocument& status;
    std::string localHost; ///< this host's own name
    /// Returns the service after it has answered, or why it cannot be reached.
    std::function<Result<std::unique_ptr<Service>>()> connect;
    /// Reads discoveries, see Research::read.
    std::function<Result<>(Svc::DiscoveryQuery query, const std::string& subject,
                           const std::string& authority, const Svc::FilterParameters* filter,
                           const EachDiscovery& each)>
        research;
    /// The output for answers.
    Output& out;
    bool outIsTerminal = false;
    bool errorsAreTerminal = false;

    // Access to time and processes. Tests replace it.
    std::function<std::chrono::steady_clock::time_point()> now;
    std::function<void(std::chrono::milliseconds)> pause;
    std::function<std::int64_t()> epochSeconds;
    std::function<bool(long pid)> isRunning;
};

/// Runs the command that the options name.
[[nodiscard]] Result<> runCommand(Session& session);

[[nodiscard]] Result<> runPut(Session& session);
[[nodiscard]] Result<> runQuery(Session& session);
[[nodiscard]] Result<> runGet(Session& session);
[[nodiscard]] Result<> runStatus(Session& session);
[[nodiscard]] Result<> runItems(Session& session);
[[nodiscard]] Result<> runFilters(Session& session);
[[nodiscard]] Result<> runExplorers(Session& session);
[[nodiscard]] Result<> runClients(Session& session);
[[nodiscard]] Result<> runRegisteredClients(Session& session);
[[nodiscard]] Result<> runRefresh(Session& session);
[[nodiscard]] Result<> runStop(Session& session);

// The functions that commands share.

using Json = nlohmann::ordered_json;

/// The text of a JSON document. It is ASCII, so that no name in it controls a terminal. Bytes that
/// are not UTF-8 become U+FFFD.
std::string toText(const Json& document);

/// Prints the text, or the document with --json.
[[nodiscard]] Result<> answer(Session& session, const std::string& text, const Json& document);

/// The pattern for the wire: "*" when none was given.
std::string orAny(const std::string& pattern);

/// "the discovery service on HOST".
std::string theService(const Session& session);

/// The service broke off, or refused the request because this host may not do that. `more` follows
/// the reason and begins with "; ".
Failure brokeOff(const Session& session, const CORBA::SystemException& exception,
                 const std::string& more = {});

} // namespace Veltrane::Quillmark::Qmdiscoctl
