#pragma once
// A status message. Other documents may contain it.

#include <cstdint>

#include <tlx/RefCounted.h>
#include <tlx/Xml.h>

namespace Veltrane::Quillmark::Tlx {

/// A numbered message. As XML: <STATUSMSG Code="17">text</STATUSMSG>. Reference-counted. Share it
/// only when nobody changes it any more.
class StatusMsg : public virtual TLXRefCounted, public XmlInterface
{
  public:
    /// The element's name.
    static constexpr const char* TAG = "STATUSMSG";

    StatusMsg() = default;
    StatusMsg(std::int32_t code, TlxString text) : m_code(code), m_text(std::move(text)) {}

    std::int32_t code() const { return m_code; }
    const TlxString& text() const { return m_text; }

    void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                         AttributeList& attributes) override;
    int xmlEndElement(XmlObjParseContext* context, const XMLCh* name) override;
    std::ostream& writeXml(std::ostream& out, XmlStr::Encoding encoding) const override;

  private:
    std::int32_t m_code = 0;
    TlxString m_text;
};

/// Makes a StatusMsg from its start tag. A "Code" that is not a number counts as 0.
/// @param message receives the message, with the creator's reference.
/// @return the context for its content. The caller owns it.
XmlObjParseContext* xmlCreateObject(const XMLCh* name, AttributeList& attributes,
                                    const XmlObjParseContext* parent, StatusMsg*& message);

} // namespace Veltrane::Quillmark::Tlx
