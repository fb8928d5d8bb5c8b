#pragma once
// The items of a collection. AuthSubIterator parses the document around them. docs/formats.md
// describes the document.
//
// An explorer wrote the items, perhaps one of another host. The parser logs an unknown element
// ("Ignoring Unknown Tag") and skips it with its content. One thread makes and parses an item. A
// complete item never changes, and any thread may read it.

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

/// One item of a collection.
class DISCSRV_EXPORT CollectionItem : public virtual TLXRefCounted, public XmlDocumentInterface
{
  public:
    CollectionItem();
    ~CollectionItem() override;
};

/// A thing that an explorer discovered.
class DISCSRV_EXPORT DiscoveredItem : public virtual CollectionItem
{
  public:
    explicit DiscoveredItem(std::string name);

    // These read the item with the context that xmlCreateObject made for it. The parser that is
    // registered under the "Name" of a data block reads the block. If the parser throws, the
    // exception is logged and the item loses that block.
    void xmlCharacters(XmlObjParseContext* context, const XMLCh* chars,
                       unsigned long length) override;
    void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                         AttributeList& attributes) override;
    int xmlEndElement(XmlObjParseContext* context, const XMLCh* name) override;

    /// Writes the item as an element "Discovered".
    std::ostream& writeXml(std::ostream& out, XmlStr::Encoding encoding) const override;
    ~DiscoveredItem() override;

    /// Empty if the element had no name.
    const std::string& getName() const { return m_name; }
    // Both return null if the item lacks that part. The item stays its owner.
    const StatusMsg* getStatusMsg() const { return m_status.get(); }
    const QmkPolicy* getPolicy() const { return m_policy.get(); }
    /// Returns the data, or null. The caller releases the reference.
    ExplorerData* getExplorerData() const;
    /// The name of the explorer that wrote the data; empty without data.
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
    AutoDereference<ExplorerDataParser> m_explorerParser; ///< of the current block
    TlxString m_explorerName;
};

/// The filters that discovered items support: the description of a query. The description reads and
/// writes itself.
class DISCSRV_EXPORT FilterItem : public virtual CollectionItem
{
  public:
    /// Becomes the owner of the caller's reference, which may be null.
    explicit FilterItem(TlxQuery* query);

    void xmlCharacters(XmlObjParseContext* context, const XMLCh* chars,
                       unsigned long length) override;
    void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                         AttributeList& attributes) override;
    int xmlEndElement(XmlObjParseContext* context, const XMLCh* name) override;
    std::ostream& writeXml(std::ostream& out, XmlStr::Encoding encoding) const override;
    ~FilterItem() override;

    /// The description, or null. This object stays its owner.
    const TlxQuery* getQuery() const { return m_query.get(); }

  private:
    const AutoDereference<TlxQuery> m_query;
};

/// Both make an item from its start tag, and return the context for its content. The caller
/// releases the item and becomes the owner of the context.
DISCSRV_EXPORT XmlObjParseContext* xmlCreateObject(const XMLCh* name, AttributeList& attributes,
                                                   const XmlObjParseContext* parent,
                                                   DiscoveredItem*& item);
DISCSRV_EXPORT XmlObjParseContext* xmlCreateObject(const XMLCh* name, AttributeList& attributes,
                                                   const XmlObjParseContext* parent,
                                                   FilterItem*& item);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
