#pragma once
// The parse states of the discovered-items document.

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>

#include "DiscDataContexts.h"
#include "DiscoveredItems.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

constexpr const char* TAG_DISCOVERED_ITEMS = "DiscoveredItems";
constexpr const char* TAG_FILTER_DATA = "FilterData";
/// Reading looks for this tag and ignores the case. Writing uses "Discovered".
constexpr const char* TAG_DISCOVERED = "DISCOVERED";

/// The whole document.
class DiscoverySetContext : public NestedContext<CollectionItem>
{
  public:
    enum Node : std::uint32_t
    {
        DiscoveredItems = 0,
        FilterData = 1,
        Discovered = 2,
        QueryDescription = 3,
    };

    using NestedContext::NestedContext;
};

/// Inside a "DISCOVERED" element.
class DiscoveredDataContext : public XmlObjParseContext
{
  public:
    enum Node : std::uint32_t
    {
        StatusMessage = 0,
        Policy = 1,
        ExplorerDataBlock = 2,
    };

    using XmlObjParseContext::XmlObjParseContext;

    /// Makes the Object of a child element, which `held` keeps, and the context that reads it.
    template <class Object>
    void startSub(const XMLCh* name, AttributeList& attributes, AutoDereference<Object>& held,
                  Node node)
    {
        Object* object = nullptr;
        m_subContext.reset(xmlCreateObject(name, attributes, this, object));
        held.reset(object);
        m_subInterface = object;
        m_nodes.push_back(node);
    }

    std::deque<std::uint32_t> m_nodes;
    /// m_status, m_policy or the item's explorer parser.
    XmlInterface* m_subInterface = nullptr;
    AutoDereference<StatusMsg> m_status;
    AutoDereference<QmkPolicy> m_policy;
    std::unique_ptr<XmlObjParseContext> m_subContext;

    // The block of explorer data. Its parser may come from a library.
    TlxString m_explorerName;
    unsigned m_depth = 0;       ///< open elements inside the block
    bool m_blockFailed = false; ///< the parser threw, so the rest of the block is skipped
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
