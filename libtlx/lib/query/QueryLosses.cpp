#include "QueryLosses.h"

#include "PlatformLog.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr const char* LOG_SOURCE = "../Query";

/// The beginning of a name, on one line, because another host wrote it.
std::string shown(const TlxString& name)
{
    constexpr std::size_t SHOWN = 64;
    std::string text;
    for (const char c : name.utf8().substr(0, SHOWN))
        text += static_cast<unsigned char>(c) < ' ' ? '?' : c;
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
        PLATFORM_LOG(LOG_LEVEL_FAILURE, operation,
                     "Not everything of a query description can be told" << lost);
}

} // namespace Veltrane::Quillmark::Tlx
