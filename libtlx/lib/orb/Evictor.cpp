#include <tlx/Evictor.h>

#include <algorithm>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <tlx/Orb.h>
#include <tlx/Servant.h>

#include "PlatformLog.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr const char* LOG_SOURCE = "../Evictor";

using TimePoint = std::chrono::steady_clock::time_point;
using Duration = std::chrono::steady_clock::duration;

/// An object id in a form that can be compared.
std::string keyOf(const PortableServer::ObjectId& id)
{
    return {reinterpret_cast<const char*>(id.get_buffer()), id.length()};
}

/// Seconds beyond what a clock can count mean "never".
Duration toDuration(const TlxObjTime& time)
{
    constexpr std::int64_t MAX_SECONDS = 100LL * 365 * 24 * 3600;
    return std::chrono::seconds(std::clamp<std::int64_t>(time.seconds(), 0, MAX_SECONDS)) +
           std::chrono::microseconds(time.microseconds());
}

/// A busy object with a tiny time-out is looked at again after this time, not at once.
constexpr Duration SHORTEST_WAIT = std::chrono::milliseconds(10);

struct Watched
{
    PortableServer::POA_var poa;
    PortableServer::ObjectId id;
    Duration timeout{};
    TimePoint added;
    std::shared_ptr<ServantActivity> activity; ///< null for a servant that does not record activity
    TimePoint look;                            ///< when evictIdle looks at it; it is not due before

    TimePoint due() const
    {
        return (activity ? std::max(added, activity->lastUse()) : added) + timeout;
    }
    bool idleAt(TimePoint now) const
    {
        return due() <= now && (!activity || activity->idleSince(now - timeout));
    }
};

/// Call it without the evictor's mutex, because the POA takes its own locks.
void deactivate(const Watched& object, bool quiet)
{
    try {
        object.poa->deactivate_object(object.id);
    } catch (const CORBA::Exception& e) {
        if (!quiet)
            PLATFORM_WARN("Evictor::deactivate",
                          "Unable to deactivate an object: " << describeException(e));
    }
}

} // namespace

struct Evictor::State
{
    using Objects = std::map<std::string, Watched>;

    Clock clock;
    Listener listener;
    mutable std::mutex mutex;
    std::condition_variable changed;
    Objects objects;
    /// The same objects in the order of their next look.
    std::set<std::pair<TimePoint, std::string>> looks;
    /// The keys of the objects that were due and busy. Each look examines them, because their
    /// requests may have ended. They are fewer than the requests in progress once were.
    std::set<std::string> busy;
    bool ended = false;
    std::thread thread;
    TimePoint wake = TimePoint::max(); ///< when the thread looks next; max is never
    Work work;

    TimePoint now() const { return clock ? clock() : std::chrono::steady_clock::now(); }

    TimePoint nextLook() const { return looks.empty() ? TimePoint::max() : looks.begin()->first; }

    /// Removes an object from all containers.
    Watched take(Objects::iterator object)
    {
        looks.erase({object->second.look, object->first});
        busy.erase(object->first);
        Watched taken = std::move(object->second);
        objects.erase(object);
        return taken;
    }

    void lookLater(Objects::iterator object, TimePoint look)
    {
        looks.erase({object->second.look, object->first});
        object->second.look = look;
        looks.emplace(look, object->first);
    }

    /// Takes an object if it is idle, and sets the time of its next look otherwise.
    void examine(const std::string& key, TimePoint moment, std::vector<Watched>& idle)
    {
        const auto object = objects.find(key);
        if (object == objects.end())
            return;
        ++work.examined;
        const Watched& watched = object->second;
        if (watched.idleAt(moment)) {
            idle.push_back(take(object));
        } else if (const TimePoint due = watched.due(); due > moment) {
            lookLater(object, due);
        } else {
            busy.insert(key);
            lookLater(object, moment + std::max(watched.timeout, SHORTEST_WAIT));
        }
    }

    /// Waits for the next look. Returns false at the end.
    bool waitForLook()
    {
        std::unique_lock lock(mutex);
        while (!ended) {
            wake = nextLook();
            if (wake <= now())
                return true;
            if (wake == TimePoint::max()) // such a time overflows inside a timed wait
                changed.wait(lock);
            else
                changed.wait_until(lock, wake);
        }
        return false;
    }
};

Evictor::Evictor(Clock clock) : m_state(std::make_unique<State>())
{
    const bool ownThread = !clock;
    m_state->clock = std::move(clock);
    if (!ownThread)
        return;
    try {
        m_state->thread = std::thread([this] {
            while (m_state->waitForLook())
                evictIdle();
        });
    } catch (const std::system_error& e) {
        throw OrbError("cannot start the thread that ends idle objects: " + e.code().message());
    }
}

Evictor::~Evictor()
{
    shutdown();
}

void Evictor::setListener(Listener listener)
{
    const std::lock_guard guard(m_state->mutex);
    m_state->listener = std::move(listener);
}

void Evictor::addObject(const TlxObjTime& timeout, PortableServer::POA_ptr poa,
                        const PortableServer::ObjectId& id, const PortableServer::ObjectId&)
{
    {
        const std::lock_guard guard(m_state->mutex);
        if (m_state->ended)
            throw CORBA::BAD_INV_ORDER();
    }
    Watched object;
    object.poa = PortableServer::POA::_duplicate(poa);
    object.id = id;
    object.timeout = toDuration(timeout);
    object.added = m_state->now();
    const PortableServer::ServantBase_var servant = poa->id_to_servant(id);
    if (const auto* stateful = dynamic_cast<const StatefulServant*>(servant.in()))
        object.activity = stateful->activity();
    object.look = object.due();

    std::string key = keyOf(id);
    Watched before; // destroyed without the mutex
    const std::lock_guard guard(m_state->mutex);
    if (m_state->ended)
        throw CORBA::BAD_INV_ORDER();
    if (const auto found = m_state->objects.find(key); found != m_state->objects.end())
        before = m_state->take(found);
    const TimePoint look = object.look;
    m_state->objects.emplace(key, std::move(object));
    m_state->looks.emplace(look, std::move(key));
    if (look < m_state->wake) {
        m_state->wake = look; // so the next object does not wake the thread once more
        ++m_state->work.wakeUps;
        m_state->changed.notify_one();
    }
}

void Evictor::removeObject(const PortableServer::ObjectId& id, bool deactivateIt, bool quiet)
{
    Watched object;
    {
        const std::lock_guard guard(m_state->mutex);
        const auto found = m_state->objects.find(keyOf(id));
        if (found == m_state->objects.end())
            return;
        object = m_state->take(found);
    }
    if (deactivateIt)
        deactivate(object, quiet);
}

void Evictor::shutdown()
{
    State::Objects objects;
    std::thread thread;
    {
        const std::lock_guard guard(m_state->mutex);
        m_state->ended = true;
        objects.swap(m_state->objects);
        m_state->looks.clear();
        m_state->busy.clear();
        thread.swap(m_state->thread);
        m_state->changed.notify_all();
    }
    for (const auto& [key, object] : objects)
        deactivate(object, true);
    if (thread.joinable())
        thread.join();
}

std::size_t Evictor::evictIdle()
{
    std::vector<Watched> idle;
    Listener listener;
    {
        const std::lock_guard guard(m_state->mutex);
        listener = m_state->listener;
        const TimePoint now = m_state->now();
        for (const std::string& key : std::exchange(m_state->busy, {}))
            m_state->examine(key, now, idle);
        while (m_state->nextLook() <= now)
            m_state->examine(std::string(m_state->looks.begin()->second), now, idle);
        m_state->wake = m_state->nextLook();
    }
    // The POA lets a request that arrives now finish before the servant goes.
    for (const Watched& object : idle) {
        deactivate(object, false);
        PLATFORM_LOG(4, "Evictor::evictIdle", "Evicted an object that was left idle");
        if (listener)
            listener(object.id);
    }
    return idle.size();
}

std::size_t Evictor::watched() const
{
    const std::lock_guard guard(m_state->mutex);
    return m_state->objects.size();
}

Evictor::Work Evictor::work() const
{
    const std::lock_guard guard(m_state->mutex);
    return m_state->work;
}

} // namespace Veltrane::Quillmark::Tlx
