#pragma once
// The entries of a collection, as they are read back. AuthSubIterator parses the document around
// them. docs/formats.md has the document.
//
// Whatever is in an entry was written by an explorer, perhaps of another host. What is not known is
// logged ("Ignoring Unknown Tag") and skipped with all that is in it. An item is made and parsed by
// one thread; once it is complete it changes no more, and any thread may read it.

#include <ostream>
#include <string>

#include <tlx/Policy.h>
#include <tlx/Query.h>
#include <tlx/RefCounted.h>
#include <tlx/StatusMsg.h>
#include <tlx/Xml.h>

#include "DiscExport.h"
#include "Explorer.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

class DiscoveredDataContext;

/// One entry of a collection.
class DISCSRV_EXPORT CollectionItem : public virtual TLXRefCounted, public XmlDocumentInterface
{
  public:
    CollectionItem();
    ~CollectionItem() override;
};

/// Something that an explorer discovered.
class DISCSRV_EXPORT DiscoveredItem : public virtual CollectionItem
{
  public:
    explicit DiscoveredItem(std::string name);

    // Reading; the context is one that xmlCreateObject made for this item. A block of explorer data
    // goes to the parser registered under its "Name", wherever that comes from: what such a parser
    // throws is logged and costs the item that block.
    void xmlCharacters(XmlObjParseContext* context, const XMLCh* chars,
                       unsigned long length) override;
    void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                         AttributeList& attributes) override;
    int xmlEndElement(XmlObjParseContext* context, const XMLCh* name) override;

    /// Writes the item as an element "Discovered", which reads back: readers do not mind the case.
    std::ostream& writeXml(std::ostream& out, XmlStr::Encoding encoding) const override;
    ~DiscoveredItem() override;

    /// Empty when the element had none.
    const std::string& getName() const { return m_name; }
    // Null when there is none; each stays this object's.
    const StatusMsg* getStatusMsg() const { return m_status.get(); }
    const QmkPolicy* getPolicy() const { return m_policy.get(); }
    /// A reference for the caller to release, or null.
    ExplorerData* getExplorerData() const;
    /// The name of the explorer whose data it is; empty without data.
    const TlxString& getExplorerName() const { return m_explorerName; }

  private:
    void startBlock(DiscoveredDataContext& context, const XMLCh* name, AttributeList& attributes);
    void startInBlock(DiscoveredDataContext& context, const XMLCh* name, AttributeList& attributes);
    int endInBlock(DiscoveredDataContext& context, const XMLCh* name);
    void takeSub(DiscoveredDataContext& context);
    void endSub(DiscoveredDataContext& context);

    const std::string m_name;
    AutoDereference<QmkPolicy> m_policy;
    AutoDereference<StatusMsg> m_status;
    AutoDereference<ExplorerData> m_explorerData;
    AutoDereference<ExplorerDataParser> m_explorerParser; ///< of the block being read
    TlxString m_explorerName;
};

/// What can be asked about discovered items: a query's description and nothing else, to which all
/// that is read and written is handed on.
class DISCSRV_EXPORT FilterItem : public virtual CollectionItem
{
  public:
    /// Adopts the caller's reference; null is a filter of which nothing is known.
    explicit FilterItem(TlxQuery* query);

    void xmlCharacters(XmlObjParseContext* context, const XMLCh* chars,
                       unsigned long length) override;
    void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                         AttributeList& attributes) override;
    int xmlEndElement(XmlObjParseContext* context, const XMLCh* name) override;
    std::ostream& writeXml(std::ostream& out, XmlStr::Encoding encoding) const override;
    ~FilterItem() override;

    /// The description, or null; it stays this object's.
    const TlxQuery* getQuery() const { return m_query.get(); }

  private:
    const AutoDereference<TlxQuery> m_query;
};

/// Make an item from its start tag (the caller gets the creator's reference through item) and
/// answer the context for its content, which the caller owns.
DISCSRV_EXPORT XmlObjParseContext* xmlCreateObject(const XMLCh* name, AttributeList& attributes,
                                                   const XmlObjParseContext* parent,
                                                   DiscoveredItem*& item);
DISCSRV_EXPORT XmlObjParseContext* xmlCreateObject(const XMLCh* name, AttributeList& attributes,
                                                   const XmlObjParseContext* parent,
                                                   FilterItem*& item);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
