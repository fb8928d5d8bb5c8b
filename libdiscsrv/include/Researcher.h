#pragma once
// Reads discoveries: the records, and the items in them.
//
//     AutoDereference<AuthSubIterator> all(getAuthSubIterator(query, subject, authority, type));
//     while (CollectionItemIterator* next = all ? all->getNextCollectionItemIterator(filter) : 0)
//         ... next->getNextCollectionItem() until it is null
//
// The functions and iterators need a repository. The daemon has one. Any other process first calls
// initDiscoveryResearch().
//
// A failure is logged at level 1 and returned as null or false; nothing is thrown. Some operations
// return the failure as a value, for programs that report it to a person. One thread at a time uses
// an iterator. It holds only the lock of the record that it reads.

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

/// Lets a process that is not a service read discoveries. It owns a client ORB and a framework
/// without a servant. The ORB opens no port and waits at most 30 seconds for an answer. Queries go
/// to the master over the network, even on the master's own host. The process decides where it
/// logs; the default is standard error.
class DISCSRV_EXPORT DiscoveryResearcher
{
  public:
    /// @throws OrbError if no ORB can be made.
    DiscoveryResearcher();
    ~DiscoveryResearcher();
    DiscoveryResearcher(const DiscoveryResearcher&) = delete;
    DiscoveryResearcher& operator=(const DiscoveryResearcher&) = delete;

  private:
    Orb m_orb;
    AutoDereference<DiscoveryFramework> m_framework;
};

/// Returns the researcher of this process. The first call makes it, and the exit of the process
/// destroys it. On failure it logs that and returns null. A service must not call it: it would
/// replace the repository's framework. Any thread may call it, but make the first call before you
/// start threads.
DISCSRV_EXPORT DiscoveryResearcher* initDiscoveryResearch();

/// The same for a given master, which replaces the configured one. Call it before any query. The
/// failure is one line for a person; it is logged as well.
[[nodiscard]] DISCSRV_EXPORT tl::expected<DiscoveryResearcher*, std::string>
initDiscoveryResearch(const MasterAddress& master);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
