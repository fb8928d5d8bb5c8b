// Writes a record's descriptive part as a metadata document.

#include <tlx/ValueConverter.h>

#include "DiscData.h"
#include "DiscDataNames.h"
#include "DiscLog.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr const char* LOG_SOURCE = "../DiscData";

std::string decimal(std::uint32_t value)
{
    return std::to_string(value);
}

} // namespace

std::ostream& Description::writeXml(std::ostream& out, XmlStr::Encoding encoding) const
{
    DISC_TRACE("Description::writeXml");
    if (m_statusMsg)
        m_statusMsg->writeXml(out, encoding);
    return out;
}

std::ostream& Authority::writeXml(std::ostream& out, XmlStr::Encoding encoding) const
{
    DISC_TRACE("Authority::writeXml");
    out << '<' << TAG_DISCOVERY_AUTHORITY;
    XmlStr::appendAttribute(out, ATTRIBUTE_NAME, m_name, encoding);
    XmlStr::appendAttribute(out, ATTRIBUTE_TYPE, decimal(m_type), encoding);
    out << '>';
    Description::writeXml(out, encoding);
    return XmlStr::appendEnd(out, TAG_DISCOVERY_AUTHORITY);
}

std::ostream& Subject::writeXml(std::ostream& out, XmlStr::Encoding encoding) const
{
    DISC_TRACE("Subject::writeXml");
    out << '<' << TAG_DISCOVERY_SUBJECT;
    XmlStr::appendAttribute(out, ATTRIBUTE_NAME, m_subject, encoding);
    out << '>';
    Description::writeXml(out, encoding);
    return XmlStr::appendEnd(out, TAG_DISCOVERY_SUBJECT);
}

std::ostream& CollectionAttributes::writeXml(std::ostream& out, XmlStr::Encoding encoding) const
{
    DISC_TRACE("CollectionAttributes::writeXml");
    out << '<' << TAG_DISCOVERY_ATTRIBUTES;
    XmlStr::appendAttribute(out, ATTRIBUTE_TYPE, decimal(m_type), encoding);
    XmlStr::appendAttribute(out, ATTRIBUTE_STORAGE, decimal(m_storage), encoding);
    out << '>';
    XmlStr::appendElement(out, PRIORITY, decimal(m_priority));
    if (!m_discoveryTime.isZero())
        XmlStr::appendElement(out, TAG_DISCOVERY_TIME, toText(m_discoveryTime));
    if (!m_expiresTime.isZero())
        XmlStr::appendElement(out, TAG_EXPIRES_TIME, toText(m_expiresTime));
    if (!m_signature.empty())
        XmlStr::appendElement(out, TAG_SIGNATURE, m_signature, encoding);
    return XmlStr::appendEnd(out, TAG_DISCOVERY_ATTRIBUTES);
}

std::ostream& Discovery::writeXml(std::ostream& out, XmlStr::Encoding encoding) const
{
    DISC_TRACE("Discovery::writeXml");
    XmlStr::xmlProlog(out, encoding);
    XmlStr::appendStart(out, TAG_DISCOVERY_DATA);
    if (m_authority)
        m_authority->writeXml(out, encoding);
    if (m_subject)
        m_subject->writeXml(out, encoding);
    if (m_attributes)
        m_attributes->writeXml(out, encoding);
    return XmlStr::appendEnd(out, TAG_DISCOVERY_DATA);
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
