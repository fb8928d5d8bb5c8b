#include "ConfigReading.h"

#include <algorithm>
#include <chrono>

#include <unistd.h>

#include <tlx/Resolver.h>
#include <tlx/String.h>

#include "ConfigValue.h"
#include "PlatformLog.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr const char* LOG_SOURCE = "../ConfigReading";

constexpr std::chrono::milliseconds RESOLVE_LIMIT{5000};

} // namespace

ConfigReading::ConfigReading(ConfigText text, std::optional<bool> master)
    : m_text(std::move(text)), m_master(master)
{
}

const ConfigText::Value* ConfigReading::find(const DeclaredKey& key,
                                             const std::string& written) const
{
    const auto found = m_text.values.find(key.keptName(written));
    if (found == m_text.values.end())
        return nullptr;
    // Nobody may have declared the key when the text was read, so the value may be unchecked. The
    // reader of a key that keeps its mistakes looks itself.
    if (!key.keepsMistakes() && !key.complaintAbout(written, found->second.text).empty())
        return nullptr;
    return &found->second;
}

std::optional<std::string> ConfigReading::getString(const DeclaredKey& key) const
{
    const ConfigText::Value* const value = find(key, key.name());
    return value ? std::optional(value->text) : std::nullopt;
}

std::string ConfigReading::localHostName() const
{
    if (const auto name = getString(ConfigKey::CLIENT_NAME))
        return *name;
    char buffer[256] = "";
    if (::gethostname(buffer, sizeof buffer - 1) != 0 || buffer[0] == '\0')
        return "localhost";
    return buffer;
}

Endpoint ConfigReading::listenEndpoint() const
{
    const auto written = getString(ConfigKey::LISTEN);
    const auto endpoint = written ? parseEndpoint(*written) : std::nullopt;
    return endpoint.value_or(Endpoint{"0.0.0.0", DEFAULT_PORT});
}

std::optional<Endpoint> ConfigReading::getEndpointOf(const std::string& host) const
{
    const DeclaredKey& key = ConfigKey::ENDPOINT_OF_HOST;
    const ConfigText::Value* const value = find(key, key.name() + host);
    return value ? parseEndpoint(value->text) : std::nullopt;
}

bool ConfigReading::isMaster()
{
    std::string unresolved;
    bool master = false;
    {
        const std::lock_guard guard(m_masterMutex);
        if (!m_master)
            m_master = findOutMaster(unresolved);
        master = *m_master;
    }
    if (!unresolved.empty()) // only in the call that found out
        PLATFORM_LOG(LOG_LEVEL_FAILURE, "HostConfig::isMaster",
                     "Cannot resolve "
                         << quotedValue(unresolved)
                         << ", the master's address. To this process the host is a client");
    return master;
}

std::optional<bool> ConfigReading::knownMaster()
{
    const std::lock_guard guard(m_masterMutex);
    return m_master;
}

/// Whether requests to an endpoint reach this host's own service. Several hosts may run on one
/// machine. Then only their ports differ.
bool ConfigReading::isOwnEndpoint(const Endpoint& endpoint, std::string& unresolved) const
{
    const Endpoint own = listenEndpoint();
    if (endpoint.port != own.port)
        return false;
    if (isSameIgnoringCase(endpoint.address, own.address) ||
        isSameIgnoringCase(endpoint.address, getString(ConfigKey::PUBLISH_ADDRESS).value_or("")))
        return true;
    // Compares addresses: one may be a name, and an IPv6 address can be written in many ways.
    const auto start = std::chrono::steady_clock::now();
    const auto wanted = resolveHost(endpoint.address, RESOLVE_LIMIT);
    const auto spent = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start);
    // Both names share one limit.
    const auto listening = resolveHost(own.address, RESOLVE_LIMIT - spent);
    const auto listensAt = [&](const std::string& address) {
        return std::find(listening.begin(), listening.end(), address) != listening.end();
    };
    if (wanted.empty())
        unresolved = endpoint.address;
    const bool everywhere = listensAt("0.0.0.0") || listensAt("::");
    return std::any_of(wanted.begin(), wanted.end(), [&](const std::string& address) {
        return everywhere ? isLocalAddress(address) : listensAt(address);
    });
}

bool ConfigReading::findOutMaster(std::string& unresolved) const
{
    const auto server = getString(ConfigKey::SERVER);
    if (!server)
        return false;
    if (isSameIgnoringCase(*server, localHostName()))
        return true;
    if (const auto endpoint = getEndpointOf(*server))
        return isOwnEndpoint(*endpoint, unresolved);
    const auto addresses = resolveHost(*server, RESOLVE_LIMIT);
    if (addresses.empty())
        unresolved = *server;
    return std::any_of(addresses.begin(), addresses.end(), isLocalAddress);
}

} // namespace Veltrane::Quillmark::Tlx
