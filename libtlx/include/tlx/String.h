#pragma once
// Text. Inside the system every text is UTF-8; other encodings exist only at its edges.

#include <compare>
#include <ostream>
#include <string>
#include <string_view>

#include <xercesc/util/XercesDefs.hpp>

namespace Veltrane::Quillmark::Tlx {

/// A text, held as UTF-8. Bytes that are not valid UTF-8 are kept as they came (a name may hold
/// them; the percent-encoding of Uri.h makes them harmless); only the conversion to XMLCh replaces
/// them, by U+FFFD. A value type: copies are independent; one object is used by one thread at a
/// time. No operation fails.
class TlxString
{
  public:
    TlxString() = default;
    /// From narrow text in the default narrow code page. That code page is UTF-8 on every host: the
    /// ORB's native code set is UTF-8 too, so what arrives over the wire is imported unchanged,
    /// whatever locale the process runs in.
    TlxString(std::string narrow) : m_utf8(std::move(narrow)) {}
    TlxString(std::string_view narrow) : m_utf8(narrow) {}
    TlxString(const char* narrow) : m_utf8(narrow ? narrow : "") {}

    /// From the parser's UTF-16 text; unpaired surrogates become U+FFFD. A null pointer is empty.
    static TlxString fromXmlCh(const XMLCh* text);
    static TlxString fromXmlCh(std::basic_string_view<XMLCh> text);

    /// As the parser's UTF-16 text; bytes that are no UTF-8 become U+FFFD.
    std::basic_string<XMLCh> toXmlCh() const;

    const std::string& utf8() const { return m_utf8; }
    const char* c_str() const { return m_utf8.c_str(); }
    std::size_t size() const { return m_utf8.size(); }
    bool empty() const { return m_utf8.empty(); }
    void clear() { m_utf8.clear(); }
    void append(std::string_view utf8) { m_utf8.append(utf8); }

    friend bool operator==(const TlxString&, const TlxString&) = default;
    friend auto operator<=>(const TlxString&, const TlxString&) = default;
    friend std::ostream& operator<<(std::ostream& out, const TlxString& text)
    {
        return out << text.m_utf8;
    }

  private:
    std::string m_utf8;
};

/// The length in bytes (1 to 4) of the well-formed UTF-8 character at the start of text, 0 when
/// there is none (text empty, or its first byte begins no valid character). The code point goes to
/// codePoint when that is given.
std::size_t utf8Character(std::string_view text, char32_t* codePoint = nullptr);

/// Case-insensitive comparison as strcasecmp does it (letters of ASCII only).
int compareIgnoringCase(const TlxString& a, const TlxString& b);

} // namespace Veltrane::Quillmark::Tlx
