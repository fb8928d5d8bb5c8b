#pragma once
// The producers of discoveries, and the parsers of their data. docs/plugins.md explains how to
// write one.
//
// Explorers live in plug-in libraries or in the service itself. The repository holds a reference to
// an explorer while it is registered. It calls push explorers on the timers' thread, one call at a
// time. It calls a pull explorer on the thread that reads, so several calls may run at once. If an
// explorer throws, the repository logs the exception and that one call fails.

#include <ostream>

#include <tlx/RefCounted.h>
#include <tlx/Xml.h>

#include "DiscData.h"

namespace Veltrane::Quillmark::Tlx {
class EngineContext;
}

/// The version of the explorer kit: the classes below, the repository's operations and the entry
/// points. The loader refuses a library that was built for another version.
#define QM_EXPLORER_KIT_VERSION 1u

extern "C" {
/// Every library that includes this header defines this variable, and the loader reads it. It is
/// weak and not inline, because all libraries of a process share one copy of an inline variable.
// Compat(plugin-kit-version): plug-ins carry this number of the kit that they were built with.
[[gnu::weak, gnu::visibility("default")]] unsigned QmExplorerKitVersion = QM_EXPLORER_KIT_VERSION;
}

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// The repository as explorers see it. An explorer can keep it, or cast it to DiscoveryRepository.
using DiscoveryFactory = TLXRefCounted;

/// A producer of discoveries. This class has no data.
class DISCSRV_EXPORT Explorer : public virtual TLXRefCounted
{
  public:
    /// The repository calls it when the exploration of a subject for an authority begins. The base
    /// halts if a reference is null, and does nothing else.
    /// @param explorerContext the explorer's own state, empty at first. The registration keeps it
    /// and every call receives it. Set it only here: other calls may run at the same time, and the
    /// holder is not safe for several threads.
    /// @param factory the repository; may be null.
    virtual void startExploration(const EngineContext& context, const Authority& authority,
                                  const Subject& subject,
                                  AutoDereference<TLXRefCounted>& explorerContext,
                                  DiscoveryFactory* factory);

    /// The repository calls it when the exploration ends. Another call of the same registration may
    /// still run, and the explorer may make that call return. The base halts if a reference is
    /// null.
    virtual void stopExploration(const Authority& authority, const Subject& subject,
                                 AutoDereference<TLXRefCounted>& explorerContext);

    /// Returns the explorer's name, which never changes and is not null. The object owns the text.
    virtual const char* getExplorerName() const = 0;

    ~Explorer() override;

    /// Writes the start tag of this explorer's data block: `<ExplorerData Name="NAME">`.
    std::ostream& appendExplorerDataStartTag(std::ostream& out, XmlStr::Encoding encoding);
    /// Writes the end tag of the data block.
    static std::ostream& appendExplorerDataEndTag(std::ostream& out);
};

/// An explorer that the service asks for its collection when a client reads.
class DISCSRV_EXPORT ExplorerPull : public virtual Explorer
{
  public:
    ~ExplorerPull() override;

    /// Opens the collection data with OM_UPDATE and writes the whole collection into it. Returns
    /// true if it did. Any thread may call it, and several threads may call it at once.
    /// @param text the reader's filter parameters; may be empty, never null.
    /// @param data belongs to the reader. Do not use it after the call.
    virtual bool collectionRequested(DiscoveryQuery query, const Authority& authority,
                                     const Subject& subject,
                                     AutoDereference<TLXRefCounted>& explorerContext,
                                     const char* text, CollectionData* data) = 0;
};

/// An explorer that a timer calls.
class DISCSRV_EXPORT ExplorerPush : public virtual Explorer
{
  public:
    ~ExplorerPush() override;

    /// Asks the repository for a new discovery, writes its collection data and persists it. The
    /// timers' thread calls it, one explorer at a time.
    /// @param attributes the attributes for the new discovery.
    /// @param factory the repository.
    /// @param result a success when the call begins. The service shows the final value, and the
    /// returned one, to operators; neither changes its behaviour.
    virtual bool pushCollection(const Authority& authority, const Subject& subject,
                                const CollectionAttributes& attributes,
                                AutoDereference<TLXRefCounted>& explorerContext,
                                DiscoveryFactory* factory, DiscoveryResult& result) = 0;
};

/// The parsed form of one explorer's data block.
class DISCSRV_EXPORT ExplorerData : public virtual TLXRefCounted
{
  public:
    /// True if the block was understood. The base returns true.
    virtual bool isParsed() const;
    /// Writes the block's inner XML. The base writes nothing.
    virtual std::ostream& writeXml(std::ostream& out, XmlStr::Encoding encoding) const;
    ~ExplorerData() override;
};

/// The parser of one explorer's data blocks. One object serves every parse, on any thread. The
/// state of a parse is in its context.
class DISCSRV_EXPORT ExplorerDataParser : public XmlInterface, public virtual TLXRefCounted
{
  public:
    void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                         AttributeList& attributes) override = 0;
    int xmlEndElement(XmlObjParseContext* context, const XMLCh* name) override = 0;
    std::ostream& writeXml(std::ostream& out, XmlStr::Encoding encoding) const override = 0;

    /// Makes a context for an "ExplorerData" element. The caller becomes its owner.
    /// @param explorerName the attribute "Name" of the element.
    /// @param parent outlives the context.
    virtual XmlObjParseContext* getParseContext(const TlxString& explorerName,
                                                const XMLCh* elementName,
                                                const XmlObjParseContext* parent) = 0;
    /// Returns the data that the context has collected, or null. The caller releases the reference.
    virtual ExplorerData* getExplorerData(XmlObjParseContext* context) = 0;

    /// Returns the name of the explorer that writes the data for this parser; never null.
    virtual const char* getExplorerParserName() const = 0;

    ~ExplorerDataParser() override;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
