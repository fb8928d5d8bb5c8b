#include <tlx/XmlStr.h>

#include "XmlCharacter.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

void writeReference(std::ostream& out, char32_t codePoint)
{
    // Do not use <<, because the caller may have set a base or a width on the stream.
    const std::string digits = std::to_string(static_cast<unsigned long>(codePoint));
    out.write("&#", 2).write(digits.data(), static_cast<std::streamsize>(digits.size())).put(';');
}

/// The entity for a markup character; null for another character.
const char* predefinedEntity(char32_t codePoint)
{
    switch (codePoint) {
    case '&':
        return "&amp;";
    case '<':
        return "&lt;";
    case '>':
        return "&gt;";
    case '"':
        return "&quot;";
    case '\'':
        return "&apos;";
    default:
        return nullptr;
    }
}

void writeCharacter(std::ostream& out, char32_t codePoint, std::string_view utf8,
                    XmlStr::Encoding encoding)
{
    if (encoding == XmlStr::XE_UTF8 || codePoint < 0x80)
        out.write(utf8.data(), static_cast<std::streamsize>(utf8.size()));
    else
        writeReference(out, codePoint);
}

/// @param inAttribute whether tabs and line feeds become references, too. Readers turn bare ones
/// into blanks in an attribute's value.
void writeEscaped(std::ostream& out, std::string_view text, XmlStr::Encoding encoding,
                  bool inAttribute)
{
    while (!text.empty()) {
        char32_t codePoint = REPLACEMENT_CHARACTER;
        const std::size_t length = utf8Character(text, &codePoint);
        const std::string_view character = text.substr(0, length ? length : 1);
        if (const char* entity = predefinedEntity(codePoint))
            out << entity;
        else if (length == 0 || !isXmlCharacter(codePoint))
            writeCharacter(out, REPLACEMENT_CHARACTER, REPLACEMENT_UTF8, encoding);
        else if (codePoint == '\r' || (inAttribute && (codePoint == '\n' || codePoint == '\t')))
            writeReference(out, codePoint);
        else
            writeCharacter(out, codePoint, character, encoding);
        text.remove_prefix(character.size());
    }
}

} // namespace

std::ostream& operator<<(std::ostream& out, const XmlStr& text)
{
    writeEscaped(out, text.m_text.utf8(), text.m_encoding, false);
    return out;
}

std::ostream& XmlStr::xmlProlog(std::ostream& out, Encoding encoding)
{
    const char* const name = encoding == XE_ASCII ? "US-ASCII" : "UTF-8";
    return out << "<?xml version=\"1.0\" encoding=\"" << name << "\"?>";
}

std::ostream& XmlStr::appendStart(std::ostream& out, std::string_view name)
{
    return out << '<' << name << '>';
}

std::ostream& XmlStr::appendEnd(std::ostream& out, std::string_view name)
{
    return out << "</" << name << '>';
}

std::ostream& XmlStr::appendElement(std::ostream& out, std::string_view name, const TlxString& text,
                                    Encoding encoding)
{
    appendStart(out, name);
    writeEscaped(out, text.utf8(), encoding, false);
    return appendEnd(out, name);
}

std::ostream& XmlStr::appendAttribute(std::ostream& out, std::string_view name,
                                      const TlxString& value, Encoding encoding)
{
    out << ' ' << name << "=\"";
    writeEscaped(out, value.utf8(), encoding, true);
    return out << '"';
}

} // namespace Veltrane::Quillmark::Tlx
