#include <tlx/ConfigKey.h>

#include <algorithm>
#include <cstring>

#include <tlx/Assert.h>
#include <tlx/Endpoint.h>
#include <tlx/Number.h>
#include <tlx/Text.h>
#include <tlx/Utf8.h>

#include "ConfigValue.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr std::size_t MAX_SHOWN = 80;

std::string complaintAboutHost(const std::string& value, const char* example)
{
    return isHost(value)
               ? std::string()
               : quotedValue(value) + " is not a host name, expected for instance " + example;
}

std::string complaintAboutEndpoint(const std::string& value, bool anyPort, const char* example)
{
    const auto endpoint = parseEndpoint(value);
    if (!endpoint)
        return quotedValue(value) + " is not ADDRESS:PORT, expected for instance " + example;
    if (!anyPort && endpoint->port == 0)
        return quotedValue(value) + " has port 0, expected 1 to 65535";
    return {};
}

std::string complaintAboutBoolean(const std::string& value)
{
    return parseBoolean(value) ? std::string()
                               : quotedValue(value) + " is not a boolean, expected TRUE or FALSE";
}

std::string complaintAboutNumber(const std::string& value, std::uint64_t lowest,
                                 std::uint64_t highest)
{
    const auto number = parseNumber<std::uint64_t>(value);
    if (number && *number >= lowest && *number <= highest)
        return {};
    return quotedValue(value) + (number ? " is out of range" : " is not a number") + ", expected " +
           std::to_string(lowest) + " to " + std::to_string(highest);
}

std::vector<std::string> entriesOf(const std::string& value)
{
    constexpr std::string_view BETWEEN = ", \t";
    std::vector<std::string> entries;
    for (std::size_t at = 0; (at = value.find_first_not_of(BETWEEN, at)) != std::string::npos;) {
        const std::size_t end = std::min(value.find_first_of(BETWEEN, at), value.size());
        entries.push_back(value.substr(at, end - at));
        at = end;
    }
    return entries;
}

/// Names the first wrong entry.
std::string complaintAboutList(const std::string& value, DeclaredKey::Accepts accepts,
                               const char* complaint)
{
    for (const std::string& entry : entriesOf(value))
        if (!accepts(entry))
            return quotedValue(entry) + " " + complaint;
    return {};
}

} // namespace

bool DeclaredKey::covers(std::string_view written) const
{
    return m_kind == Kind::EndpointOfHost ? written.starts_with(m_name) : written == m_name;
}

/// The host in the name of a family's key.
std::string DeclaredKey::hostOf(const std::string& written) const
{
    return written.substr(std::strlen(m_name));
}

std::string DeclaredKey::keptName(const std::string& written) const
{
    return m_kind == Kind::EndpointOfHost ? m_name + lowerCase(hostOf(written)) : written;
}

std::string DeclaredKey::complaintAbout(const std::string& written, const std::string& value) const
{
    switch (m_kind) {
    case Kind::Host:
        return complaintAboutHost(value, m_example);
    case Kind::ListenEndpoint:
        return complaintAboutEndpoint(value, true, m_example);
    case Kind::EndpointOfHost: {
        const std::string aboutHost = complaintAboutHost(hostOf(written), m_hostExample);
        return aboutHost.empty() ? complaintAboutEndpoint(value, false, m_example) : aboutHost;
    }
    case Kind::Boolean:
        return complaintAboutBoolean(value);
    case Kind::Number:
        return complaintAboutNumber(value, m_lowest, m_highest);
    case Kind::Text:
        return m_accepts(value) ? std::string() : quotedValue(value) + " " + m_example;
    case Kind::List:
        return complaintAboutList(value, m_accepts, m_example);
    }
    TLX_SHOULD_NOT_GET_HERE();
    return {};
}

std::vector<std::string> DeclaredKey::goodEntries(const std::string& value) const
{
    std::vector<std::string> entries = entriesOf(value);
    if (isList())
        std::erase_if(entries, [this](const std::string& entry) { return !m_accepts(entry); });
    return entries;
}

std::optional<bool> parseBoolean(const std::string& text)
{
    const std::string word = lowerCase(text);
    if (word == "true" || word == "yes" || word == "1" || word == "on")
        return true;
    if (word == "false" || word == "no" || word == "0" || word == "off")
        return false;
    return std::nullopt;
}

std::string quotedValue(std::string_view text)
{
    if (text.size() <= MAX_SHOWN)
        return "'" + std::string(text) + "'";
    std::size_t end = 0;
    while (end < MAX_SHOWN)
        end += std::max<std::size_t>(1, utf8Character(text.substr(end)));
    return "'" + std::string(text.substr(0, end)) + "...'";
}

} // namespace Veltrane::Quillmark::Tlx
