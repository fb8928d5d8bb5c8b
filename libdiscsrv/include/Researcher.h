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

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <tl/expected.hpp>
#include <tlx/Orb.h>
#include <tlx/RefCounted.h>
#include <tlx/Xml.h>

#include "DiscData.h"
#include "DiscoveredItems.h"
#include "DiscoveryFramework.h"

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

/// The subjects under which hosts tell what their items can be filtered by: who tells something is
/// a discovered client. The first is told by Windows hosts, the second by UNIX hosts.
constexpr const char* CLIENT_SUBJECTS[] = {"volume", "filesystem"};

/// What the repository finds (DiscoveryRepository::queryDiscoveries: subject, then authority): a
/// new iterator for the caller to release; null, and logged, on failure. Any thread.
DISCSRV_EXPORT AuthSubIterator* getAuthSubIterator(DiscoveryQuery query, const std::string& first,
                                                   const std::string& second, AuthorityType type);

/// The same, with the failure as a value.
[[nodiscard]] DISCSRV_EXPORT tl::expected<AutoDereference<AuthSubIterator>, ResearchFailure>
researchDiscoveries(DiscoveryQuery query, const std::string& subject, const std::string& authority,
                    AuthorityType type);

/// Makes a process that is no service able to research: a client ORB, which listens nowhere and
/// waits 30 seconds for an answer at most, and a framework without a servant. Queries go to the
/// master over the network, also on the master's own host. The log stays as the process has it,
/// that is on standard error unless told.
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

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
