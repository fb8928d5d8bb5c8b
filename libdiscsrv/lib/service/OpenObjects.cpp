#include "OpenObjects.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include <sys/random.h>

#include <tlx/HostConfig.h>

#include "DiscLog.h"
#include "EvictableServant.h"
#include "PulledBytes.h"
#include "ServiceCounters.h"
#include "ServiceKeys.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {

namespace {

constexpr const char* LOG_SOURCE = "DiscoveryService_i";

constexpr const char* POA_NAME = "OpenObjects";

/// A client knows the keys of its own objects. It cannot find out others among so many.
constexpr std::size_t ID_BYTES = 16;

/// Of the iterators that are given up, at most one line in this time. A peer beyond its share loses
/// one with each query.
constexpr std::chrono::seconds BETWEEN_LINES{1};

using TimePoint = std::chrono::steady_clock::time_point;

bool systemRandom(void* buffer, std::size_t size)
{
    return ::getrandom(buffer, size, 0) == static_cast<ssize_t>(size); // whole up to 256 bytes
}

std::atomic<bool (*)(void*, std::size_t)> g_random{&systemRandom};

/// Returns an empty key on failure.
std::string randomKey()
{
    std::array<char, ID_BYTES> bytes{};
    if (!g_random.load()(bytes.data(), bytes.size()))
        return {};
    return {bytes.data(), bytes.size()};
}

std::string keyOf(const PortableServer::ObjectId& id)
{
    return {reinterpret_cast<const char*>(id.get_buffer()), id.length()};
}

PortableServer::ObjectId idOf(const std::string& key)
{
    PortableServer::ObjectId id;
    id.length(static_cast<CORBA::ULong>(key.size()));
    std::copy(key.begin(), key.end(), id.get_buffer());
    return id;
}

/// Empty for this process.
std::string keyOf(const std::optional<RequestPeer>& peer)
{
    return peer ? peer->key() : std::string();
}

/// For people.
std::string nameOf(const std::optional<RequestPeer>& peer)
{
    return peer ? "peer " + peer->identity() : "this process";
}

/// Peers by a number, the highest first.
template <class Number>
using Ranking = std::set<std::pair<Number, std::string>, std::greater<>>;

} // namespace

struct OpenObjects::Entry
{
    enum class Progress
    {
        Made,  ///< on its way to the client
        Open,  ///< may be given up
        Ending ///< its client ends it
    };

    std::string key;
    OpenKind kind = OpenKind::Writer;
    PortableServer::ServantBase_var servant; ///< the registry's own reference
    const OpenServant* object = nullptr;     ///< the same servant
    std::shared_ptr<ServantActivity> activity;
    std::string peer; ///< its key
    TlxObjTime opened;
    std::size_t bytes = 0;
    Progress progress = Progress::Made;
    TimePoint used; ///< its place in Peer::idle: it was not idle longer than since this moment
};

/// What one peer holds.
struct OpenObjects::Peer
{
    std::optional<RequestPeer> peer;
    std::size_t iterators = 0;
    std::size_t bytes = 0;
    /// Its open iterators, roughly in the order of their last use. A search corrects the order.
    std::set<std::pair<TimePoint, std::string>> idle;
    /// Its writers in the order in which they were opened.
    std::set<std::pair<TlxObjTime, std::string>> writers;
};

struct OpenObjects::State
{
    using EntryPtr = std::shared_ptr<Entry>;

    mutable std::mutex mutex;
    OpenLimits limits;
    Evictor::Clock clock;
    Orb* orb = nullptr; ///< null while no object is let in
    PortableServer::POA_var poa;
    std::shared_ptr<Evictor> writerWatch;
    std::unordered_map<std::string, EntryPtr> entries;
    std::map<std::string, Peer> peers;
    /// The peers with iterators, by their number.
    Ranking<std::size_t> byIterators;
    std::size_t iterators = 0;
    std::size_t writers = 0;
    std::optional<TimePoint> lastLine; ///< about iterators that were given up
    std::size_t unlogged = 0;

    TimePoint now() const { return clock ? clock() : std::chrono::steady_clock::now(); }

    void changeIterators(const std::string& name, Peer& peer, std::ptrdiff_t by)
    {
        byIterators.erase({peer.iterators, name});
        peer.iterators += static_cast<std::size_t>(by);
        iterators += static_cast<std::size_t>(by);
        if (peer.iterators > 0)
            byIterators.emplace(peer.iterators, name);
        setService(ServiceCounter::ITERATORS_OPEN, iterators);
        raiseService(ServiceCounter::ITERATORS_HIGHEST, iterators);
    }

    void noteWriters()
    {
        setService(ServiceCounter::WRITERS_OPEN, writers);
        raiseService(ServiceCounter::WRITERS_HIGHEST, writers);
    }

    void add(const EntryPtr& entry, const std::optional<RequestPeer>& owner)
    {
        Peer& peer = peers[entry->peer];
        peer.peer = owner;
        peer.bytes += entry->bytes;
        if (entry->kind == OpenKind::Writer) {
            peer.writers.emplace(entry->opened, entry->key);
            ++writers;
            noteWriters();
        } else {
            changeIterators(entry->peer, peer, 1);
        }
        entries.emplace(entry->key, entry);
    }

    /// Removes an object from all tables. Returns null for an unknown one.
    EntryPtr take(const std::string& key)
    {
        const auto found = entries.find(key);
        if (found == entries.end())
            return nullptr;
        EntryPtr entry = std::move(found->second);
        entries.erase(found);
        const auto at = peers.find(entry->peer);
        Peer& peer = at->second;
        peer.bytes -= entry->bytes;
        if (entry->kind == OpenKind::Writer) {
            peer.writers.erase({entry->opened, entry->key});
            --writers;
            noteWriters();
        } else {
            peer.idle.erase({entry->used, entry->key});
            changeIterators(entry->peer, peer, -1);
        }
        if (peer.iterators == 0 && peer.writers.empty())
            peers.erase(at);
        return entry;
    }

    /// The open iterator of a peer that was idle for the longest time; null if none is idle.
    EntryPtr longestIdle(Peer& peer, bool withBytes)
    {
        // Each step corrects one place or goes on to the next one. The bound is for iterators that
        // are used all the time meanwhile.
        std::size_t steps = 2 * peer.idle.size();
        for (auto at = peer.idle.begin(); at != peer.idle.end() && steps > 0; --steps) {
            const EntryPtr& entry = entries.at(at->second);
            if (withBytes && entry->bytes == 0) {
                ++at;
                continue;
            }
            if (const TimePoint used = entry->activity->lastUse(); used > entry->used) {
                entry->used = used;
                auto node = peer.idle.extract(at++);
                node.value().first = used;
                const auto put = peer.idle.insert(std::move(node)).position;
                if (at == peer.idle.end() || *put < *at)
                    at = put;
                continue;
            }
            if (entry->activity->busy() || entry->progress != Entry::Progress::Open) {
                ++at;
                continue;
            }
            return entry;
        }
        return nullptr;
    }

    /// Makes room for one more iterator of a peer. Returns the one that goes, or null. Sets failed
    /// if there is no room.
    EntryPtr makeRoom(const std::string& name, bool hasShare, bool& failed)
    {
        failed = false;
        const auto peer = peers.find(name);
        if (hasShare && peer != peers.end() && peer->second.iterators >= limits.iteratorsOfPeer) {
            const EntryPtr idle = longestIdle(peer->second, false);
            failed = !idle;
            return idle ? take(idle->key) : nullptr;
        }
        if (iterators < limits.iterators)
            return nullptr;
        for (const auto& [count, most] : byIterators)
            if (const EntryPtr idle = longestIdle(peers.at(most), false))
                return take(idle->key);
        failed = true;
        return nullptr;
    }

    /// How many iterators the next line names; 0 if there is no line now.
    std::size_t countForLine()
    {
        ++unlogged;
        const TimePoint moment = now();
        if (lastLine && moment - *lastLine < BETWEEN_LINES)
            return 0;
        lastLine = moment;
        return std::exchange(unlogged, 0);
    }
};

OpenLimits OpenLimits::configured()
{
    const HostConfig& config = HostConfig::instance();
    return {config.number(ConfigKey::MAX_ITERATORS),
            config.number(ConfigKey::MAX_ITERATORS_PER_PEER),
            config.number(ConfigKey::MAX_WRITERS_PER_PEER),
            std::chrono::seconds(config.number(ConfigKey::WRITER_IDLE_LIMIT))};
}

bool mayOpenWriter(std::size_t held, std::size_t open, const OpenLimits& limits)
{
    if (held >= limits.writersOfPeer || open >= limits.writers)
        return false;
    if (limits.writersOfPeer >= limits.writers) // the configuration lets one peer have all
        return true;
    return held * (limits.writers - limits.writersOfPeer) <
           (limits.writers - open) * limits.writersOfPeer;
}

OpenObjects::OpenObjects() : m_state(std::make_unique<State>()) {}

OpenObjects::~OpenObjects() = default;

OpenObjects& openObjects()
{
    // Never destroyed: destructors of static objects may still end an object.
    static auto* const instance = new OpenObjects;
    return *instance;
}

void OpenObjects::start(PortableServer::POA_ptr parent, Orb& orb, const OpenLimits& limits,
                        Evictor::Clock clock)
{
    auto watch = std::make_shared<Evictor>(clock);
    watch->setListener([this](const PortableServer::ObjectId& id) { giveUpWriter(id); });
    if (orb.isEvictorEnabled())
        orb.getEvictor().setListener([this](const PortableServer::ObjectId& id) { evicted(id); });
    CORBA::PolicyList policies;
    policies.length(1);
    policies[0] = parent->create_id_assignment_policy(PortableServer::USER_ID);
    const PortableServer::POAManager_var manager = parent->the_POAManager();
    const PortableServer::POA_var poa = parent->create_POA(POA_NAME, manager, policies);
    PulledBytes::setMakeRoom([this] { return giveUpPulled(); });

    const std::lock_guard guard(m_state->mutex);
    m_state->limits = limits;
    m_state->clock = std::move(clock);
    m_state->poa = poa;
    m_state->writerWatch = std::move(watch);
    m_state->orb = &orb;
}

void OpenObjects::stop()
{
    const PortableServer::POA_var home = poa();
    if (!CORBA::is_nil(home)) {
        try {
            home->destroy(false, true);
        } catch (const CORBA::Exception&) { // destroyed already, with its parent
        }
    }
    std::shared_ptr<Evictor> watch;
    std::unordered_map<std::string, State::EntryPtr> entries;
    {
        const std::lock_guard guard(m_state->mutex);
        if (!m_state->orb)
            return;
        m_state->orb = nullptr;
        m_state->poa = PortableServer::POA::_nil();
        watch.swap(m_state->writerWatch);
        while (!m_state->entries.empty()) {
            const State::EntryPtr entry = m_state->take(m_state->entries.begin()->first);
            entries.emplace(entry->key, entry);
        }
    }
    PulledBytes::setMakeRoom({});
    watch->shutdown();
}

OpenObjects::Admission OpenObjects::admit(OpenKind kind, OpenServant& servant,
                                          PortableServer::ServantBase& owned,
                                          const std::shared_ptr<ServantActivity>& activity)
{
    std::string key = randomKey();
    if (key.empty()) {
        DISC_WARN("Refused " << servant.describe() << ": the system has no random numbers");
        return {};
    }
    const RequestPeer* const peer = requestPeer();
    if (peer)
        servant.setOwner(*peer);
    servant.m_objectId = new PortableServer::ObjectId(idOf(key));
    const auto entry = std::make_shared<Entry>();
    entry->key = key;
    entry->kind = kind;
    owned._add_ref();
    entry->servant = &owned;
    entry->object = &servant;
    entry->activity = activity;
    entry->peer = keyOf(servant.owner());
    entry->opened = TlxObjTime::now();
    entry->bytes = servant.heldBytes();
    entry->used = activity->lastUse();

    const std::string name = nameOf(servant.owner());
    State::EntryPtr givenUp;
    std::string warning;
    std::string many;
    bool crowded = false;
    {
        const std::lock_guard guard(m_state->mutex);
        if (!m_state->orb)
            throw CORBA::OBJ_ADAPTER();
        const auto known = m_state->peers.find(entry->peer);
        bool refused = false;
        if (kind == OpenKind::Writer) {
            const std::size_t held =
                known == m_state->peers.end() ? 0 : known->second.writers.size();
            const OpenLimits& limits = m_state->limits;
            refused = peer && !mayOpenWriter(held, m_state->writers, limits);
            crowded = refused && held < limits.writersOfPeer;
            if (refused)
                warning = "Refused " + servant.describe() + ": " + name + " has " +
                          std::to_string(held) + " open writers" +
                          (crowded ? ", and all together have " + std::to_string(m_state->writers) +
                                         " of " + std::to_string(limits.writers)
                                   : std::string()) +
                          " (MAX_WRITERS_PER_PEER)";
        } else {
            givenUp = m_state->makeRoom(entry->peer, peer != nullptr, refused);
            if (refused)
                warning = "Refused " + servant.describe() + " of " + name +
                          ": too many iterators are open (MAX_ITERATORS, MAX_ITERATORS_PER_PEER), "
                          "and a request runs in each";
        }
        if (!refused)
            m_state->add(entry, servant.owner());
        else
            key.clear();
        if (kind == OpenKind::Writer && !refused &&
            std::find(std::begin(MANY_WRITERS), std::end(MANY_WRITERS), m_state->writers) !=
                std::end(MANY_WRITERS))
            many = std::to_string(m_state->writers) +
                   " writers are open; the last one belongs "
                   "to " +
                   name + ", which has " +
                   std::to_string(m_state->peers.at(entry->peer).writers.size());
    }
    if (!warning.empty())
        DISC_WARN(warning);
    if (!many.empty()) // a place of its own: a flood of refusals must not hide it
        DISC_WARN(many);
    if (key.empty()) {
        countService(kind == OpenKind::Writer ? ServiceCounter::WRITERS_REFUSED
                                              : ServiceCounter::ITERATORS_REFUSED);
        if (crowded)
            countService(ServiceCounter::WRITERS_CROWDED_OUT);
        return {};
    }
    if (givenUp) {
        countService(ServiceCounter::ITERATORS_GIVEN_UP);
        std::size_t count = 0;
        {
            const std::lock_guard guard(m_state->mutex);
            count = m_state->countForLine();
        }
        if (count > 0)
            DISC_WARN("Gave up " << count
                                 << " idle iterators to make room (MAX_ITERATORS, "
                                    "MAX_ITERATORS_PER_PEER), the last one of "
                                 << nameOf(givenUp->object->owner()));
        discard(givenUp);
    }
    return {*this, std::move(key), kind, &owned};
}

bool OpenObjects::beginEnd(const PortableServer::ObjectId& id)
{
    const std::lock_guard guard(m_state->mutex);
    const auto found = m_state->entries.find(keyOf(id));
    if (found == m_state->entries.end() || found->second->progress == Entry::Progress::Ending)
        return false;
    found->second->progress = Entry::Progress::Ending;
    return true;
}

void OpenObjects::end(const PortableServer::ObjectId& id)
{
    remove(keyOf(id));
}

void OpenObjects::remove(const std::string& key)
{
    State::EntryPtr entry;
    {
        const std::lock_guard guard(m_state->mutex);
        entry = m_state->take(key);
    }
    if (entry)
        discard(entry);
}

void OpenObjects::keep(const std::string& key)
{
    const std::lock_guard guard(m_state->mutex);
    const auto found = m_state->entries.find(key);
    if (found == m_state->entries.end() || found->second->progress != Entry::Progress::Made)
        return;
    Entry& entry = *found->second;
    entry.progress = Entry::Progress::Open;
    if (entry.kind != OpenKind::Writer)
        m_state->peers.at(entry.peer).idle.emplace(entry.used, key);
}

/// Ends the watch over an object that left the tables, and deactivates it. The entry's reference to
/// the servant goes with the caller's entry.
void OpenObjects::discard(const std::shared_ptr<Entry>& entry)
{
    Orb* orb = nullptr;
    PortableServer::POA_var home;
    std::shared_ptr<Evictor> watch;
    {
        const std::lock_guard guard(m_state->mutex);
        orb = m_state->orb;
        home = m_state->poa;
        watch = m_state->writerWatch;
    }
    if (!orb) // stopped: the POA is gone
        return;
    const PortableServer::ObjectId id = idOf(entry->key);
    if (entry->kind == OpenKind::Writer)
        watch->removeObject(id, false, true);
    else if (orb->isEvictorEnabled())
        orb->getEvictor().removeObject(id, false, true);
    deactivateQuietly(home, id);
}

/// The evictor has deactivated an iterator.
void OpenObjects::evicted(const PortableServer::ObjectId& id)
{
    State::EntryPtr entry;
    const std::lock_guard guard(m_state->mutex);
    entry = m_state->take(keyOf(id));
}

/// The watch over the writers has deactivated one.
void OpenObjects::giveUpWriter(const PortableServer::ObjectId& id)
{
    State::EntryPtr entry;
    std::chrono::seconds limit{0};
    {
        const std::lock_guard guard(m_state->mutex);
        const auto found = m_state->entries.find(keyOf(id));
        if (found == m_state->entries.end() || found->second->progress == Entry::Progress::Ending)
            return;
        entry = m_state->take(keyOf(id));
        limit = m_state->limits.writerIdle;
    }
    countService(ServiceCounter::WRITERS_GIVEN_UP);
    const LogScope scope("OpenObjects::giveUpWriter");
    DISC_WARN("Gave up " << entry->object->describe() << ": " << nameOf(entry->object->owner())
                         << " has not used it for " << limit.count() << " s (WRITER_IDLE_LIMIT)");
}

std::size_t OpenObjects::giveUpIdleWriters()
{
    std::shared_ptr<Evictor> watch;
    {
        const std::lock_guard guard(m_state->mutex);
        watch = m_state->writerWatch;
    }
    return watch ? watch->evictIdle() : 0;
}

bool OpenObjects::giveUpPulled()
{
    State::EntryPtr entry;
    {
        const std::lock_guard guard(m_state->mutex);
        Ranking<std::size_t> byBytes;
        for (const auto& [name, peer] : m_state->peers)
            if (peer.bytes > 0)
                byBytes.emplace(peer.bytes, name);
        for (const auto& [bytes, name] : byBytes)
            if ((entry = m_state->longestIdle(m_state->peers.at(name), true)))
                break;
        if (!entry)
            return false;
        m_state->take(entry->key);
    }
    countService(ServiceCounter::ITERATORS_GIVEN_UP);
    DISC_WARN("Gave up an idle iterator with "
              << entry->bytes << " bytes in memory to make room (MAX_PULLED_BYTES), of "
              << nameOf(entry->object->owner()));
    discard(entry);
    return true;
}

OpenWriters OpenObjects::writers(std::size_t mostPeers) const
{
    OpenWriters result;
    const std::lock_guard guard(m_state->mutex);
    result.open = m_state->writers;
    for (const auto& [name, peer] : m_state->peers)
        if (!peer.writers.empty())
            result.most.push_back({peer.peer ? peer.peer->identity() : "", peer.writers.size(),
                                   peer.writers.begin()->first});
    result.peers = result.most.size();
    std::stable_sort(
        result.most.begin(), result.most.end(),
        [](const PeerWriters& one, const PeerWriters& other) { return one.count > other.count; });
    if (result.most.size() > mostPeers)
        result.most.resize(mostPeers);
    return result;
}

std::size_t OpenObjects::iteratorsOpen() const
{
    const std::lock_guard guard(m_state->mutex);
    return m_state->iterators;
}

std::size_t OpenObjects::writersOpen() const
{
    const std::lock_guard guard(m_state->mutex);
    return m_state->writers;
}

PortableServer::POA_var OpenObjects::poa() const
{
    const std::lock_guard guard(m_state->mutex);
    return m_state->poa;
}

void OpenObjects::setRandom(bool (*fill)(void*, std::size_t))
{
    g_random = fill ? fill : &systemRandom;
}

OpenObjects::Admission::Admission(OpenObjects& registry, std::string key, OpenKind kind,
                                  PortableServer::Servant servant)
    : m_registry(&registry), m_key(std::move(key)), m_kind(kind), m_servant(servant)
{
}

OpenObjects::Admission::Admission(Admission&& other) noexcept
    : m_registry(std::exchange(other.m_registry, nullptr)), m_key(std::exchange(other.m_key, {})),
      m_kind(other.m_kind), m_servant(other.m_servant)
{
}

OpenObjects::Admission::~Admission()
{
    if (m_registry)
        m_registry->remove(m_key);
}

CORBA::Object_ptr OpenObjects::Admission::activate()
{
    const PortableServer::POA_var home = m_registry ? m_registry->poa() : PortableServer::POA_var();
    if (CORBA::is_nil(home))
        throw CORBA::OBJ_ADAPTER();
    const PortableServer::ObjectId id = idOf(m_key);
    try {
        home->activate_object_with_id(id, m_servant);
        CORBA::Object_var reference = home->id_to_reference(id);
        std::shared_ptr<Evictor> watch;
        std::chrono::seconds limit{0};
        {
            const std::lock_guard guard(m_registry->m_state->mutex);
            watch = m_registry->m_state->writerWatch;
            limit = m_registry->m_state->limits.writerIdle;
        }
        if (m_kind == OpenKind::Writer && watch && limit.count() > 0)
            watch->addObject(TlxObjTime(limit.count(), 0), home, id, PortableServer::ObjectId());
        return reference._retn();
    } catch (const CORBA::UserException&) {
        // The POA or the watch threw it while the service stops. The wire contract has no user
        // exceptions.
        throw CORBA::OBJ_ADAPTER();
    }
}

void OpenObjects::Admission::keep()
{
    if (m_registry)
        std::exchange(m_registry, nullptr)->keep(m_key);
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

OpenWriters openWriters(std::size_t mostPeers)
{
    return Remote::openObjects().writers(mostPeers);
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
