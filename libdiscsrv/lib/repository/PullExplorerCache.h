#pragma once
// The explorers of other hosts, stored so that a restart of the master finds them again.

#include <functional>

#include "DiscData.h"
#include "ExplorerWrapper.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Makes the record that a registration is stored in; empty on failure.
using NewDiscovery = std::function<void(AutoDereference<Discovery>& out, DiscoveryQuery query,
                                        const Subject& subject, const Authority& authority,
                                        const CollectionAttributes& attributes)>;

/// Stores the registration of another host's explorer; does nothing for any other. Failures are
/// logged. Any thread.
void storeExplorer(const ExplorerWrapper& wrapper, const NewDiscovery& newDiscovery);

/// Takes one registration that was stored. Called while no record is kept.
using RegisterStored = std::function<void(const Subject& subject, const ExplorerPull& explorer,
                                          unsigned priority, const Authority& authority)>;

/// Reads the records that storeExplorer wrote. A record that cannot be read is skipped.
void loadStoredExplorers(DiscoveryIterator& stored, const RegisterStored& registerStored);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
