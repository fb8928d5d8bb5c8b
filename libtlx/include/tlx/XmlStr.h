#pragma once
// Writing XML text.

#include <ostream>
#include <string>
#include <string_view>

#include <tlx/String.h>

namespace Veltrane::Quillmark::Tlx {

/// A text that operator<< writes as XML character data. It escapes "&", "<", ">" and both quotation
/// marks. It writes a character reference for a carriage return and for each character that the
/// encoding lacks. It writes U+FFFD for what XML 1.0 cannot carry: other control characters and
/// invalid UTF-8.
class XmlStr
{
  public:
    /// The encodings a document may be written in; plug-ins are compiled with these values. The
    /// zero value is the default everywhere.
    enum Encoding
    {
        XE_UTF8 = 0,
        XE_ASCII = 2
    };

    explicit XmlStr(const TlxString& text, Encoding encoding = XE_UTF8)
        : m_text(text), m_encoding(encoding)
    {
    }

    friend std::ostream& operator<<(std::ostream& out, const XmlStr& text);

    /// The XML declaration of version 1.0 with the encoding, without a line break.
    static std::ostream& xmlProlog(std::ostream& out, Encoding encoding);
    /// "<name>"
    static std::ostream& appendStart(std::ostream& out, std::string_view name);
    /// "</name>"
    static std::ostream& appendEnd(std::ostream& out, std::string_view name);
    /// "<name>", the escaped text, "</name>"
    static std::ostream& appendElement(std::ostream& out, std::string_view name,
                                       const TlxString& text, Encoding encoding = XE_UTF8);
    /// One blank, the name, an equals sign and the escaped value in double quotation marks.
    static std::ostream& appendAttribute(std::ostream& out, std::string_view name,
                                         const TlxString& value, Encoding encoding = XE_UTF8);

  private:
    TlxString m_text;
    Encoding m_encoding;
};

} // namespace Veltrane::Quillmark::Tlx
