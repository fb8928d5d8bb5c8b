#pragma once
// The producers of discoveries, and the parsers of what they write. docs/plugins.md tells how to
// write one.
//
// Explorers live in plug-in libraries or in the service itself. The repository holds a reference to
// an explorer for as long as it is registered and calls it from threads of its own: a push explorer
// from the timers' thread, one call at a time; a pull explorer from whichever thread reads, several
// at once. What an explorer throws fails that one call and is logged.

#include <ostream>

#include <tlx/RefCounted.h>
#include <tlx/Xml.h>

#include "DiscData.h"

namespace Veltrane::Quillmark::Tlx {
class EngineContext;
}

/// The version of the explorer kit: of the classes below, of the repository's operations and of the
/// entry points. A library that was built for another one is refused.
#define QM_EXPLORER_KIT_VERSION 1u

extern "C" {
/// Stands in every library that includes this header, so that the loader sees what it was built
/// for. Weak, and not inline: of an inline variable a process has one for all its libraries.
[[gnu::weak, gnu::visibility("default")]] unsigned QmExplorerKitVersion = QM_EXPLORER_KIT_VERSION;
}

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// The repository as explorers see it: something to hold on to, and to give back to the
/// repository's operations.
using DiscoveryFactory = TLXRefCounted;

/// A producer of discoveries; has no data of its own.
class DISCSRV_EXPORT Explorer : public virtual TLXRefCounted
{
  public:
    /// The repository begins to explore a subject on behalf of an authority. The base does nothing
    /// but halt in place when one of its references refers to no object.
    /// @param explorerContext kept with the registration and handed to every call: the explorer's
    /// own state, empty at first. Set it here and nowhere else: the other calls may come several at
    /// a time, and the holder itself is not safe for that.
    /// @param factory may be null.
    virtual void startExploration(const EngineContext& context, const Authority& authority,
                                  const Subject& subject,
                                  AutoDereference<TLXRefCounted>& explorerContext,
                                  DiscoveryFactory* factory);

    /// The counterpart; may come while another call of the same registration runs, which it may
    /// tell to end. The base halts as above.
    virtual void stopExploration(const Authority& authority, const Subject& subject,
                                 AutoDereference<TLXRefCounted>& explorerContext);

    /// The explorer's name, the same for the object's life; a text that the object owns, never
    /// null.
    virtual const char* getExplorerName() const = 0;

    ~Explorer() override;

    /// Writes the start tag of this explorer's data block: `<ExplorerData Name="NAME">`.
    std::ostream& appendExplorerDataStartTag(std::ostream& out, XmlStr::Encoding encoding);
    /// Writes the end tag of the block.
    static std::ostream& appendExplorerDataEndTag(std::ostream& out);
};

/// An explorer that is asked for its collection when somebody reads.
class DISCSRV_EXPORT ExplorerPull : public virtual Explorer
{
  public:
    ~ExplorerPull() override;

    /// Opens the collection data (OM_UPDATE), writes the whole collection into it and answers
    /// whether it did. Any thread, also several at once.
    /// @param text what the reader wants applied to the source of the collection; may be empty,
    /// never null.
    /// @param data the reader's; not to be kept.
    virtual bool collectionRequested(DiscoveryQuery query, const Authority& authority,
                                     const Subject& subject,
                                     AutoDereference<TLXRefCounted>& explorerContext,
                                     const char* text, CollectionData* data) = 0;
};

/// An explorer that is driven by a timer.
class DISCSRV_EXPORT ExplorerPush : public virtual Explorer
{
  public:
    ~ExplorerPush() override;

    /// Asks the repository for a new discovery, writes its collection data and persists it. On the
    /// timers' thread, one explorer at a time.
    /// @param attributes of this push: for the new discovery.
    /// @param factory the repository.
    /// @param result success at first; what the explorer sets, and its answer, are shown to people
    /// and change nothing.
    virtual bool pushCollection(const Authority& authority, const Subject& subject,
                                const CollectionAttributes& attributes,
                                AutoDereference<TLXRefCounted>& explorerContext,
                                DiscoveryFactory* factory, DiscoveryResult& result) = 0;
};

/// The parsed form of one explorer's data block.
class DISCSRV_EXPORT ExplorerData : public virtual TLXRefCounted
{
  public:
    /// The base is always parsed.
    virtual bool isParsed() const;
    /// Writes the block's inner XML. The base writes nothing.
    virtual std::ostream& writeXml(std::ostream& out, XmlStr::Encoding encoding) const;
    ~ExplorerData() override;
};

/// The parser of one explorer's data blocks. One object serves every parse: the state of a parse is
/// in its context.
class DISCSRV_EXPORT ExplorerDataParser : public XmlInterface, public virtual TLXRefCounted
{
  public:
    void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                         AttributeList& attributes) override = 0;
    int xmlEndElement(XmlObjParseContext* context, const XMLCh* name) override = 0;
    std::ostream& writeXml(std::ostream& out, XmlStr::Encoding encoding) const override = 0;

    /// A new context for an "ExplorerData" element, which the caller owns.
    /// @param explorerName the element's "Name".
    /// @param parent outlives the context.
    virtual XmlObjParseContext* getParseContext(const TlxString& explorerName,
                                                const XMLCh* elementName,
                                                const XmlObjParseContext* parent) = 0;
    /// What the context has gathered: a reference for the caller to release, or null.
    virtual ExplorerData* getExplorerData(XmlObjParseContext* context) = 0;

    /// The name of the explorer whose data this parser understands; never null.
    virtual const char* getExplorerParserName() const = 0;

    ~ExplorerDataParser() override;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
