#include "QueryLosses.h"

#include <algorithm>

#include <tlx/Character.h>

#include "PlatformLog.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr const char* LOG_SOURCE = "../Query";

/// The beginning of a name, on one line, because another host wrote it.
std::string shown(const TlxString& name)
{
    constexpr std::size_t SHOWN = 64;
    std::string text;
    const std::string start = name.utf8().substr(0, SHOWN);
    for (std::string_view rest = start; !rest.empty();) {
        char32_t codePoint = REPLACEMENT_CHARACTER; // for a byte that is no UTF-8: the log shows it
        const std::size_t length = std::max<std::size_t>(utf8Character(rest, &codePoint), 1);
        text += isDeceptive(codePoint) ? "?" : rest.substr(0, length);
        rest.remove_prefix(length);
    }
    return "\"" + text + (name.size() > SHOWN ? "...\"" : "\"");
}

} // namespace

void QueryLosses::addField(const QueryField& field, const std::string& refused)
{
    if (m_fields++ == 0)
        m_firstField = shown(field.name) + ": " + refused;
}

void QueryLosses::addOpened(const QueryField& field)
{
    if (m_opened++ == 0)
        m_firstOpened = shown(field.name);
}

void QueryLosses::log(const char* operation) const
{
    std::string lost;
    if (m_fields > 0)
        lost = "; fields left out: " + std::to_string(m_fields) + ", the first " + m_firstField;
    if (m_opened > 0)
        lost += "; fields of more than " + std::to_string(QUERY_MAX_VALUES) +
                " values, which take any: " + std::to_string(m_opened) + ", the first " +
                m_firstOpened;
    if (!lost.empty())
        PLATFORM_WARN(operation, "A part of a query description is not kept" << lost);
}

} // namespace Veltrane::Quillmark::Tlx
