#include "Explorer.h"

#include "BoundReference.h"
#include "DiscLog.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../Explorer";
constexpr const char* TAG_EXPLORER_DATA = "ExplorerData";
constexpr const char* ATTRIBUTE_NAME = "Name";
} // namespace

void Explorer::startExploration(const EngineContext& context, const Authority& authority,
                                const Subject& subject,
                                AutoDereference<TLXRefCounted>& explorerContext, DiscoveryFactory*)
{
    DISC_TRACE("Explorer::startExploration");
    haltUnlessBound(&context);
    haltUnlessBound(&authority);
    haltUnlessBound(&subject);
    haltUnlessBound(&explorerContext);
}

void Explorer::stopExploration(const Authority& authority, const Subject& subject,
                               AutoDereference<TLXRefCounted>& explorerContext)
{
    DISC_TRACE("Explorer::stopExploration");
    haltUnlessBound(&authority);
    haltUnlessBound(&subject);
    haltUnlessBound(&explorerContext);
}

Explorer::~Explorer() = default;
ExplorerPull::~ExplorerPull() = default;
ExplorerPush::~ExplorerPush() = default;

std::ostream& Explorer::appendExplorerDataStartTag(std::ostream& out, XmlStr::Encoding encoding)
{
    DISC_TRACE("Explorer::appendExplorerDataStartTag");
    out << '<' << TAG_EXPLORER_DATA;
    XmlStr::appendAttribute(out, ATTRIBUTE_NAME, TlxString(getExplorerName()), encoding);
    return out << '>';
}

std::ostream& Explorer::appendExplorerDataEndTag(std::ostream& out)
{
    DISC_TRACE("Explorer::appendExplorerDataEndTag");
    return XmlStr::appendEnd(out, TAG_EXPLORER_DATA);
}

bool ExplorerData::isParsed() const
{
    return true;
}

std::ostream& ExplorerData::writeXml(std::ostream& out, XmlStr::Encoding) const
{
    return out;
}

ExplorerData::~ExplorerData() = default;
ExplorerDataParser::~ExplorerDataParser() = default;

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
