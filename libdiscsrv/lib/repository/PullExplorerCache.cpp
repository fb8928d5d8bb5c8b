#include "PullExplorerCache.h"

#include <sstream>

#include "DiscLog.h"
#include "NameBounds.h"
#include "RemoteExplorerPull.h"
#include "XMLHelper.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr const char* LOG_SOURCE = "../DiscoveryRepository";
/// The repository's operation. Log readers find the lines about storing under it.
constexpr const char* OPERATION = "DiscoveryRepository::persistToDisk";
constexpr const char* TAG_DOCUMENT = "DiscoveredItems";
constexpr std::size_t READ_CHUNK = 1024;
/// A document that this file writes has a few hundred bytes.
constexpr std::size_t MAX_DOCUMENT_BYTES = std::size_t{64} << 10;

// Compat(remote-pull-document): stores hold the explorers of other hosts as this document, with
// these line breaks.
std::string documentOf(const ExplorerWrapper& wrapper, const RemoteExplorerPull& explorer)
{
    std::ostringstream out;
    XmlStr::xmlProlog(out, XmlStr::XE_UTF8);
    out << '\n';
    XmlStr::appendStart(out, TAG_DOCUMENT);
    out << '\n';
    XmlStr::appendElement(out, SOURCE_HOST, explorer.getSourceHost().text());
    XmlStr::appendElement(out, SERVICE_NAME, explorer.getServiceName());
    XmlStr::appendElement(out, PRIORITY, std::to_string(wrapper.getPriority()));
    XmlStr::appendElement(out, ORIGIN_TYPE,
                          std::to_string(static_cast<int>(wrapper.getAuthority()->getType())));
    XmlStr::appendEnd(out, TAG_DOCUMENT);
    out << '\n';
    return out.str();
}

/// Returns false if the payload cannot be read, or is too long for such a document.
bool readDocument(const CollectionData& data, astringstream& document)
{
    char buffer[READ_CHUNK];
    std::size_t total = 0;
    for (;;) {
        const std::size_t count = data.readCollection(sizeof buffer, buffer);
        if (count == 0)
            return true;
        total += count;
        if (count > sizeof buffer || total > MAX_DOCUMENT_BYTES)
            return false;
        document.write(buffer, static_cast<std::streamsize>(count));
    }
}

/// The contents of a stored registration.
struct CachedExplorer
{
    TlxString subject;
    TlxString authority;
    TlxString serviceName;
    TlxString sourceHost;
    unsigned int priority = 0;
    AuthorityType originType = AT_ANYANDALL;
};

bool readCached(Discovery& discovery, CachedExplorer& cached)
{
    astringstream document;
    XMLHelper helper;
    if (!isSuccess(discovery.open(OM_READ, "")) ||
        !readDocument(*discovery.getCollectionData(), document) ||
        helper.parse(document, cached.serviceName, cached.sourceHost, cached.priority,
                     cached.originType) != 0)
        return false;
    cached.subject = discovery.getSubject()->getSubject();
    cached.authority = discovery.getAuthority()->getName();
    return true;
}

/// Whether a registration has names that a host may register with now. An older version had no
/// bound. Logs one line otherwise.
bool areNamesBounded(const CachedExplorer& cached)
{
    if (cached.subject.size() <= MAX_DISPLAY_NAME_BYTES &&
        cached.authority.size() <= MAX_DISPLAY_NAME_BYTES &&
        cached.sourceHost.size() <= MAX_NAME_BYTES && cached.serviceName.size() <= MAX_NAME_BYTES)
        return true;
    DISC_WARN("A stored explorer with a name that is too long is left out, its subject begins with "
              "\""
              << beginningOfName(cached.subject.utf8()) << "\", its host with \""
              << beginningOfName(cached.sourceHost.utf8()) << "\"");
    return false;
}

} // namespace

namespace {

/// A time to live of zero means for ever.
void write(const ExplorerWrapper& wrapper, const TlxObjTime& created, const TlxObjTime& timeToLive,
           const NewDiscovery& newDiscovery)
{
    const LogScope scope(OPERATION);
    const auto* explorer = dynamic_cast<const RemoteExplorerPull*>(wrapper.getExplorer());
    if (!explorer)
        return;
    const Subject subject(wrapper.getSubject()->getSubject().utf8());
    const Authority authority(wrapper.getAuthority()->getName().utf8(), AT_REMOTEPULL);
    const CollectionAttributes attributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, created,
                                          timeToLive, wrapper.getPriority());
    AutoDereference<Discovery> discovery;
    newDiscovery(discovery, DQ_UNDEFINED, subject, authority, attributes);
    if (!discovery || !isSuccess(discovery->open(OM_UPDATE, ""))) {
        DISC_WARN("Failed to open collection");
        return;
    }
    const std::string document = documentOf(wrapper, *explorer);
    discovery->getCollectionData()->writeCollection(document.size(), document.data());
    if (!isSuccess(discovery->persist()))
        DISC_WARN("Failed to persist discovery record.");
}

} // namespace

void storeExplorer(const ExplorerWrapper& wrapper, const NewDiscovery& newDiscovery)
{
    write(wrapper, TlxObjTime(), TlxObjTime(), newDiscovery);
}

void removeStoredExplorer(const ExplorerWrapper& wrapper, const NewDiscovery& newDiscovery)
{
    // It expires at once: a restart soon after must not load it.
    constexpr std::int64_t SHORTEST_LIFE = 1; // microseconds
    write(wrapper, TlxObjTime(1, 0), TlxObjTime(0, SHORTEST_LIFE), newDiscovery);
}

void loadStoredExplorers(DiscoveryIterator& stored, const RegisterStored& registerStored)
{
    while (Discovery* next = stored.getNext()) {
        CachedExplorer cached;
        {
            // Release the record first: no registration happens while a record is locked.
            const AutoDereference<Discovery> discovery(next);
            if (!readCached(*discovery, cached) || !areNamesBounded(cached))
                continue;
        }
        const AutoDereference<RemoteExplorerPull> explorer(
            new RemoteExplorerPull(cached.serviceName, cached.sourceHost, cached.subject,
                                   cached.authority, cached.originType));
        registerStored(Subject(cached.subject.utf8()), *explorer, cached.priority,
                       Authority(cached.authority.utf8(), cached.originType));
    }
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
