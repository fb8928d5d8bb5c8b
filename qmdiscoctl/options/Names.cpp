#include "Names.h"

#include <array>

#include <tlx/String.h>
#include <tlx/Uri.h>

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

template <class Value>
struct Name
{
    const char* text;
    Value value;
};

constexpr std::array<Name<Svc::AuthorityType>, 5> AUTHORITY_TYPES{{
    {"anyandall", Svc::AT_ANYANDALL},
    {"qmkserver", Svc::AT_QMKSERVER},
    {"qmkclient", Svc::AT_QMKCLIENT},
    {"extsrc", Svc::AT_EXTSRC},
    {"remotepull", Svc::AT_REMOTEPULL},
}};

constexpr std::array<Name<Svc::DiscoveryQuery>, 3> QUERY_TYPES{{
    {"undefined", Svc::DQ_UNDEFINED},
    {"discovery", Svc::DQ_DISCOVERY_DATA},
    {"filter", Svc::DQ_FILTER_DATA},
}};

constexpr std::array<Name<Svc::DiscoveryStatus>, 6> STATUSES{{
    {"DS_SUCCESS", Svc::DS_SUCCESS},
    {"DS_NONE_FOUND", Svc::DS_NONE_FOUND},
    {"DS_LOGIC_ERROR", Svc::DS_LOGIC_ERROR},
    {"DS_OPEN_FAILED", Svc::DS_OPEN_FAILED},
    {"DS_COM_ERROR", Svc::DS_COM_ERROR},
    {"DS_DATA_EXISTS", Svc::DS_DATA_EXISTS},
}};

template <class Value, class Names>
std::optional<Value> parse(const Names& names, const std::string& text)
{
    for (const auto& name : names)
        if (Tlx::compareIgnoringCase(name.text, text) == 0)
            return name.value;
    return std::nullopt;
}

template <class Names, class Value>
std::string find(const Names& names, Value value)
{
    for (const auto& name : names)
        if (name.value == value)
            return name.text;
    return std::to_string(static_cast<long long>(value));
}

template <class Names>
std::string all(const Names& names)
{
    std::string text;
    for (std::size_t i = 0; i < names.size(); ++i)
        text += std::string(i == 0 ? "" : i + 1 < names.size() ? ", " : " or ") + names[i].text;
    return text;
}

} // namespace

std::optional<Svc::AuthorityType> parseAuthorityType(const std::string& text)
{
    return parse<Svc::AuthorityType>(AUTHORITY_TYPES, text);
}

std::optional<Svc::DiscoveryQuery> parseQueryType(const std::string& text)
{
    return parse<Svc::DiscoveryQuery>(QUERY_TYPES, text);
}

std::string toName(Svc::AuthorityType type)
{
    return find(AUTHORITY_TYPES, type);
}

std::string toName(Svc::DiscoveryStatus status)
{
    return find(STATUSES, status);
}

std::string authorityTypeNames()
{
    return all(AUTHORITY_TYPES);
}

std::string queryTypeNames()
{
    return all(QUERY_TYPES);
}

bool isPattern(const std::string& name)
{
    return Tlx::uriDecode(name).find_first_of("*?") != std::string::npos;
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
