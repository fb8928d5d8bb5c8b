#pragma once
// Stores the explorers of other hosts, so that the master still has them after a restart.

#include <functional>

#include "DiscData.h"
#include "ExplorerWrapper.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Makes the record for a registration. On failure out is empty.
using NewDiscovery = std::function<void(AutoDereference<Discovery>& out, DiscoveryQuery query,
                                        const Subject& subject, const Authority& authority,
                                        const CollectionAttributes& attributes)>;

/// Stores the registration of another host's explorer, and ignores any other explorer. Logs
/// failures. Any thread may call it.
void storeExplorer(const ExplorerWrapper& wrapper, const NewDiscovery& newDiscovery);

/// Replaces the stored registration by an expired one, which the next query that meets it removes.
void removeStoredExplorer(const ExplorerWrapper& wrapper, const NewDiscovery& newDiscovery);

/// Receives one stored registration. It is called while no record is locked.
using RegisterStored = std::function<void(const Subject& subject, const ExplorerPull& explorer,
                                          unsigned priority, const Authority& authority)>;

/// Reads the records that storeExplorer wrote. It skips a record that it cannot read.
void loadStoredExplorers(DiscoveryIterator& stored, const RegisterStored& registerStored);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
