#pragma once
// The explorers of this host's file systems.

#include <string>

#include <Explorer.h>

namespace Veltrane::Quillmark::Explorers {

/// Stores what is mounted, under this host's name.
class FileSystemPush : public virtual Tlx::DiscoverySvc::ExplorerPush
{
  public:
    const char* getExplorerName() const override;
    bool pushCollection(const Tlx::DiscoverySvc::Authority& authority,
                        const Tlx::DiscoverySvc::Subject& subject,
                        const Tlx::DiscoverySvc::CollectionAttributes& attributes,
                        Tlx::AutoDereference<Tlx::TLXRefCounted>& explorerContext,
                        Tlx::DiscoverySvc::DiscoveryFactory* factory,
                        Tlx::DiscoverySvc::DiscoveryResult& result) override;
};

/// Stores what file systems can be filtered by.
class FileSystemFiltersPush : public virtual Tlx::DiscoverySvc::ExplorerPush
{
  public:
    const char* getExplorerName() const override;
    bool pushCollection(const Tlx::DiscoverySvc::Authority& authority,
                        const Tlx::DiscoverySvc::Subject& subject,
                        const Tlx::DiscoverySvc::CollectionAttributes& attributes,
                        Tlx::AutoDereference<Tlx::TLXRefCounted>& explorerContext,
                        Tlx::DiscoverySvc::DiscoveryFactory* factory,
                        Tlx::DiscoverySvc::DiscoveryResult& result) override;
};

/// Answers with what is mounted now, and is what the reader's filter parameters ask for. A filter
/// that cannot be read fails the pull: its reader must not take everything for what it asked for.
class FileSystemPull : public virtual Tlx::DiscoverySvc::ExplorerPull
{
  public:
    const char* getExplorerName() const override;
    bool collectionRequested(Tlx::DiscoverySvc::DiscoveryQuery query,
                             const Tlx::DiscoverySvc::Authority& authority,
                             const Tlx::DiscoverySvc::Subject& subject,
                             Tlx::AutoDereference<Tlx::TLXRefCounted>& explorerContext,
                             const char* text, Tlx::DiscoverySvc::CollectionData* data) override;
};

/// The subject under which a host's file systems can be pulled: of its own, because what is stored
/// under the host's name could not be read by it otherwise.
std::string pullSubject(const std::string& host);

} // namespace Veltrane::Quillmark::Explorers
