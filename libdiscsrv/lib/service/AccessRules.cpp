#include "AccessRules.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include <tlx/Corba.h>
#include <tlx/HostConfig.h>
#include <tlx/Resolver.h>
#include <tlx/StopNotice.h>

#include "AccessEntry.h"
#include "DiscLog.h"
#include "ServiceCounters.h"
#include "ServiceKeys.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr const char* LOG_SOURCE = "AccessRules";

struct Operation
{
    std::string_view name;
    AccessRole role;
};

/// The operations of the interfaces under their names on the wire.
constexpr std::array OPERATIONS{
    Operation{"queryDiscoveries", AccessRole::READ},
    Operation{"getCollectionData", AccessRole::READ},
    Operation{"getNextPage", AccessRole::READ},
    Operation{"_get_pageSize", AccessRole::READ},
    Operation{"_set_pageSize", AccessRole::READ},
    Operation{"release", AccessRole::READ},
    Operation{"putCollection", AccessRole::WRITE},
    Operation{"put", AccessRole::WRITE},
    Operation{"close", AccessRole::WRITE},
    Operation{"registerExplorer", AccessRole::REGISTER},
    Operation{"terminate", AccessRole::CONTROL},
    Operation{"restartLocalPushTimer", AccessRole::CONTROL},
    Operation{"restartAllPushTimers", AccessRole::CONTROL},
};

/// The keys of the lists, in the order of the roles.
constexpr std::array<const DeclaredKey*, ACCESS_ROLES> KEYS{
    &ConfigKey::ALLOW_READ, &ConfigKey::ALLOW_WRITE, &ConfigKey::ALLOW_REGISTER,
    &ConfigKey::ALLOW_CONTROL};

std::string nameOf(const RequestPeer& peer)
{
    return peer.certificateName.empty() ? peer.address
                                        : peer.certificateName + " (" + peer.address + ")";
}

/// One place in the code logs all refusals, so the log sums up a flood of them.
void noteRefusal(const RequestPeer& peer, const std::string& what, const std::string& rule)
{
    const LogScope scope("AccessRules::check");
    countService(ServiceCounter::REQUESTS_REFUSED);
    DISC_WARN("Refused: " << nameOf(peer) << " may not " << what << " (" << rule << ")");
}

[[noreturn]] void refuse(const RequestPeer& peer, const std::string& what, const std::string& rule)
{
    noteRefusal(peer, what, rule);
    throw CORBA::NO_PERMISSION(0, CORBA::COMPLETED_NO);
}

} // namespace

std::optional<AccessRole> roleOf(std::string_view operation)
{
    const auto* const found =
        std::find_if(OPERATIONS.begin(), OPERATIONS.end(),
                     [operation](const Operation& each) { return each.name == operation; });
    return found == OPERATIONS.end() ? std::nullopt : std::optional(found->role);
}

AccessRules& AccessRules::instance()
{
    static auto* const rules = new AccessRules;
    return *rules;
}

const AccessList& AccessRules::Rules::of(AccessRole role) const
{
    return lists[static_cast<std::size_t>(role)];
}

bool AccessRules::check(const ArrivingRequest& request)
{
    return instance().admits(request);
}

AccessRules::Input AccessRules::readInput()
{
    const HostConfig& config = HostConfig::instance();
    Input input;
    for (std::size_t role = 0; role < ACCESS_ROLES; ++role)
        input.entries[role] = config.list(*KEYS[role]);
    input.maxPriority = static_cast<std::uint32_t>(config.number(ConfigKey::MAX_REMOTE_PRIORITY));
    input.known.master = config.getString(ConfigKey::SERVER).value_or("");
    input.known.local = interfaceAddresses();
    return input;
}

/// The names to resolve, each once, sorted.
std::vector<std::string> AccessRules::namesOf(const Input& input)
{
    std::vector<std::string> names;
    for (const auto& entries : input.entries)
        for (const std::string& entry : entries) {
            const AccessEntryKind kind = accessEntryKind(entry);
            if (kind == AccessEntryKind::HOST)
                names.push_back(comparableHost(entry));
            else if (kind == AccessEntryKind::MASTER && !input.known.master.empty())
                names.push_back(comparableHost(input.known.master));
        }
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

/// Adds the addresses of the names as they are known now.
void AccessRules::addKnown(Input& input) const
{
    input.known.hosts.clear();
    for (const std::string& name : namesOf(input)) {
        const auto found = m_resolved.find(name);
        if (found != m_resolved.end() && !found->second.addresses.empty())
            input.known.hosts.emplace_back(name, found->second.addresses);
    }
}

void AccessRules::publish()
{
    Input input = readInput();
    addKnown(input);
    if (m_rules && input == m_input)
        return;
    auto rules = std::make_shared<Rules>();
    for (std::size_t role = 0; role < ACCESS_ROLES; ++role)
        rules->lists[role] = AccessList(KEYS[role]->name(), input.entries[role], input.known);
    rules->maxPriority = input.maxPriority;
    rules->interfaces = input.known.local;
    m_input = std::move(input);
    m_rules = std::move(rules);
    m_generation.fetch_add(1, std::memory_order_release);
}

const AccessRules::Rules* AccessRules::current()
{
    thread_local std::uint64_t generation = 0;
    thread_local std::shared_ptr<const Rules> rules;
    const std::uint64_t now = m_generation.load(std::memory_order_acquire);
    if (now != generation) {
        const std::lock_guard guard(m_mutex);
        rules = m_rules;
        generation = m_generation.load(std::memory_order_relaxed);
    }
    return rules.get();
}

void AccessRules::start()
{
    DISC_TRACE("AccessRules::start");
    {
        const std::lock_guard guard(m_mutex);
        m_isStopping = false;
    }
    const bool isComplete = refresh(ACCESS_START_LIMIT);
    setRequestCheck(&AccessRules::check);
    {
        const std::lock_guard guard(m_mutex);
        m_isDue = !isComplete;
    }
    if (m_thread.joinable())
        return;
    try {
        m_thread = std::thread([this] { run(); });
    } catch (const std::system_error& e) {
        DISC_LOG(1,
                 "The hosts of ALLOW.* keep their addresses until the next reload: " << e.what());
    }
}

void AccessRules::reload()
{
    DISC_TRACE("AccessRules::reload");
    {
        const std::lock_guard guard(m_mutex);
        publish();
        m_isDue = true;
    }
    m_ownNames.clear();
    m_wake.notify_one();
}

void AccessRules::stop()
{
    {
        const std::lock_guard guard(m_mutex);
        m_isStopping = true;
    }
    m_wake.notify_one();
    if (m_thread.joinable())
        m_thread.join();
}

void AccessRules::run()
{
    for (bool isComplete = true;;) {
        {
            std::unique_lock guard(m_mutex);
            m_wake.wait_for(guard, isComplete ? ACCESS_ROUND_INTERVAL : ACCESS_RETRY_INTERVAL,
                            [this] { return m_isStopping || m_isDue; });
            if (m_isStopping)
                return;
            m_isDue = false;
        }
        isComplete = refresh(ACCESS_ROUND_LIMIT);
    }
}

bool AccessRules::refresh(std::chrono::milliseconds limit)
{
    const LogScope scope("AccessRules::refresh");
    std::vector<std::string> names = namesOf(readInput());
    const auto deadline = Clock::now() + limit;
    {
        const std::lock_guard guard(m_mutex);
        std::erase_if(m_resolved, [&](const auto& each) {
            return !std::binary_search(names.begin(), names.end(), each.first);
        });
        std::rotate(names.begin(), std::lower_bound(names.begin(), names.end(), m_next),
                    names.end());
        m_next.clear();
    }
    for (const std::string& name : names) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        {
            const std::lock_guard guard(m_mutex);
            if (left.count() <= 0)
                m_next = name;
            if (left.count() <= 0 || m_isStopping)
                break;
        }
        const auto found =
            resolveHost(HostConfig::instance().endpointOf(name).address,
                        std::min<std::chrono::milliseconds>(left, ACCESS_NAME_LIMIT));
        if (isStopAnnounced()) { // a broken off wait finds nothing
            const std::lock_guard guard(m_mutex);
            m_next = name;
            break;
        }
        note(name, found);
    }
    const std::lock_guard guard(m_mutex);
    publish();
    return m_next.empty() && std::none_of(m_resolved.begin(), m_resolved.end(),
                                          [](const auto& each) { return each.second.isMissing; });
}

/// Takes over the addresses of a name. Logs when the name stops resolving.
void AccessRules::note(const std::string& name, const std::vector<std::string>& found)
{
    Addresses addresses;
    for (const std::string& text : found)
        if (const auto address = NumericAddress::parse(text))
            addresses.push_back(*address);
    std::sort(addresses.begin(), addresses.end());
    const auto now = Clock::now();
    bool isNews = false;
    bool hasAddresses = false;
    {
        const std::lock_guard guard(m_mutex);
        Resolved& resolved = m_resolved[name];
        const bool wasMissing = std::exchange(resolved.isMissing, addresses.empty());
        if (!addresses.empty()) {
            resolved.addresses = std::move(addresses);
            resolved.when = now;
            return;
        }
        const bool isTooOld = !resolved.addresses.empty() && now - resolved.when > ACCESS_NAME_KEPT;
        if (isTooOld)
            resolved.addresses.clear();
        isNews = !wasMissing || isTooOld;
        hasAddresses = !resolved.addresses.empty();
    }
    if (isNews)
        DISC_WARN("Cannot resolve \"" << name << "\" of the lists ALLOW.*, "
                                      << (hasAddresses ? "its last addresses hold for a day"
                                                       : "without a certificate it admits nobody"));
}

bool AccessRules::admits(const ArrivingRequest& request)
{
    const auto role = roleOf(request.operation);
    const Rules* const rules = role ? current() : nullptr;
    if (!rules)
        return true;
    const AccessList& list = rules->of(*role);
    if (list.admits(request.peer) || list.admitsOwners())
        return true;
    noteRefusal(request.peer, request.operation, list.text());
    return false;
}

void AccessRules::requireOwner(AccessRole role, const char* operation,
                               const std::vector<std::string>& names)
{
    const RequestPeer* const peer = requestPeer();
    const Rules* const rules = peer ? current() : nullptr;
    if (!rules)
        return;
    const AccessList& list = rules->of(role);
    if (list.admits(*peer))
        return;
    for (const std::string& name : names)
        if (!list.admitsOwners() || !m_ownNames.isOwn(name, *peer, rules->interfaces))
            refuse(*peer, std::string(operation) + " as \"" + name + "\"", list.text());
}

void AccessRules::requireRole(AccessRole role, const char* operation)
{
    const RequestPeer* const peer = requestPeer();
    const Rules* const rules = peer ? current() : nullptr;
    if (rules && !rules->of(role).admits(*peer))
        refuse(*peer, operation, rules->of(role).text());
}

void AccessRules::requirePriority(const char* operation, std::uint32_t priority)
{
    const RequestPeer* const peer = requestPeer();
    const Rules* const rules = peer ? current() : nullptr;
    if (rules && priority > rules->maxPriority && !rules->of(AccessRole::CONTROL).admits(*peer))
        refuse(*peer, std::string(operation) + " with priority " + std::to_string(priority),
               std::string(ConfigKey::MAX_REMOTE_PRIORITY.name()) + " = " +
                   std::to_string(rules->maxPriority));
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
