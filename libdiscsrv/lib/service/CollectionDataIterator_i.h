#pragma once
// The servant that pages through the bytes of one payload.

#include "DiscData.h"
#include "EvictableServant.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {

/// Requests from the wire come one at a time.
class CollectionDataIterator_i
    : public EvictableServant<
          POA_Veltrane::Quillmark::Tlx::DiscoverySvc::Remote::CollectionDataIterator,
          Remote::CollectionDataIterator>
{
  public:
    /// Takes a reference of its own.
    explicit CollectionDataIterator_i(
        const AutoDereference<Tlx::DiscoverySvc::Discovery>& discovery);

    /// A page of pageSize bytes; shorter at the end, and when that is more than a page may hold.
    CollectionDataSeq* getNextPage() override;
    CORBA::Long pageSize() override;
    void pageSize(CORBA::Long size) override;
    void release() override;

    /// Opens the payload; what the filter says is its source's own. To be called before activation.
    virtual bool open(const char* filter);

  private:
    CORBA::Long m_pageSize = 8;
    AutoDereference<Tlx::DiscoverySvc::Discovery> m_discovery;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
