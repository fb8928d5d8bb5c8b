#include <tlx/HostConfig.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>

#include <unistd.h>

#include <tlx/File.h>
#include <tlx/Resolver.h>

#include "ConfigText.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr const char* DEFAULT_ROOT = "/usr/varix/quillmark";
constexpr std::chrono::milliseconds RESOLVE_LIMIT{5000};

bool sameName(const std::string& a, const std::string& b)
{
    return compareIgnoringCase(a, b) == 0;
}

// Reads a whole file; what was wrong otherwise.
std::string readFile(const std::string& path, std::string& out)
{
    auto content = readWholeFile(path, CONFIG_MAX_BYTES);
    if (content) {
        out = std::move(*content);
        return {};
    }
    const std::error_code error = content.error();
    return "cannot be read: " +
           (error == std::errc::invalid_argument ? "it is not a regular file"
            : error == std::errc::file_too_large
                ? "it is larger than " + std::to_string(CONFIG_MAX_BYTES) + " bytes"
                : error.message());
}

// One read of the configuration. Never changes but for the answer that is found out late.
struct Snapshot
{
    ConfigText text;
    std::mutex masterMutex;
    std::optional<bool> master;

    bool find(const std::string& key, std::string& out) const
    {
        const auto found = text.values.find(key);
        if (found == text.values.end())
            return false;
        out = found->second;
        return true;
    }
    std::string value(const std::string& key) const
    {
        std::string result;
        find(key, result);
        return result;
    }
    std::string localHostName() const
    {
        std::string name;
        if (find(ConfigKey::CLIENT_NAME, name))
            return name;
        char buffer[256] = "";
        if (::gethostname(buffer, sizeof buffer - 1) != 0 || buffer[0] == '\0')
            return "localhost";
        return buffer;
    }
    Endpoint listenEndpoint() const
    {
        Endpoint endpoint{"0.0.0.0", DEFAULT_PORT};
        parseEndpoint(value(ConfigKey::LISTEN), endpoint);
        return endpoint;
    }
    bool isOwnEndpoint(const Endpoint& endpoint) const;
    bool findOutMaster() const;
};

// Whether requests to an endpoint reach this host's own service. With several hosts on one machine
// it is the port that tells them apart.
bool Snapshot::isOwnEndpoint(const Endpoint& endpoint) const
{
    const Endpoint own = listenEndpoint();
    if (endpoint.port != own.port)
        return false;
    if (sameName(endpoint.address, own.address) ||
        sameName(endpoint.address, value(ConfigKey::PUBLISH_ADDRESS)))
        return true;
    // Compared as addresses: one may be a name, and IPv6 has many ways to write the same address.
    const auto start = std::chrono::steady_clock::now();
    const auto wanted = resolveHost(endpoint.address, RESOLVE_LIMIT);
    const auto spent = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start);
    // What the first name used up the second one does not get.
    const auto listening = resolveHost(own.address, RESOLVE_LIMIT - spent);
    const auto listensAt = [&](const std::string& address) {
        return std::find(listening.begin(), listening.end(), address) != listening.end();
    };
    const bool everywhere = listensAt("0.0.0.0") || listensAt("::");
    return std::any_of(wanted.begin(), wanted.end(), [&](const std::string& address) {
        return everywhere ? isLocalAddress(address) : listensAt(address);
    });
}

bool Snapshot::findOutMaster() const
{
    std::string server;
    if (!find(ConfigKey::SERVER, server))
        return false;
    if (sameName(server, localHostName()))
        return true;
    Endpoint endpoint;
    if (parseEndpoint(value(endpointKey(server)), endpoint))
        return isOwnEndpoint(endpoint);
    for (const std::string& address : resolveHost(server, RESOLVE_LIMIT))
        if (isLocalAddress(address))
            return true;
    return false;
}

/// The part of a map that has a key: one entry or none.
std::map<std::string, std::string> extract(const std::map<std::string, std::string>& from,
                                           const std::string& key)
{
    const auto found = from.find(key);
    return found == from.end() ? std::map<std::string, std::string>()
                               : std::map<std::string, std::string>{*found};
}

} // namespace

struct HostConfig::State
{
    std::mutex mutex;
    std::optional<TlxPathname> root;
    std::shared_ptr<Snapshot> snapshot = std::make_shared<Snapshot>();

    std::shared_ptr<Snapshot> current()
    {
        std::lock_guard guard(mutex);
        return snapshot;
    }
    void replace(ConfigText text, std::optional<bool> master = std::nullopt)
    {
        auto fresh = std::make_shared<Snapshot>();
        fresh->text = std::move(text);
        fresh->master = master;
        std::lock_guard guard(mutex);
        snapshot = std::move(fresh);
    }
};

std::string HostConfig::Problem::toText() const
{
    return file + ":" + (line == 0 ? std::string() : std::to_string(line) + ":") + " " + text;
}

HostConfig::HostConfig() : m_state(new State) {}

HostConfig& HostConfig::instance()
{
    static HostConfig* const config = new HostConfig;
    return *config;
}

TlxPathname HostConfig::root() const
{
    {
        std::lock_guard guard(m_state->mutex);
        if (m_state->root)
            return *m_state->root;
    }
    const char* const moved = std::getenv("QUILLMARK_ROOT");
    return moved && *moved ? moved : DEFAULT_ROOT;
}

void HostConfig::setRoot(const TlxPathname& root)
{
    std::lock_guard guard(m_state->mutex);
    m_state->root = root;
}

TlxPathname HostConfig::configFile() const
{
    return root().withFileName("etc").withFileName("qm.conf");
}

bool HostConfig::read()
{
    const std::string path = configFile().text();
    std::string content;
    const std::string wrong = readFile(path, content);
    if (wrong.empty()) {
        m_state->replace(parseConfigText(content, path));
        return true;
    }
    ConfigText nothing;
    nothing.problems.push_back({path, 0, wrong});
    m_state->replace(std::move(nothing));
    return false;
}

bool HostConfig::readAgain(const std::vector<std::string>& keys)
{
    const std::string path = configFile().text();
    std::string content;
    const std::string wrong = readFile(path, content);
    const auto before = m_state->current();
    ConfigText next = before->text;
    next.problems.clear();
    if (!wrong.empty()) {
        next.problems.push_back({path, 0, wrong});
    } else {
        ConfigText fresh = parseConfigText(content, path);
        next.problems = std::move(fresh.problems);
        for (const std::string& key : keys) {
            next.values.erase(key);
            next.places.erase(key);
            next.values.merge(extract(fresh.values, key));
            next.places.merge(extract(fresh.places, key));
        }
    }
    std::optional<bool> master;
    {
        std::lock_guard guard(before->masterMutex);
        master = before->master;
    }
    m_state->replace(std::move(next), master);
    return wrong.empty();
}

void HostConfig::readText(const std::string& text, const std::string& name)
{
    m_state->replace(parseConfigText(text, name));
}

void HostConfig::addText(const std::string& text, const std::string& name)
{
    ConfigText next = m_state->current()->text;
    ConfigText more = parseConfigText(text, name);
    // (What is in both stays the new one's.)
    more.values.merge(next.values);
    more.places.merge(next.places);
    next.problems.insert(next.problems.end(), more.problems.begin(), more.problems.end());
    more.problems = std::move(next.problems);
    m_state->replace(std::move(more));
}

std::vector<HostConfig::Problem> HostConfig::problems() const
{
    return m_state->current()->text.problems;
}

bool HostConfig::getString(const std::string& key, std::string& out) const
{
    const std::string prefix = ConfigKey::ENDPOINT_PREFIX;
    if (key.starts_with(prefix))
        return m_state->current()->find(endpointKey(key.substr(prefix.size())), out);
    return m_state->current()->find(key, out);
}

bool HostConfig::getBoolean(const std::string& key, bool& out) const
{
    std::string text;
    return getString(key, text) && parseBoolean(text, out);
}

bool HostConfig::getNumber(const std::string& key, std::uint64_t& out) const
{
    std::string text;
    return getString(key, text) && parseNumber(text, out);
}

std::string HostConfig::placeOf(const std::string& key) const
{
    const auto snapshot = m_state->current();
    const auto place = snapshot->text.places.find(key);
    return place != snapshot->text.places.end() ? place->second
                                                : "not set in " + configFile().text();
}

std::string HostConfig::localHostName() const
{
    return m_state->current()->localHostName();
}

Endpoint HostConfig::listenEndpoint() const
{
    return m_state->current()->listenEndpoint();
}

Endpoint HostConfig::endpointOf(const std::string& host) const
{
    Endpoint endpoint{host, DEFAULT_PORT};
    parseEndpoint(m_state->current()->value(endpointKey(host)), endpoint);
    return endpoint;
}

std::uint64_t HostConfig::number(const std::string& key) const
{
    const NumberKey* const known = findNumberKey(key);
    std::uint64_t result = known ? known->standard : 0;
    getNumber(key, result);
    return result;
}

bool HostConfig::isMaster() const
{
    const auto snapshot = m_state->current();
    std::lock_guard guard(snapshot->masterMutex);
    if (!snapshot->master)
        snapshot->master = snapshot->findOutMaster();
    return *snapshot->master;
}

int QM_read_master_config()
{
    return HostConfig::instance().read() ? 0 : -1;
}

int QM_get_config_boolean(const char* key, bool& value)
{
    return key && HostConfig::instance().getBoolean(key, value) ? 0 : -1;
}

bool QM_is_master(const char* host)
{
    const HostConfig& config = HostConfig::instance();
    std::string server;
    if (!host || !config.getString(ConfigKey::SERVER, server))
        return false;
    if (sameName(host, server))
        return true;
    if (sameName(host, "localhost") || sameName(host, config.localHostName()))
        return config.isMaster();
    return false;
}

} // namespace Veltrane::Quillmark::Tlx
