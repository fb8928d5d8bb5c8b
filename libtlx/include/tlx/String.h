#pragma once
// Texts. Inside the system every text is UTF-8. Other encodings exist only at its edges.

#include <compare>
#include <ostream>
#include <string>
#include <string_view>

#include <xercesc/util/XercesDefs.hpp>

#include <tlx/Utf8.h>

namespace Veltrane::Quillmark::Tlx {

/// A text in UTF-8. Keeps bytes that are not valid UTF-8: a name may hold them, and the
/// percent-encoding of Uri.h makes them harmless. Only the conversion to XMLCh replaces them, by
/// U+FFFD. Value type; one thread at a time uses an object. No operation fails.
class TlxString
{
  public:
    TlxString() = default;
    /// From narrow text. The narrow code page is UTF-8 on every host, in every locale. The ORB's
    /// native code set is UTF-8, too, so texts arrive from the wire unchanged.
    TlxString(std::string narrow) : m_utf8(std::move(narrow)) {}
    TlxString(std::string_view narrow) : m_utf8(narrow) {}
    TlxString(const char* narrow) : m_utf8(narrow ? narrow : "") {}

    /// From the parser's UTF-16 text. Unpaired surrogates become U+FFFD. A null pointer makes an
    /// empty text.
    static TlxString fromXmlCh(const XMLCh* text);
    static TlxString fromXmlCh(std::basic_string_view<XMLCh> text);

    /// As the parser's UTF-16 text. Bytes that are not UTF-8 become U+FFFD.
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

/// Compares without regard to case, like strcasecmp: only letters of ASCII have case.
int compareIgnoringCase(const TlxString& a, const TlxString& b);
bool isSameIgnoringCase(const TlxString& a, const TlxString& b);

} // namespace Veltrane::Quillmark::Tlx
