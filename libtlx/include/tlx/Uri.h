#pragma once
// URI text and its percent-encoding.
//
// The name of a subject or an authority is URI text. A well-formed %XX stands for its byte; any
// other "%" is a byte itself. So a second encoding changes nothing, and all encodings of a name
// stand for the same bytes.

#include <string>
#include <string_view>

#include <tlx/String.h>

namespace Veltrane::Quillmark::Tlx {

/// Classes of characters that an encoding leaves unchanged. A mask is a sum of classes.
/// docs/formats.md lists the characters.
enum UriCharacterClass : unsigned
{
    /// Readable characters of URIs and IRIs: "!" "#" "$" "&" "'" "(" ")" "*" "+" "," "/" ":" ";"
    /// "=" "?" "@" "[" "]" and the characters beyond ASCII. They do not include controls,
    /// separators, blanks, private-use code points, and code points that XML refuses or nobody can
    /// see.
    UC_READABLE = 2,
    /// Letters, digits and "-" "." "_" "~".
    UC_UNRESERVED = 8,
    /// The wildcards "*" and "?".
    UC_WILDCARD = 16,
};

// Compat(name-encodings): stores and documents hold names in these two encodings.

/// The display form of a name.
constexpr unsigned URI_MASK_DISPLAY = UC_READABLE | UC_UNRESERVED; // 10
/// The form for file names and lookup patterns.
constexpr unsigned URI_MASK_FILE_NAME = UC_WILDCARD | UC_UNRESERVED; // 24

/// The bytes that URI text stands for.
std::string uriDecode(std::string_view uriText);

/// Decodes URI text and encodes it again. The mask says which characters stay. Each byte of any
/// other character becomes %XX, with upper-case digits. Always encodes bytes that are not valid
/// UTF-8.
std::string uriEncode(std::string_view uriText, unsigned mask);

/// The authority of a URI (RFC 3986, section 3.2). It is not divided further, because it is the
/// name of a host or a producer. Such names contain many kinds of characters.
class UriAuthority
{
  public:
    UriAuthority() = default;
    explicit UriAuthority(std::string_view text) { setAuthority(text); }
    /// Takes any text, without a check.
    void setAuthority(std::string_view text) { m_text = text; }
    TlxString getUriEncoding(unsigned mask) const { return uriEncode(m_text, mask); }
    bool empty() const { return m_text.empty(); }

  private:
    std::string m_text;
};

/// A URI, split at its authority.
class Uri
{
  public:
    Uri() = default;
    /// From "scheme://authority/path" or "//authority/path". Any other text has an empty authority.
    explicit Uri(std::string_view text);
    const UriAuthority& authority() const { return m_authority; }
    /// The whole URI, encoded.
    TlxString getUriEncoding(unsigned mask) const { return uriEncode(m_text, mask); }

  private:
    std::string m_text;
    UriAuthority m_authority;
};

} // namespace Veltrane::Quillmark::Tlx
