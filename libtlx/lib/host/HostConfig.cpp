#include <tlx/HostConfig.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>

#include <unistd.h>

#include <tlx/File.h>
#include <tlx/Number.h>

#include "ConfigReading.h"
#include "ConfigText.h"
#include "ConfigValue.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr const char* DEFAULT_ROOT = "/usr/varix/quillmark";

// Reads a whole file. Returns the reason of a failure, empty on success.
// @param isThere receives whether there is such a file.
std::string readFile(const std::string& path, std::string& out, bool& isThere)
{
    auto content = readWholeFile(path, CONFIG_MAX_BYTES);
    isThere = content || content.error() != std::errc::no_such_file_or_directory;
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

constexpr std::array HOST_KEYS{ConfigKey::SERVER, ConfigKey::CLIENT_NAME, ConfigKey::LISTEN,
                               ConfigKey::PUBLISH_ADDRESS, ConfigKey::ENDPOINT_OF_HOST};

} // namespace

struct HostConfig::State
{
    std::mutex mutex;
    std::optional<TlxPathname> root;
    DeclaredKeys keys;
    std::shared_ptr<ConfigReading> reading = std::make_shared<ConfigReading>();

    std::shared_ptr<ConfigReading> current()
    {
        std::lock_guard guard(mutex);
        return reading;
    }
    DeclaredKeys declared()
    {
        std::lock_guard guard(mutex);
        return keys;
    }
    void replace(ConfigText text, std::optional<bool> master = std::nullopt)
    {
        auto fresh = std::make_shared<ConfigReading>(std::move(text), master);
        std::lock_guard guard(mutex);
        reading = std::move(fresh);
    }
};

std::string HostConfig::Problem::toText() const
{
    return file + ":" + (line == 0 ? std::string() : std::to_string(line) + ":") + " " + text;
}

HostConfig::HostConfig() : m_state(new State)
{
    m_state->keys.add(HOST_KEYS);
}

HostConfig& HostConfig::instance()
{
    static auto* const config = new HostConfig;
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

void HostConfig::declare(ConfigKeyTable keys)
{
    std::lock_guard guard(m_state->mutex);
    m_state->keys.add(keys);
}

std::vector<const DeclaredKey*> HostConfig::declaredKeys() const
{
    return m_state->declared().all();
}

bool HostConfig::read()
{
    const std::string path = configFile().text();
    std::string content;
    bool isThere = false;
    const std::string wrong = readFile(path, content, isThere);
    if (wrong.empty()) {
        readText(content, path);
        return true;
    }
    ConfigText nothing;
    nothing.problems.push_back({path, 0, wrong});
    // Without a file the defaults are meant. A file may have meant less.
    if (isThere)
        for (const DeclaredKey* const key : declaredKeys())
            if (key->isList())
                nothing.values[key->name()] = {"", path};
    m_state->replace(std::move(nothing));
    return false;
}

bool HostConfig::readAgain()
{
    const std::string path = configFile().text();
    std::string content;
    bool isThere = false;
    const std::string wrong = readFile(path, content, isThere);
    const auto before = m_state->current();
    ConfigText next = before->text();
    next.problems.clear();
    if (!wrong.empty()) {
        next.problems.push_back({path, 0, wrong});
    } else {
        const DeclaredKeys keys = m_state->declared();
        ConfigText fresh = parseConfigText(content, path, keys);
        next.problems = std::move(fresh.problems);
        for (const DeclaredKey* const key : keys.all())
            if (key->isTakenWhileRunning()) {
                next.values.erase(key->name());
                next.values.insert(fresh.values.extract(key->name()));
            }
    }
    m_state->replace(std::move(next), before->knownMaster());
    return wrong.empty();
}

void HostConfig::readText(const std::string& text, const std::string& name)
{
    m_state->replace(parseConfigText(text, name, m_state->declared()));
}

std::vector<HostConfig::Problem> HostConfig::problems() const
{
    return m_state->current()->text().problems;
}

std::optional<std::string> HostConfig::getString(const DeclaredKey& key) const
{
    return m_state->current()->getString(key);
}

std::optional<bool> HostConfig::getBoolean(const DeclaredKey& key) const
{
    const auto text = getString(key);
    return text ? parseBoolean(*text) : std::nullopt;
}

std::optional<std::uint64_t> HostConfig::getNumber(const DeclaredKey& key) const
{
    const auto text = getString(key);
    return text ? parseNumber<std::uint64_t>(*text) : std::nullopt;
}

std::string HostConfig::placeOf(const DeclaredKey& key) const
{
    const auto reading = m_state->current();
    const ConfigText::Value* const value = reading->find(key, key.name());
    return value ? value->place : "not set in " + configFile().text();
}

std::uint64_t HostConfig::number(const DeclaredKey& key) const
{
    return getNumber(key).value_or(key.standard());
}

std::vector<std::string> HostConfig::list(const DeclaredKey& key) const
{
    return key.goodEntries(getString(key).value_or(key.standardList()));
}

std::string HostConfig::localHostName() const
{
    return m_state->current()->localHostName();
}

Endpoint HostConfig::listenEndpoint() const
{
    return m_state->current()->listenEndpoint();
}

std::optional<Endpoint> HostConfig::getEndpointOf(const std::string& host) const
{
    return m_state->current()->getEndpointOf(host);
}

Endpoint HostConfig::endpointOf(const std::string& host) const
{
    return getEndpointOf(host).value_or(Endpoint{host, DEFAULT_PORT});
}

bool HostConfig::isMaster() const
{
    return m_state->current()->isMaster();
}

int QM_read_master_config()
{
    return HostConfig::instance().read() ? 0 : -1;
}

int QM_get_config_boolean(const char* key, bool& value)
{
    if (!key)
        return -1;
    const HostConfig& config = HostConfig::instance();
    for (const DeclaredKey* const known : config.declaredKeys()) {
        if (!known->covers(key))
            continue;
        const auto flag = config.getBoolean(*known);
        value = flag.value_or(value);
        return flag ? 0 : -1;
    }
    return -1;
}

bool QM_is_master(const char* host)
{
    const HostConfig& config = HostConfig::instance();
    const auto server = config.getString(ConfigKey::SERVER);
    if (!host || !server)
        return false;
    const auto isNamed = [host](const std::string& name) {
        return compareIgnoringCase(host, name) == 0;
    };
    if (isNamed(*server))
        return true;
    if (isNamed("localhost") || isNamed(config.localHostName()))
        return config.isMaster();
    return false;
}

} // namespace Veltrane::Quillmark::Tlx
