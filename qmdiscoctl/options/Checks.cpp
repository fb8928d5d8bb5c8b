#include "Checks.h"

#include <tlx/Number.h>
#include <tlx/Query.h>
#include <tlx/Utf8.h>

#include "HostArgument.h"
#include "Names.h"
#include "Text.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

/// Returns nothing for a good text, otherwise a line with the expected form.
std::string expect(bool good, const std::string& expected, const std::string& text)
{
    return good ? "" : expected + " is expected, not " + quoted(text);
}

} // namespace

std::string quoted(const std::string& text)
{
    return "\"" + escaped(text) + "\"";
}

std::uint64_t numberOf(const std::string& text)
{
    return Tlx::parseNumber<std::uint64_t>(text).value_or(0);
}

Check numberUpTo(std::uint64_t lowest, std::uint64_t highest)
{
    return [lowest, highest](const std::string& text) {
        const auto value = Tlx::parseNumber<std::uint64_t>(text);
        return expect(value && *value >= lowest && *value <= highest,
                      "a number from " + std::to_string(lowest) + " to " + std::to_string(highest),
                      text);
    };
}

std::string checkUtf8(const std::string& text)
{
    if (Tlx::isUtf8(text))
        return {};
    return "UTF-8 text is expected, not " + quoted(text) + "; other bytes are written as %XX";
}

std::string checkName(const std::string& text)
{
    return text.empty() ? "a name is expected, not an empty text" : checkUtf8(text);
}

std::string checkFilter(const std::string& text)
{
    if (std::string wrong = checkUtf8(text); !wrong.empty())
        return wrong;
    Tlx::TlxQuery query;
    return query.setQuery(text) ? "" : escaped(query.mistake().toText());
}

std::string checkFile(const std::string& text)
{
    return text.empty() ? "a file name is expected, not an empty one" : "";
}

std::string checkRoot(const std::string& text)
{
    return text.empty() ? "a directory is expected, not an empty name" : "";
}

std::string checkHost(const std::string& text)
{
    return expect(parseHost(text).has_value(), "HOST, HOST:PORT or [IPV6]:PORT", text);
}

std::string checkType(const std::string& text)
{
    return expect(parseAuthorityType(text).has_value(), authorityTypeNames(), text);
}

std::string checkQueryType(const std::string& text)
{
    return expect(parseQueryType(text).has_value(), queryTypeNames(), text);
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
