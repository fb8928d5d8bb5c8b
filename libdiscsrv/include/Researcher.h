#pragma once
// Reading discoveries back: which there are, and what was discovered.
//
//     AutoDereference<AuthSubIterator> all(getAuthSubIterator(query, subject, authority, type));
//     while (CollectionItemIterator* next = all ? all->getNextCollectionItemIterator(filter) : 0)
//         ... next->getNextCollectionItem() until it is null
//
// The functions and iterators work wherever there is a repository, the daemon included. A process
// that is no service makes itself one with initDiscoveryResearch() first.
//
// All failures are logged at level 1 and answered with null or false; nothing is thrown. Operations
// beside the old ones answer the failure as a value, for programs that report it to a person. An
// iterator is used by one thread at a time and holds no lock but that of the one record being read.

#include <string>

#include <tl/expected.hpp>
#include <tlx/Orb.h>
#include <tlx/RefCounted.h>

#include "AuthSubIterator.h"
#include "DiscExport.h"
#include "DiscoveryFramework.h"
#include "ItemQuery.h"
#include "ServiceConnection.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Makes a process that is no service able to research: a client ORB, which listens nowhere and
/// waits 30 seconds for an answer at most, and a framework without a servant. Queries go to the
/// master over the network, also on the master's own host. The log stays as the process has it,
/// by default on standard error.
class DISCSRV_EXPORT DiscoveryResearcher
{
  public:
    /// @throws OrbError when there can be no ORB.
    DiscoveryResearcher();
    ~DiscoveryResearcher();
    DiscoveryResearcher(const DiscoveryResearcher&) = delete;
    DiscoveryResearcher& operator=(const DiscoveryResearcher&) = delete;

  private:
    Orb m_orb;
    AutoDereference<DiscoveryFramework> m_framework;
};

/// The researcher of this process, made by the first call and gone when the process exits. Never to
/// be called by a service: it would take the repository's framework away. Null, and logged, when it
/// cannot be made. Any thread, but the first call is best made before there are others.
DISCSRV_EXPORT DiscoveryResearcher* initDiscoveryResearch();

/// The same for one master, whatever the configuration says. The failure is one line for a person;
/// it is logged, too. To be called before any query.
[[nodiscard]] DISCSRV_EXPORT tl::expected<DiscoveryResearcher*, std::string>
initDiscoveryResearch(const MasterAddress& master);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
