#pragma once
// The text of the host configuration: what its lines say, and which of them are wrong.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <tlx/HostConfig.h>

namespace Veltrane::Quillmark::Tlx {

/// What a configuration text holds. Only known keys with good values; the host part of an ENDPOINT
/// key is in lower case.
struct ConfigText
{
    std::map<std::string, std::string> values;
    std::map<std::string, std::string> places; ///< of each value: "FILE:LINE"
    std::vector<HostConfig::Problem> problems;
};

constexpr std::size_t CONFIG_MAX_BYTES = std::size_t{1} << 20;
constexpr std::size_t CONFIG_MAX_LINE = 4096;
/// A hostile file must not become a hostile log.
constexpr std::size_t CONFIG_MAX_PROBLEMS = 100;

/// Takes any bytes. name stands in the problems.
ConfigText parseConfigText(const std::string& text, const std::string& name);

/// A number key's bounds and default; null when the key holds no number.
struct NumberKey
{
    const char* key;
    std::uint64_t lowest;
    std::uint64_t highest;
    std::uint64_t standard;
};
const NumberKey* findNumberKey(const std::string& key);

/// False (and out unchanged) when the text is none.
bool parseBoolean(const std::string& text, bool& out);
bool parseNumber(const std::string& text, std::uint64_t& out);

/// The key under which a host's ENDPOINT is kept.
std::string endpointKey(const std::string& host);

} // namespace Veltrane::Quillmark::Tlx
