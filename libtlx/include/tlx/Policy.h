#pragma once
// The record of a backup policy. Other documents may contain it.

#include <cstdint>

#include <tlx/RefCounted.h>
#include <tlx/Xml.h>

namespace Veltrane::Quillmark::Tlx {

/// A policy that covers discovered things, as their host reports it. As XML:
///
///     <QMKPolicy Name="nightly" Type="filesystem" Active="1" Retention="30">text</QMKPolicy>
///
/// Reference-counted. Share it only when nobody changes it any more.
class QmkPolicy : public virtual TLXRefCounted, public XmlInterface
{
  public:
    /// The element's name. Readers compare it by cmptag.
    static constexpr const char* TAG = "QMKPolicy";

    struct Values
    {
        TlxString name;
        TlxString type;              ///< the kind of data that it covers
        bool active = false;         ///< whether it runs at all
        std::uint32_t retention = 0; ///< days for which a copy is kept; 0 keeps it for ever
        TlxString comment;           ///< for people
        friend bool operator==(const Values&, const Values&) = default;
    };

    QmkPolicy() = default;
    explicit QmkPolicy(Values values) : m_values(std::move(values)) {}

    const Values& values() const { return m_values; }
    const TlxString& name() const { return m_values.name; }

    void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                         AttributeList& attributes) override;
    int xmlEndElement(XmlObjParseContext* context, const XMLCh* name) override;
    std::ostream& writeXml(std::ostream& out, XmlStr::Encoding encoding) const override;

  private:
    Values m_values;
};

/// Makes a QmkPolicy from its start tag. Missing texts are empty. A policy is active only when
/// "Active" is 1. A "Retention" that is not a number counts as 0.
/// @param policy receives the policy, with the creator's reference.
/// @return the context for its content. The caller owns it.
XmlObjParseContext* xmlCreateObject(const XMLCh* name, AttributeList& attributes,
                                    const XmlObjParseContext* parent, QmkPolicy*& policy);

} // namespace Veltrane::Quillmark::Tlx
