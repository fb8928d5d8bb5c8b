#pragma once
// URI text and its percent-encoding.
//
// A name (of a subject, of an authority) is URI text: a well-formed %XX stands for its byte, any
// other "%" is itself a byte. So encoding a text twice gives the same text as encoding it once, and
// both encodings of one name stand for the same bytes.

#include <string>
#include <string_view>

#include <tlx/String.h>

namespace Veltrane::Quillmark::Tlx {

/// Classes of characters that an encoding leaves as they stand; a mask is a sum of classes.
/// docs/formats.md lists them character by character.
enum UriCharacterClass : unsigned
{
    /// What reads well and may stand in a URI or an IRI: "!" "#" "$" "&" "'" "(" ")" "*" "+" ","
    /// "/" ":" ";" "=" "?" "@" "[" "]" and every character beyond ASCII except controls, separators
    /// and blanks, private-use and other code points that XML refuses or that cannot be seen.
    UC_READABLE = 2,
    /// Letters, digits and "-" "." "_" "~".
    UC_UNRESERVED = 8,
    /// The wildcards "*" and "?".
    UC_WILDCARD = 16,
};

/// The display form of a name.
constexpr unsigned URI_MASK_DISPLAY = UC_READABLE | UC_UNRESERVED; // 10
/// The form that may stand in a file name and in a lookup pattern.
constexpr unsigned URI_MASK_FILE_NAME = UC_WILDCARD | UC_UNRESERVED; // 24

/// The bytes that URI text stands for.
std::string uriDecode(std::string_view uriText);

/// Encodes URI text: decodes it, then writes every byte that mask does not leave as %XX (upper-case
/// digits). Bytes that are not valid UTF-8 are always written so.
std::string uriEncode(std::string_view uriText, unsigned mask);

/// The authority of a URI (RFC 3986, section 3.2), kept whole: in this system it is a host's or a
/// producer's name, and names hold all sorts of characters.
class UriAuthority
{
  public:
    UriAuthority() = default;
    explicit UriAuthority(std::string_view text) { setAuthority(text); }
    /// Takes the text as it is; every text is accepted.
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
    /// "scheme://authority/path" or "//authority/path"; any other text has an empty authority.
    explicit Uri(std::string_view text);
    const UriAuthority& authority() const { return m_authority; }
    /// The whole URI, encoded.
    TlxString getUriEncoding(unsigned mask) const { return uriEncode(m_text, mask); }

  private:
    std::string m_text;
    UriAuthority m_authority;
};

} // namespace Veltrane::Quillmark::Tlx
