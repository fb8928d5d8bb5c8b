#include "Stamp.h"

#include <array>
#include <charconv>
#include <cstring>
#include <stdexcept>

#include <fmt/format.h>

namespace Veltrane::Quillmark::Soak {

namespace {

constexpr std::array<std::uint32_t, 256> makeTable()
{
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t i = 0; i < table.size(); ++i) {
        std::uint32_t value = i;
        for (int bit = 0; bit < 8; ++bit)
            value = value & 1 ? value >> 1 ^ 0xEDB88320u : value >> 1;
        table[i] = value;
    }
    return table;
}
constexpr auto TABLE = makeTable();

std::uint32_t checksum(std::string_view bytes)
{
    std::uint32_t value = ~0u;
    for (const char byte : bytes)
        value = TABLE[(value ^ static_cast<unsigned char>(byte)) & 0xFF] ^ value >> 8;
    return ~value;
}

std::string stampOf(const std::string& name, const Version& version, std::uint32_t sum)
{
    return fmt::format("{} {} {} {:08x}\n", name, version.generation, version.size, sum);
}

/// Fills the bytes with numbers that depend on the seed.
void fill(char* bytes, std::size_t size, std::uint64_t seed)
{
    for (std::size_t done = 0; done < size; done += sizeof seed) {
        seed = seed * 6364136223846793005u + 1442695040888963407u;
        const std::uint64_t mixed = seed ^ seed >> 33;
        std::memcpy(bytes + done, &mixed, std::min(sizeof mixed, size - done));
    }
}

/// Takes the number before the next blank.
std::optional<std::uint64_t> takeNumber(std::string_view& text, int base = 10)
{
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    if (error != std::errc())
        return std::nullopt;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    if (!text.empty() && text.front() == ' ')
        text.remove_prefix(1);
    return number;
}

} // namespace

std::string makePayload(const std::string& name, const Version& version)
{
    if (version.size == 0)
        return "";
    const std::size_t stamp = stampOf(name, version, 0).size();
    if (version.size < SMALLEST_STAMP || stamp > SMALLEST_STAMP)
        throw std::logic_error("a payload is too small for its stamp");
    std::string payload(version.size, '\0');
    const std::size_t rest = version.size - stamp;
    fill(payload.data() + stamp, rest, checksum(name) + version.generation * 1000003);
    const std::string line =
        stampOf(name, version, checksum(std::string_view(payload).substr(stamp)));
    payload.replace(0, stamp, line);
    return payload;
}

std::optional<Version> checkPayload(const std::string& name, std::string_view payload)
{
    if (payload.empty())
        return Version{};
    const std::size_t end = payload.substr(0, SMALLEST_STAMP).find('\n');
    if (end == std::string_view::npos || !payload.starts_with(name + " "))
        return std::nullopt;
    std::string_view line = payload.substr(0, end);
    line.remove_prefix(name.size() + 1);
    const auto generation = takeNumber(line);
    const auto size = takeNumber(line);
    const auto sum = takeNumber(line, 16);
    if (!generation || !size || !sum || !line.empty() || *size != payload.size() ||
        *sum != checksum(payload.substr(end + 1)))
        return std::nullopt;
    return Version{*generation, *size};
}

} // namespace Veltrane::Quillmark::Soak
