#pragma once
// A backup policy's record that can travel inside other documents.

#include <cstdint>

#include <tlx/RefCounted.h>
#include <tlx/Xml.h>

namespace Veltrane::Quillmark::Tlx {

/// What a host tells about a policy that covers what it discovered. As XML:
///
///     <QMKPolicy Name="nightly" Type="filesystem" Active="1" Retention="30">text</QMKPolicy>
///
/// Reference-counted; unchanged once it is shared.
class QmkPolicy : public virtual TLXRefCounted, public XmlInterface
{
  public:
    /// The element's name; readers compare it by cmptag.
    static constexpr const char* TAG = "QMKPolicy";

    struct Values
    {
        TlxString name;
        TlxString type;              ///< what kind of data it is about
        bool active = false;         ///< whether it is run at all
        std::uint32_t retention = 0; ///< days for which a copy is kept; 0 for ever
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

/// Makes a QmkPolicy from its start tag (the caller gets the creator's reference through policy)
/// and answers the context for its content, which the caller owns. Texts that are absent are empty;
/// an "Active" that is not 1 is inactive, a "Retention" that is no number is 0.
XmlObjParseContext* xmlCreateObject(const XMLCh* name, AttributeList& attributes,
                                    const XmlObjParseContext* parent, QmkPolicy*& policy);

} // namespace Veltrane::Quillmark::Tlx
