#include "ConfigText.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstring>
#include <functional>
#include <string_view>

#include <arpa/inet.h>

#include <tlx/String.h>

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr std::size_t MAX_SHOWN = 80;
constexpr std::size_t MAX_HOST_NAME = 255;

// ASCII only, whatever the locale: the file reads the same on every host.
char toLower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

std::string lowered(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), toLower);
    return text;
}

std::string_view trimmed(std::string_view text)
{
    constexpr std::string_view BLANKS = " \t";
    const auto first = text.find_first_not_of(BLANKS);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

// A value as it is shown to a person: in quotes, cut at a character's end.
std::string quoted(std::string_view text)
{
    if (text.size() <= MAX_SHOWN)
        return "'" + std::string(text) + "'";
    std::size_t end = 0;
    while (end < MAX_SHOWN)
        end += std::max<std::size_t>(1, utf8Character(text.substr(end)));
    return "'" + std::string(text.substr(0, end)) + "...'";
}

bool isUtf8(std::string_view text)
{
    while (!text.empty()) {
        const std::size_t length = utf8Character(text);
        if (length == 0)
            return false;
        text.remove_prefix(length);
    }
    return true;
}

bool hasControlCharacter(std::string_view text)
{
    return std::any_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return (byte < 0x20 && c != '\t') || byte == 0x7f;
    });
}

bool isNumericV4(const std::string& text)
{
    in_addr address;
    return ::inet_pton(AF_INET, text.c_str(), &address) == 1;
}

bool isNumericV6(const std::string& text)
{
    in6_addr address;
    // inet_pton would read up to a NUL byte and no further.
    return text.find('\0') == std::string::npos &&
           ::inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

// A host name or an IPv4 address. What is only digits and dots is meant as an address.
bool isHostName(const std::string& text)
{
    if (text.empty() || text.size() > MAX_HOST_NAME || text.front() == '.' || text.front() == '-')
        return false;
    const bool good = std::all_of(text.begin(), text.end(), [](char c) {
        const char l = toLower(c);
        return (l >= 'a' && l <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
               c == '_' || (static_cast<unsigned char>(c) & 0x80) != 0;
    });
    if (!good)
        return false;
    if (text.find_first_not_of("0123456789.") == std::string::npos)
        return isNumericV4(text);
    return true;
}

bool isHost(const std::string& text)
{
    return isHostName(text) || isNumericV6(text);
}

constexpr std::array<NumberKey, 8> NUMBER_KEYS{{
    {ConfigKey::LOG_LEVEL, 0, 9, 1},
    {ConfigKey::LOG_MAX_BYTES, 4096, std::uint64_t{1} << 40, 10485760},
    {ConfigKey::LOG_KEEP, 0, 100, 5},
    {ConfigKey::STOP_LIMIT, 1, 3600, 60},
    {ConfigKey::MAX_MESSAGE_BYTES, 65536, std::uint64_t{1} << 30, 67108864},
    {ConfigKey::REMOTE_MAX_RECORDS, 1, 10000000, 1000000},
    {ConfigKey::REMOTE_MAX_BYTES, 1024, std::uint64_t{1} << 30, 67108864},
    {ConfigKey::REMOTE_MAX_SECONDS, 1, 86400, 600},
}};

// What is wrong with a value; empty when nothing is.
std::string checkNumber(const NumberKey& key, const std::string& value)
{
    const std::string expected =
        ", expected " + std::to_string(key.lowest) + " to " + std::to_string(key.highest);
    std::uint64_t number = 0;
    if (!parseNumber(value, number))
        return quoted(value) + " is not a number" + expected;
    if (number < key.lowest || number > key.highest)
        return quoted(value) + " is out of range" + expected;
    return {};
}

std::string checkHost(const std::string& value, const char* example)
{
    return isHost(value) ? std::string()
                         : quoted(value) + " is not a host name, expected for instance " + example;
}

std::string checkEndpoint(const std::string& value, bool anyPort, const char* example)
{
    Endpoint endpoint;
    if (!parseEndpoint(value, endpoint))
        return quoted(value) + " is not ADDRESS:PORT, expected for instance " + example;
    if (!anyPort && endpoint.port == 0)
        return quoted(value) + " has port 0, expected 1 to 65535";
    return {};
}

// Names of file system types with commas between them.
std::string checkTypes(const std::string& value)
{
    const bool good = !value.empty() && std::all_of(value.begin(), value.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || std::strchr("._-, ", c);
    });
    return good ? std::string()
                : quoted(value) + " is no list of types, expected for instance pseudo,nfs4";
}

bool isEndpointKey(std::string_view key)
{
    return key.starts_with(ConfigKey::ENDPOINT_PREFIX);
}

bool isKnownKey(const std::string& key)
{
    for (const char* known : {ConfigKey::SERVER, ConfigKey::CLIENT_NAME, ConfigKey::LISTEN,
                              ConfigKey::PUBLISH_ADDRESS, ConfigKey::REPORT_CLIENT_DISCOVERIES,
                              ConfigKey::FILESYSTEM_PULL, ConfigKey::FILESYSTEM_EXCLUDE})
        if (key == known)
            return true;
    return findNumberKey(key) != nullptr || isEndpointKey(key);
}

std::string checkValue(const std::string& key, const std::string& value)
{
    if (isEndpointKey(key)) {
        const std::string host = key.substr(std::strlen(ConfigKey::ENDPOINT_PREFIX));
        if (!isHost(host))
            return quoted(host) + " is not a host name, expected for instance ENDPOINT.backup1";
        return checkEndpoint(value, false, "192.0.2.7:14400");
    }
    if (key == ConfigKey::LISTEN)
        return checkEndpoint(value, true, "0.0.0.0:14400");
    if (key == ConfigKey::SERVER)
        return checkHost(value, "backup1.example.com");
    if (key == ConfigKey::CLIENT_NAME)
        return checkHost(value, "client7.example.com");
    if (key == ConfigKey::PUBLISH_ADDRESS)
        return checkHost(value, "192.0.2.7");
    if (key == ConfigKey::FILESYSTEM_EXCLUDE)
        return checkTypes(value);
    if (const NumberKey* number = findNumberKey(key))
        return checkNumber(*number, value);
    bool flag = false;
    return parseBoolean(value, flag) ? std::string()
                                     : quoted(value) + " is not a boolean, expected TRUE or FALSE";
}

// Takes one line, which stands at a place, into the result; answers what is wrong with it.
std::string takeLine(std::string_view line, const std::string& place, ConfigText& result)
{
    if (line.size() > CONFIG_MAX_LINE)
        return "the line is longer than " + std::to_string(CONFIG_MAX_LINE) + " bytes";
    const std::string_view content = trimmed(line);
    if (content.empty() || content.front() == '#')
        return {};
    if (hasControlCharacter(content))
        return "the line holds a control character, expected KEY = value";
    if (!isUtf8(content))
        return "the line is not UTF-8 text, expected KEY = value";
    const auto equals = content.find('=');
    if (equals == std::string_view::npos)
        return quoted(content) + " is not KEY = value";
    std::string key(trimmed(content.substr(0, equals)));
    const std::string value(trimmed(content.substr(equals + 1)));
    if (!isKnownKey(key))
        return "unknown key " + quoted(key);

    const std::string wrong = checkValue(key, value);
    if (isEndpointKey(key))
        key = endpointKey(key.substr(std::strlen(ConfigKey::ENDPOINT_PREFIX)));
    if (!wrong.empty()) {
        // The last line with a key is the one that counts, also when it counts for nothing.
        result.values.erase(key);
        result.places.erase(key);
        return key + ": " + wrong;
    }
    result.values[key] = value;
    result.places[key] = place;
    return {};
}

} // namespace

const NumberKey* findNumberKey(const std::string& key)
{
    for (const NumberKey& number : NUMBER_KEYS)
        if (key == number.key)
            return &number;
    return nullptr;
}

bool parseBoolean(const std::string& text, bool& out)
{
    const std::string word = lowered(text);
    if (word == "true" || word == "yes" || word == "1" || word == "on") {
        out = true;
        return true;
    }
    if (word == "false" || word == "no" || word == "0" || word == "off") {
        out = false;
        return true;
    }
    return false;
}

bool parseNumber(const std::string& text, std::uint64_t& out)
{
    std::uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, number);
    if (text.empty() || parsed.ec != std::errc() || parsed.ptr != end)
        return false;
    out = number;
    return true;
}

bool parseEndpoint(const std::string& text, Endpoint& out)
{
    const auto colon = text.rfind(':');
    if (colon == std::string::npos)
        return false;
    std::string address = text.substr(0, colon);
    const std::string portText = text.substr(colon + 1);
    std::uint64_t port = 0;
    if (!parseNumber(portText, port) || port > 65535)
        return false;
    if (address.size() > 2 && address.front() == '[' && address.back() == ']') {
        address = address.substr(1, address.size() - 2);
        if (!isNumericV6(address))
            return false;
    } else if (!isHostName(address)) {
        return false;
    }
    out.address = address;
    out.port = static_cast<std::uint16_t>(port);
    return true;
}

std::string toText(const Endpoint& endpoint)
{
    const bool v6 = endpoint.address.find(':') != std::string::npos;
    return (v6 ? "[" + endpoint.address + "]" : endpoint.address) + ":" +
           std::to_string(endpoint.port);
}

std::string endpointKey(const std::string& host)
{
    return ConfigKey::ENDPOINT_PREFIX + lowered(host);
}

ConfigText parseConfigText(const std::string& text, const std::string& name)
{
    ConfigText result;
    std::string_view rest = text;
    if (rest.starts_with("\xef\xbb\xbf")) // some editors put a byte order mark first
        rest.remove_prefix(3);
    if (rest.size() > CONFIG_MAX_BYTES) {
        result.problems.push_back(
            {name, 0,
             "the file is larger than " + std::to_string(CONFIG_MAX_BYTES) + " bytes, ignored"});
        return result;
    }
    for (unsigned number = 1; !rest.empty(); ++number) {
        const auto end = rest.find('\n');
        std::string_view line = rest.substr(0, end);
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
        if (line.ends_with('\r'))
            line.remove_suffix(1);
        const std::string wrong = takeLine(line, name + ":" + std::to_string(number), result);
        if (wrong.empty() || result.problems.size() > CONFIG_MAX_PROBLEMS)
            continue;
        if (result.problems.size() == CONFIG_MAX_PROBLEMS)
            result.problems.push_back({name, number, "there are more problems, not shown"});
        else
            result.problems.push_back({name, number, wrong});
    }
    return result;
}

} // namespace Veltrane::Quillmark::Tlx
