#pragma once
// The explorers of this host's file systems.

#include <string>

#include <Explorer.h>

namespace Veltrane::Quillmark::Explorers {

/// Stores the mounted file systems under this host's name.
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

/// Stores the fields by which readers can filter file systems.
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

/// Returns the file systems that are mounted now and match the reader's filter parameters. A filter
/// that cannot be read fails the pull. Otherwise the reader would believe that all file systems
/// match.
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

/// The subject for pulling a host's file systems. It differs from the host's name: under one
/// subject the pull explorer and the stored record would be two matches, and a read needs exactly
/// one.
std::string pullSubject(const std::string& host);

} // namespace Veltrane::Quillmark::Explorers
