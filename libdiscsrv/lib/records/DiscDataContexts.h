#pragma once
// The parse states of the metadata document.

#include <deque>
#include <memory>

#include <tlx/StatusMsg.h>
#include <tlx/Xml.h>

#include "DiscData.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Inside an element whose children are objects of their own. One of them is read at a time.
template <class Sub>
class NestedContext : public XmlObjParseContext
{
  public:
    using XmlObjParseContext::XmlObjParseContext;

    /// Makes the Object of a child element, and the context that reads it.
    template <class Object>
    void startSub(const XMLCh* name, AttributeList& attributes, std::uint32_t node)
    {
        clearSub();
        Object* object = nullptr;
        m_subContext.reset(xmlCreateObject(name, attributes, this, object));
        m_subInterface.reset(object);
        m_nodes.push_back(node);
    }
    void clearSub()
    {
        m_subContext.reset();
        m_subInterface.reset();
    }

    std::deque<std::uint32_t> m_nodes;
    AutoDereference<Sub> m_subInterface;
    std::unique_ptr<XmlObjParseContext> m_subContext; ///< destroyed before m_subInterface
};

/// Inside a "DiscoveryAuthority" or "DiscoverySubject" element.
class DescriptionContext : public NestedContext<StatusMsg>
{
  public:
    enum Node : std::uint32_t
    {
        StatusMessage = 0
    };

    using NestedContext::NestedContext;
};

/// The whole document.
class DiscoveryDocContext : public XmlObjParseContext
{
  public:
    enum Node : std::uint32_t
    {
        Document = 0,
        Attributes = 1,
        SubjectNode = 2,
        AuthorityNode = 3,
        DiscoveryTime = 4,
        ExpiresTime = 5,
        Signature = 6,
        Priority = 7,
    };

    using XmlObjParseContext::XmlObjParseContext;

    /// True while a nested description receives the events.
    bool inDescription() const
    {
        return !m_nodes.empty() &&
               (m_nodes.back() == SubjectNode || m_nodes.back() == AuthorityNode);
    }

    std::deque<std::uint32_t> m_nodes;
    Description* m_subInterface = nullptr; ///< owned by the record
    std::unique_ptr<XmlObjParseContext> m_subContext;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
