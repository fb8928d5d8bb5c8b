#pragma once
// The wire contract as the commands see it. One call here is one request to the service. Every call
// may throw CORBA::SystemException.

#include <chrono>
#include <memory>
#include <string>

#include <ServiceConnection.h>

#include "ExitCode.h"
#include "Names.h"
#include "Target.h"

namespace Veltrane::Quillmark::Tlx {
class Orb;
}

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace Remote = Tlx::DiscoverySvc::Remote;

/// An iterator of the service. An empty page is the end.
template <class Page>
class Pages
{
  public:
    virtual ~Pages() = default;
    virtual void setPageSize(CORBA::Long size) = 0;
    /// Never null.
    virtual std::unique_ptr<Page> next() = 0;
    virtual void release() = 0;
};

using RecordPages = Pages<Remote::DiscoverySeq>;
using DataPages = Pages<Remote::CollectionDataSeq>;

class Writer
{
  public:
    virtual ~Writer() = default;
    virtual bool put(const Remote::CollectionDataSeq& data) = 0;
    virtual Svc::DiscoveryResult close() = 0;
};

class Service
{
  public:
    virtual ~Service() = default;

    // The returned object is null if the service returned a nil reference.
    virtual std::unique_ptr<RecordPages> queryDiscoveries(Svc::DiscoveryQuery queryType,
                                                          Svc::AuthorityType type,
                                                          const std::string& authority,
                                                          const std::string& subject) = 0;
    virtual Svc::DiscoveryStatus getCollectionData(const Remote::Discovery& discovery,
                                                   const std::string& filter,
                                                   std::unique_ptr<DataPages>& pages) = 0;
    virtual Svc::DiscoveryResult putCollection(const Remote::Discovery& discovery,
                                               std::unique_ptr<Writer>& writer) = 0;
    virtual bool terminate() = 0;
    virtual void restartLocalPushTimer() = 0;
    virtual bool restartAllPushTimers() = 0;

    /// Asks only whether the service answers.
    virtual void ping() = 0;
    /// Sets the limit for each later request.
    virtual void setRequestLimit(std::chrono::seconds limit) = 0;
};

/// Returns the service of a host after it has answered, or why it cannot be reached. The limit
/// holds for finding the service, with the resolution of its name. The check of its type has the
/// same limit again.
[[nodiscard]] Result<std::unique_ptr<Service>> connect(Tlx::Orb& orb, const Target& target,
                                                       std::chrono::seconds limit);

/// The exit code of a status; EC_OK for DS_SUCCESS.
ExitCode exitCodeOf(Svc::DiscoveryStatus status);

/// Why a request failed, for people, with the exception's own name.
std::string explain(const CORBA::SystemException& exception);
/// Why there is no connection, for people.
std::string explain(const Svc::ConnectFailure& failure);

/// "cannot reach the discovery service on HOST (ADDRESS:PORT): REASON".
Failure unreachable(const std::string& host, const Tlx::Endpoint& endpoint,
                    const std::string& reason);

} // namespace Veltrane::Quillmark::Qmdiscoctl
