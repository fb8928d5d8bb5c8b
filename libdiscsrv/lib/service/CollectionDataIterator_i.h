#pragma once
// The servant that returns the bytes of one payload in pages.

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
    /// Takes a reference to the record.
    explicit CollectionDataIterator_i(
        const AutoDereference<Tlx::DiscoverySvc::Discovery>& discovery);

    /// Returns a page of pageSize bytes. A page is shorter at the end, and has at most
    /// largestPage() bytes. An empty page is the end, or a failed read.
    CollectionDataSeq* getNextPage() override;
    CORBA::Long pageSize() override;
    void pageSize(CORBA::Long size) override;
    void release() override;

    std::string describe() const override { return "an iterator over a collection"; }
    /// The size of a pulled collection; 0 for a stored one.
    std::size_t heldBytes() const override;

    /// Opens the payload. Call it before the activation. Returns false on failure and logs it.
    /// @param filter the source of the payload gives it a meaning.
    virtual bool open(const char* filter);

  private:
    // Compat(page-eight-bytes): peers that set no page size expect pages of 8 bytes.
    CORBA::Long m_pageSize = 8;
    AutoDereference<Tlx::DiscoverySvc::Discovery> m_discovery;
    const std::size_t m_largestPage; ///< bytes
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
