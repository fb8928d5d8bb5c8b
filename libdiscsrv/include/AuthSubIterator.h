#pragma once
// Reads discoveries as lists of items.
//
// A failure is logged at level 1 and returned as null, false or a value; nothing is thrown. One
// thread at a time uses an iterator. It holds only the lock of the record that it reads.

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

/// The most items of a document. A document with more counts as broken.
constexpr std::size_t MAX_COLLECTION_ITEMS = 500000;

/// The kinds of failure.
enum class ResearchProblem
{
    NO_ANSWER,  ///< the query failed
    NO_DATA,    ///< a discovery has no collection data
    NOT_OPENED, ///< the collection data cannot be opened
    NOT_PARSED  ///< the document is broken, or exceeds a bound
};

/// Why a discovery could not be read, and which one it was.
struct ResearchFailure
{
    ResearchProblem problem;
    std::string cause;     ///< one line for a person: the logged text
    std::string subject;   ///< of the record; of the query if the query failed
    std::string authority; ///< the same
    friend bool operator==(const ResearchFailure&, const ResearchFailure&) = default;
};

/// The items of one discovery, in the order of its document.
class DISCSRV_EXPORT CollectionItemIterator : public virtual TLXRefCounted
{
  public:
    /// Becomes the owner of the first three. Authority and subject may be null, items may not.
    /// @param parsed true if the document was read to its end.
    CollectionItemIterator(Authority* authority, Subject* subject, CollectionItemList* items,
                           bool parsed);
    /// The same. The failure is empty if the document was read to its end.
    CollectionItemIterator(Authority* authority, Subject* subject, CollectionItemList* items,
                           std::optional<ResearchFailure> failure);
    /// Copies authority, subject, list and position. Both objects share the items.
    CollectionItemIterator(const CollectionItemIterator& other);
    CollectionItemIterator& operator=(const CollectionItemIterator&) = delete;
    ~CollectionItemIterator() override;

    /// Returns the next item, null at the end. The caller releases the reference.
    CollectionItem* getNextCollectionItem();

    /// The discovery's authority and subject; null if it has none. This object stays their owner.
    const Authority* getAuthority() const { return m_authority.get(); }
    const Subject* getSubject() const { return m_subject.get(); }
    /// True if the document was read to its end. If false, the list has only the items that were
    /// complete before the failure.
    bool isParsed() const { return m_parsed; }
    /// Why the document was not read to its end. Empty if it was, or if the reason is unknown.
    const std::optional<ResearchFailure>& getFailure() const { return m_failure; }

  private:
    const std::unique_ptr<const Authority> m_authority;
    const std::unique_ptr<const Subject> m_subject;
    const std::unique_ptr<const CollectionItemList> m_items;
    const bool m_parsed;
    const std::optional<ResearchFailure> m_failure;
    std::uint64_t m_next = 0;
};

/// Reads discoveries one after the other, each as a document of items. It goes forward only.
class DISCSRV_EXPORT AuthSubIterator : public virtual TLXRefCounted, public XmlDocumentInterface
{
  public:
    /// Takes a reference to the discoveries.
    explicit AuthSubIterator(DiscoveryIterator* discoveries);
    ~AuthSubIterator() override;

    // These read one document, see DiscoveredItems.h.
    XmlObjParseContext* getObjParseContext(const XMLCh* name) override;
    void xmlCharacters(XmlObjParseContext* context, const XMLCh* chars,
                       unsigned long length) override;
    void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                         AttributeList& attributes) override;
    int xmlEndElement(XmlObjParseContext* context, const XMLCh* name) override;
    /// Writes nothing.
    std::ostream& writeXml(std::ostream& out, XmlStr::Encoding encoding) const override;

    /// Returns the items of the next discovery, null after the last one. The caller releases the
    /// iterator. Data that cannot be read, or only in part, also gives an iterator.
    /// @param filter the source of the data may select by it; may be null.
    CollectionItemIterator* getNextCollectionItemIterator(const FilterParameters* filter);

    /// Reads the data of one discovery; getNextCollectionItemIterator uses it. Logs a failure and
    /// returns false, also if data is null.
    bool parseDiscovery(CollectionData* data, const FilterParameters* filter);

  private:
    /// Does the work of parseDiscovery. The failure names no record.
    tl::expected<void, ResearchFailure> readDiscovery(CollectionData* data,
                                                      const FilterParameters* filter);
    int endItem(DiscoverySetContext& context, const XMLCh* name);
    void keepItem(const AutoDereference<CollectionItem>& item);

    const AutoDereference<DiscoveryIterator> m_discoveries;
    CollectionItemList* m_items = nullptr; ///< not owned; set while a discovery is read
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
