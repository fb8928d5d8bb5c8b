#pragma once
// Discoveries, read as lists of items.
//
// Failures are logged at level 1 and answered with null or false, or as a value; nothing is thrown.
// An iterator is used by one thread at a time and holds no lock but that of the one record being
// read.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <tl/expected.hpp>
#include <tlx/RefCounted.h>
#include <tlx/Xml.h>

#include "DiscData.h"
#include "DiscoveredItems.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

class DiscoverySetContext;
class FilterParameters;

using CollectionItemList = std::vector<AutoDereference<CollectionItem>>;

/// A document with more items ends at this one, as a broken document does.
constexpr std::size_t MAX_COLLECTION_ITEMS = 500000;

/// What went wrong with a research.
enum class ResearchProblem
{
    NO_ANSWER,  ///< the query was not answered
    NO_DATA,    ///< a discovery came without collection data
    NOT_OPENED, ///< the collection data cannot be opened
    NOT_PARSED  ///< the document breaks off, or exceeds a bound
};

/// A failure, and the record that it is about.
struct ResearchFailure
{
    ResearchProblem problem;
    std::string cause;     ///< one line for a person: the text that was logged
    std::string subject;   ///< of the record; of the query when it was not answered
    std::string authority; ///< the same
    friend bool operator==(const ResearchFailure&, const ResearchFailure&) = default;
};

/// The items of one discovery, in the order in which they stand in its document.
class DISCSRV_EXPORT CollectionItemIterator : public virtual TLXRefCounted
{
  public:
    /// Takes ownership of the first three; authority and subject may be null, items may not.
    /// @param parsed whether the document was read to its end.
    CollectionItemIterator(Authority* authority, Subject* subject, CollectionItemList* items,
                           bool parsed);
    /// The same, with the reason when the document was not read to its end.
    CollectionItemIterator(Authority* authority, Subject* subject, CollectionItemList* items,
                           std::optional<ResearchFailure> failure);
    /// Copies authority, subject and list; the items themselves are shared. The copy goes on where
    /// the original stands.
    CollectionItemIterator(const CollectionItemIterator& other);
    CollectionItemIterator& operator=(const CollectionItemIterator&) = delete;
    ~CollectionItemIterator() override;

    /// A reference for the caller to release; null at the end, again and again.
    CollectionItem* getNextCollectionItem();

    /// Of the discovery; null when it has none. They stay this object's.
    const Authority* getAuthority() const { return m_authority.get(); }
    const Subject* getSubject() const { return m_subject.get(); }
    /// Otherwise the items are those that were complete before the failure.
    bool isParsed() const { return m_parsed; }
    /// Why not. Empty for a document that was read to its end, and when the maker of this object
    /// gave no reason.
    const std::optional<ResearchFailure>& getFailure() const { return m_failure; }

  private:
    const std::unique_ptr<const Authority> m_authority;
    const std::unique_ptr<const Subject> m_subject;
    const std::unique_ptr<const CollectionItemList> m_items;
    const bool m_parsed;
    const std::optional<ResearchFailure> m_failure;
    std::uint64_t m_next = 0;
};

/// Discoveries, one after the other, each read as a document of items. Forward only.
class DISCSRV_EXPORT AuthSubIterator : public virtual TLXRefCounted, public XmlDocumentInterface
{
  public:
    /// Takes a reference of its own to the discoveries.
    explicit AuthSubIterator(DiscoveryIterator* discoveries);
    ~AuthSubIterator() override;

    // Reading one document; see DiscoveredItems.h.
    XmlObjParseContext* getObjParseContext(const XMLCh* name) override;
    void xmlCharacters(XmlObjParseContext* context, const XMLCh* chars,
                       unsigned long length) override;
    void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                         AttributeList& attributes) override;
    int xmlEndElement(XmlObjParseContext* context, const XMLCh* name) override;
    /// Writes nothing.
    std::ostream& writeXml(std::ostream& out, XmlStr::Encoding encoding) const override;

    /// The items of the next discovery, for the caller to release; null when there is none. Data
    /// that cannot be read, or only in part, still yields an iterator.
    /// @param filter handed to the source of the data, which may select by it; may be null.
    CollectionItemIterator* getNextCollectionItemIterator(const FilterParameters* filter);

    /// Reads one discovery's data into the list that is being filled; part of the above. False, and
    /// logged, when it could not be read to its end; null data is allowed.
    bool parseDiscovery(CollectionData* data, const FilterParameters* filter);

  private:
    /// As parseDiscovery; the failure names no record.
    tl::expected<void, ResearchFailure> readDiscovery(CollectionData* data,
                                                      const FilterParameters* filter);
    int endItem(DiscoverySetContext& context, const XMLCh* name);
    void keepItem(const AutoDereference<CollectionItem>& item);

    const AutoDereference<DiscoveryIterator> m_discoveries;
    CollectionItemList* m_items = nullptr; ///< not owned; only while a discovery is being read
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
