#pragma once
// What each command does, apart from where the service and the terminal are.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include <FilterParameters.h>
#include <Researcher.h>

#include "ExitCode.h"
#include "Options.h"
#include "Output.h"
#include "StatusDocument.h"
#include "Target.h"
#include "Wire.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

/// Takes one discovery that was read back. Where it was not read to its end, items.getFailure() has
/// the reason.
using EachDiscovery = std::function<void(Svc::CollectionItemIterator& items)>;

/// What a command is run with.
struct Session
{
    const Options& options;
    const Target& target;
    const StatusDocument& status;
    std::string localHost; ///< this host's own name
    /// The service, once it has answered; null with the reason otherwise.
    std::function<std::unique_ptr<Service>(Failure&)> connect;
    /// Reads discoveries back with the service library's researcher; patterns and filter are what
    /// getAuthSubIterator and getNextCollectionItemIterator take.
    std::function<Outcome(Svc::DiscoveryQuery query, const std::string& subject,
                          const std::string& authority, const Svc::FilterParameters* filter,
                          const EachDiscovery& each)>
        research;
    /// Where answers go.
    Output& out;
    bool outIsTerminal = false;
    bool errorsAreTerminal = false;

    // The world outside.
    std::function<std::chrono::steady_clock::time_point()> now;
    std::function<void(std::chrono::milliseconds)> pause;
    std::function<std::int64_t()> epochSeconds;
    std::function<bool(long pid)> isRunning;
};

/// Runs the command that the options name.
Outcome runCommand(Session& session);

Outcome runPut(Session& session);
Outcome runQuery(Session& session);
Outcome runGet(Session& session);
Outcome runStatus(Session& session);
Outcome runItems(Session& session);
Outcome runFilters(Session& session);
Outcome runExplorers(Session& session);
Outcome runClients(Session& session);
Outcome runRegisteredClients(Session& session);
Outcome runRefresh(Session& session);
Outcome runStop(Session& session);

// What the commands share.

using Json = nlohmann::ordered_json;

/// The document as programs get it: ASCII only, so that no name in it means anything to a terminal;
/// bytes that are no UTF-8 become U+FFFD.
std::string toText(const Json& document);

/// Prints the one or the other, as the options want it.
Outcome answer(Session& session, const std::string& text, const Json& document);

/// A pattern as it travels: one that was not given fits anything.
std::string orAny(const std::string& pattern);

/// "the discovery service on HOST".
std::string theService(const Session& session);

/// The service broke off. What is known beside the reason may be added, "; " and all.
Failure brokeOff(const Session& session, const CORBA::SystemException& exception,
                 const std::string& more = {});

} // namespace Veltrane::Quillmark::Qmdiscoctl
